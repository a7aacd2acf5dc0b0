#include "tools/standalone_client/printer.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdint>
#include <cstring>
#include <memory>
#include <new>
#include <string_view>
#include <vector>

#include "kernel/ltype.h"
#include "tools/standalone_client/client_globals.h"
#include "tools/standalone_client/formats.h"
#include "tools/standalone_client/out_buffer.h"
#include "tools/standalone_client/printer_internal.h"
#include "utils/kest_assert.h"

namespace {

constexpr LineGlyphs kAsciiGlyphs = {"|", "-", "+", "+", "+", "+", "+", "+", "+", "+", "+"};
// UTF-8 bytes, whatever the console's code page.
constexpr LineGlyphs kUnicodeGlyphs = {
    "\xE2\x94\x82",  // U+2502
    "\xE2\x94\x80",  // U+2500
    "\xE2\x94\x8C",  // U+250C
    "\xE2\x94\xAC",  // U+252C
    "\xE2\x94\x90",  // U+2510
    "\xE2\x94\x9C",  // U+251C
    "\xE2\x94\xBC",  // U+253C
    "\xE2\x94\xA4",  // U+2524
    "\xE2\x94\x94",  // U+2514
    "\xE2\x94\xB4",  // U+2534
    "\xE2\x94\x98",  // U+2518
};

constexpr int kTypeTextSize = 64;
constexpr int kDefaultWidth = 24;

int display_width(const char* name, uint32_t ltype) {
  char text[kTypeTextSize];
  ltype_to_string(text, ltype);
  int width = ltype_display_width(ltype);
  if (width == 0) width = kDefaultWidth;
  const int longest = static_cast<int>(std::max(std::strlen(text), std::strlen(name)));
  return std::min(std::max(width, longest), kMaxWidth);
}

bool is_text_type(uint32_t ltype) {
  const uint32_t id = ltype_id(ltype);
  return id == LTYPE_CHAR || id == LTYPE_VCHAR;
}

std::string_view rows_word(int64_t rows) { return rows == 1 ? "row" : "rows"; }

}  // namespace

// Characters of UTF-8 text as the table pads them: a byte below 128 is one character; a byte of
// 128 or more also takes the next byte, and one more byte for each of the thresholds 224, 240,
// 248 and 252 that it reaches, for as long as those bytes are 128 or more. Reads no further than
// `len` bytes, whatever the text holds.
size_t utf8_chars(const char* text, size_t len) {
  size_t chars = 0;
  size_t i = 0;
  for (; i + 8 <= len; i += 8, chars += 8) {  // eight bytes below 128 at a time: eight characters
    uint64_t word;
    std::memcpy(&word, text + i, sizeof word);
    if (word & 0x8080808080808080u) break;
  }
  while (i < len) {
    const auto lead = static_cast<unsigned char>(text[i]);
    ++chars;
    i += lead < 128 ? 1 : 2;
    if (lead < 224) continue;
    for (unsigned threshold : {224u, 240u, 248u, 252u}) {
      if (lead < threshold || i >= len || static_cast<unsigned char>(text[i]) < 128) break;
      ++i;
    }
  }
  return chars;
}

namespace {

void setup_columns(ResultPrinter& p, int32_t ncols, char* const* names,
                   const PhysicalType* const* types, const uint32_t* ltypes,
                   const int32_t* isconst) {
  p.columns.resize(static_cast<size_t>(ncols));
  for (int32_t i = 0; i < ncols; ++i) {
    Column& c = p.columns[i];
    c.type = types[i];
    c.ltype = ltypes[i];
    c.text = value_text_fn(types[i], ltypes[i]);
    c.isconst = isconst[i];
    c.width = display_width(names[i], ltypes[i]);
    c.size = ptype_width(types[i]);
    const bool previous_hidden = i > 0 && p.columns[i - 1].hidden;
    c.hidden = names[i][0] == '\0' && c.size == 1 && i != ncols - 1 && !previous_hidden;
    c.indicator = previous_hidden ? i - 1 : -1;
    c.indicator_const = previous_hidden ? p.columns[i - 1].isconst : 0;
    c.left = is_text_type(c.ltype);
    if (!c.hidden) p.visible.push_back(i);
  }
  if (p.ops->aligned) {
    p.slots.resize(p.visible.size() * kValueTextSize);
    p.lengths.resize(p.visible.size());
  }
}

// The length of a text the conversion cut to the buffer (kept apart from the per-cell path).
[[gnu::noinline]] size_t cut_text_length(const char* dst) {
  return static_cast<size_t>(std::find(dst, dst + kValueTextSize - 1, '\0') - dst);
}

// The null text in a cell at `dst` (cut to the value buffer, as values are); its length.
[[gnu::noinline]] size_t null_cell_text(const ResultPrinter& p, char* dst) {
  const size_t n = std::min(p.null_text.size(), kValueTextSize - 1);
  std::memcpy(dst, p.null_text.data(), n);
  return n;
}

// Writes the text of a cell at `dst`, which has room for kValueTextSize bytes, and returns its
// length. A text too long for the buffer is cut to what the conversion left in it.
inline size_t cell_text(const ResultPrinter& p, const Column& c, void* const* data, int64_t row,
                        int32_t column, char* dst) {
  if (cell_is_null(c, data, row)) return null_cell_text(p, dst);
  const char* value = cell_value(c, data, row, column);
  const int n = c.text(dst, kValueTextSize, c.type, c.ltype, value);
  if (n < 0 || static_cast<size_t>(n) >= kValueTextSize) return cut_text_length(dst);
  return static_cast<size_t>(n);
}

void print_rule_line(ResultPrinter& p, int which) {
  const LineGlyphs& g = *p.glyphs;
  const size_t base = 2 + 3 * static_cast<size_t>(which);
  p.out.append(g[base]);
  for (size_t k = 0; k < p.visible.size(); ++k) {
    p.out.append_repeat(g[1], static_cast<size_t>(p.columns[p.visible[k]].width));
    p.out.append(g[k + 1 == p.visible.size() ? base + 2 : base + 1]);
  }
  p.out.append("\n");
}

// One head line of the table modes: each text left-aligned and padded by bytes to the width.
template <typename TextOf>
void print_head_line(ResultPrinter& p, TextOf text_of) {
  const std::string_view bar = (*p.glyphs)[0];
  p.out.append(bar);
  for (int32_t i : p.visible) {
    const std::string_view text = text_of(i);
    p.out.append(text);
    const size_t width = static_cast<size_t>(p.columns[i].width);
    if (text.size() < width) p.out.append_fill(' ', width - text.size());
    p.out.append(bar);
  }
  p.out.append("\n");
}

template <typename TextOf>
void print_html_head_cells(ResultPrinter& p, TextOf text_of) {
  for (int32_t i : p.visible) {
    p.out.append("<th>");
    p.out.append(text_of(i));
    p.out.append("</th>");
  }
}

void print_html_head(ResultPrinter& p, char* const* names) {
  char type_text[kTypeTextSize];
  p.out.append("<table class=\"znresult\">");
  if (p.columns.empty()) return;
  p.out.append("<thead><tr>");
  print_html_head_cells(p, [&](int32_t i) { return std::string_view(names[i]); });
  p.out.append("</tr><tr>");
  print_html_head_cells(p, [&](int32_t i) {
    ltype_to_string(type_text, p.columns[i].ltype);
    return std::string_view(type_text);
  });
  p.out.append("</tr></thead>");
}

void print_table_head(ResultPrinter& p, char* const* names) {
  char type_text[kTypeTextSize];
  print_rule_line(p, 0);
  print_head_line(p, [&](int32_t i) { return std::string_view(names[i]); });
  print_head_line(p, [&](int32_t i) {
    ltype_to_string(type_text, p.columns[i].ltype);
    return std::string_view(type_text);
  });
  print_rule_line(p, 1);
}

// The cell separator, padded so that it is always copied as one fixed 8-byte block.
struct Separator {
  char bytes[8] = {};
  size_t size = 0;
};

Separator separator_of(const LineGlyphs& glyphs) {
  Separator sep;
  std::memcpy(sep.bytes, glyphs[0].data(), glyphs[0].size());
  sep.size = glyphs[0].size();
  return sep;
}

char* put(char* w, const Separator& sep) {
  std::memcpy(w, sep.bytes, sizeof sep.bytes);
  return w + sep.size;
}

template <size_t N>
char* put(char* w, const char (&text)[N]) {
  std::memcpy(w, text, N - 1);
  return w + N - 1;
}

// Blanks over at least `width` bytes at `at`: one fixed short run for the usual widths, the
// widest run otherwise (the cell room covers either).
void blanks(char* at, size_t width) {
  if (width <= kShortText) {
    std::memset(at, ' ', kShortText);
  } else {
    std::memset(at, ' ', kMaxWidth);
  }
}

// Writes the `len` bytes of `text` right-aligned in `width` bytes at `cell`; returns the end of
// the cell. `text` is a value slot: a short text moves as one fixed block over a fixed run of
// blanks, which needs no call into the C library.
char* place_right(char* cell, const char* text, size_t len, size_t width) {
  if (len >= width) {
    std::memcpy(cell, text, len);
    return cell + len;
  }
  const size_t pad = width - len;
  blanks(cell, width);
  if (len <= kShortText) {
    std::memcpy(cell + pad, text, kShortText);
  } else {
    std::memcpy(cell + pad, text, len);
  }
  return cell + width;
}

// Left-aligned: blanks up to the width counted in characters.
char* place_left(char* cell, const char* text, size_t len, size_t width) {
  const size_t chars = utf8_chars(text, len);
  if (len <= kShortText) {
    std::memcpy(cell, text, kShortText);
  } else {
    std::memcpy(cell, text, len);
  }
  blanks(cell + len, width);
  return cell + len + (chars < width ? width - chars : 0);
}

// The texts of a row are converted first, each into a slot of its own, and only then placed
// into the line: reading a text back at once, right after the conversion wrote it two bytes at a
// time, stalls every cell until those stores have drained.
void print_table_rows(ResultPrinter& p, void* const* data, const int32_t* selection, int64_t rows) {
  const Separator sep = separator_of(*p.glyphs);
  const size_t n = p.visible.size();
  char* w = p.out.cursor();
  for (int64_t r = 0; r < rows; ++r) {
    const int64_t row = selection ? selection[r] : r;
    for (size_t k = 0; k < n; ++k) {
      const int32_t i = p.visible[k];
      p.lengths[k] = cell_text(p, p.columns[i], data, row, i, p.slot(k));
    }
    w = put(p.out.make_room(w, sizeof sep.bytes), sep);
    for (size_t k = 0; k < n; ++k) {
      const Column& c = p.columns[p.visible[k]];
      char* cell = p.out.make_room(w, kCellRoom);
      const size_t width = static_cast<size_t>(c.width);
      const char* text = p.slot(k);
      w = put(c.left ? place_left(cell, text, p.lengths[k], width)
                     : place_right(cell, text, p.lengths[k], width),
              sep);
    }
    w = p.out.make_room(w, 1);
    *w++ = '\n';
  }
  p.out.advance_to(w);
}

void print_raw_rows(ResultPrinter& p, void* const* data, const int32_t* selection, int64_t rows) {
  const Separator sep = separator_of(*p.glyphs);
  const size_t last = p.visible.size();
  char* w = p.out.cursor();
  for (int64_t r = 0; r < rows; ++r) {
    const int64_t row = selection ? selection[r] : r;
    for (size_t k = 0; k < last; ++k) {
      const int32_t i = p.visible[k];
      w = p.out.make_room(w, kCellRoom);
      w += cell_text(p, p.columns[i], data, row, i, w);
      if (k + 1 < last) w = put(w, sep);
    }
    w = p.out.make_room(w, 1);
    *w++ = '\n';
  }
  p.out.advance_to(w);
}

void print_html_rows(ResultPrinter& p, void* const* data, const int32_t* selection, int64_t rows) {
  if (p.columns.empty()) return;
  char* w = p.out.cursor();
  for (int64_t r = 0; r < rows; ++r) {
    const int64_t row = selection ? selection[r] : r;
    w = put(p.out.make_room(w, kCellRoom), "<tr>");
    for (int32_t i : p.visible) {
      const Column& c = p.columns[i];
      w = p.out.make_room(w, kCellRoom);
      w = c.left ? put(w, "<td>") : put(w, "<td align=\"right\">");
      w += cell_text(p, c, data, row, i, w);
      w = put(w, "</td>");
    }
    w = put(p.out.make_room(w, kCellRoom), "</tr>");
  }
  p.out.advance_to(w);
}

std::string_view count_text(int64_t rows, char (&count)[24]) {
  const auto end = std::to_chars(count, count + sizeof count, rows).ptr;
  return std::string_view(count, static_cast<size_t>(end - count));
}

void print_html_footer(ResultPrinter& p) {
  char count[24];
  p.out.append("<tr><td colspan=\"0\">");
  p.out.append(count_text(p.rows, count));
  p.out.append(" ");
  p.out.append(rows_word(p.rows));
  p.out.append("</td></tr></table>\n");
}

void print_table_footer(ResultPrinter& p) {
  char count[24];
  print_rule_line(p, 2);
  p.out.append("(");
  p.out.append(count_text(p.rows, count));
  p.out.append(" ");
  p.out.append(rows_word(p.rows));
  p.out.append(")\n");
}

void print_nothing(ResultPrinter&, char* const*) {}
void print_nothing(ResultPrinter&) {}

// Indexed by OutputMode.
constexpr ModeOps kModes[] = {
    {print_table_head, print_table_rows, print_table_footer, &kAsciiGlyphs, true},
    {print_table_head, print_table_rows, print_table_footer, &kUnicodeGlyphs, true},
    {print_nothing, print_raw_rows, print_nothing, &kAsciiGlyphs, false},
    {print_html_head, print_html_rows, print_html_footer, &kAsciiGlyphs, false},
    {csv_head, csv_rows, print_nothing, &kAsciiGlyphs, false},
    {tsv_head, tsv_rows, print_nothing, &kAsciiGlyphs, false},
    {json_head, json_rows, print_nothing, &kAsciiGlyphs, false},
    {markdown_head, markdown_rows, print_nothing, &kAsciiGlyphs, false},
    {vertical_head, vertical_rows, vertical_footer, &kAsciiGlyphs, false},
};

const ModeOps& mode_ops(OutputMode mode) {
  const auto index = static_cast<size_t>(mode);
  return index < std::size(kModes) ? kModes[index] : kModes[0];
}

}  // namespace

ResultPrinter::ResultPrinter(FILE* stream, OutputMode mode, const PrintOptions& options)
    : out(stream),
      glyphs(mode_ops(mode).glyphs),
      ops(&mode_ops(mode)),
      null_text(options.null_text ? options.null_text : ""),
      has_null_text(options.null_text != nullptr),
      header(options.header) {}

ResultPrinter* printer_open(FILE* stream, int32_t ncols, char* const* names,
                            const PhysicalType* const* types, const uint32_t* ltypes,
                            const int32_t* isconst, OutputMode mode) {
  return printer_open(stream, ncols, names, types, ltypes, isconst, mode, PrintOptions{});
}

ResultPrinter* printer_open(FILE* stream, int32_t ncols, char* const* names,
                            const PhysicalType* const* types, const uint32_t* ltypes,
                            const int32_t* isconst, OutputMode mode, const PrintOptions& options) {
  std::unique_ptr<ResultPrinter> p;
  try {
    p = std::make_unique<ResultPrinter>(stream, mode, options);
    if (escape_control_chars) p->out.escape_controls();
    setup_columns(*p, std::max(ncols, 0), names, types, ltypes, isconst);
    // The data formats work out their column labels here, before they print anything.
    p->ops->head(*p, names);
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
  return p.release();
}

void printer_rows(ResultPrinter* printer, void* const* data, const int32_t* selection,
                  int64_t rows) {
  if (printer == nullptr || rows <= 0) return;
  printer->ops->rows(*printer, data, selection, rows);
  printer->rows += rows;
}

void printer_flush(ResultPrinter* printer) {
  if (printer != nullptr) printer->out.flush();
}

void printer_close(ResultPrinter* printer) {
  if (printer == nullptr) return;
  const std::unique_ptr<ResultPrinter> owner(printer);
  owner->ops->footer(*owner);
  owner->out.flush();
}

void print_rule(ResultPrinter* printer, int which) {
  KEST_ASSERT("KESTCLIENT", which >= 0 && which <= 2);
  print_rule_line(*printer, which);
  printer->out.flush();
}
