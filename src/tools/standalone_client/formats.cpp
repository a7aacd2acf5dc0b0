#include "tools/standalone_client/formats.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <cstring>
#include <string>
#include <string_view>

#include "kernel/ltype.h"
#include "tools/standalone_client/printer_internal.h"

namespace {

// Long texts pass through the output block in pieces of at most this many input bytes.
constexpr size_t kChunk = 4096;
// The value printers' texts are a few hundred bytes at most; a conversion that still does not fit
// in this much room is cut, so that a printer that always answers "too long" cannot loop.
constexpr size_t kLongestValueText = 1 << 20;

// How a format takes the value of a column.
enum ValueKind : uint8_t {
  kPlainValue,      // through the value printer; its text never needs quoting or escaping
  kStoredText,      // char or varchar stored by reference: the stored bytes, whole
  kConvertedText,   // char stored as a code point: through the value printer, a text
  kJsonLiteral,     // bool: true or false, as printed
  kJsonInteger,     // integers: the printed digits
  kJsonDecimal,     // decimals: the printed digits, made a JSON number where they are not one
  kJsonMoney,       // "$ %.2lf" without its "$ "
  kJsonDouble,      // a "dbl" value: the shortest text that reads back the same
  kJsonFloat,       // a "flt" value: likewise for a float
  kJsonQuotedText,  // dates, times, timestamps, intervals (and unknown types): the text, quoted
};

// A growable string written through the same cursor calls as OutBuffer, for texts worked out once
// at the head.
class StringOut {
 public:
  char* cursor() { return text_.data(); }
  char* make_room(char* w, size_t n) {
    const auto used = static_cast<size_t>(w - text_.data());
    if (text_.size() - used < n) text_.resize(std::max(2 * text_.size(), used + n));
    return text_.data() + used;
  }
  std::string take(char* w) {
    text_.resize(static_cast<size_t>(w - text_.data()));
    return std::move(text_);
  }

 private:
  std::string text_;
};

template <typename Out>
char* put(Out& out, char* w, std::string_view s) {
  while (!s.empty()) {
    const size_t n = std::min(s.size(), kChunk);
    w = out.make_room(w, n);
    std::memcpy(w, s.data(), n);
    w += n;
    s.remove_prefix(n);
  }
  return w;
}

template <typename Out>
char* put(Out& out, char* w, char c) {
  w = out.make_room(w, 1);
  *w++ = c;
  return w;
}

using ByteSet = std::array<bool, 256>;

constexpr ByteSet byte_set(std::string_view bytes, bool with_controls = false) {
  ByteSet set{};
  for (char c : bytes) set[static_cast<unsigned char>(c)] = true;
  for (int c = 0; with_controls && c < 0x20; ++c) set[static_cast<size_t>(c)] = true;
  return set;
}

// Writes `s` with every byte of `special` handed to `replace(out, w, s, i)`, which writes what
// stands for the byte at s[i], advances i past what it consumed and returns the new cursor.
template <typename Out, typename Replace>
char* put_escaped(Out& out, char* w, std::string_view s, const ByteSet& special, Replace replace) {
  size_t i = 0;
  while (i < s.size()) {
    size_t j = i;
    while (j < s.size() && !special[static_cast<unsigned char>(s[j])]) ++j;
    w = put(out, w, s.substr(i, j - i));
    i = j;
    if (i < s.size()) w = replace(out, w, s, i);
  }
  return w;
}

// The whole text of a value whose printed text did not fit in a slot.
[[gnu::noinline]] std::string_view long_value_text(ResultPrinter& p, const Column& c,
                                                   const char* value) {
  for (size_t size = 2 * kValueTextSize;; size *= 2) {
    p.scratch.resize(size);
    const int n = c.text(p.scratch.data(), size, c.type, c.ltype, value);
    if (n >= 0 && static_cast<size_t>(n) < size) return {p.scratch.data(), static_cast<size_t>(n)};
    if (size >= kLongestValueText)
      return {p.scratch.data(),
              static_cast<size_t>(std::find(p.scratch.data(), p.scratch.data() + size, '\0') -
                                  p.scratch.data())};
  }
}

// The whole text of a non-null value: a stored text as it is, any other from the value printer,
// in `slot` or, when longer, in the printer's scratch text. Valid until the next call.
std::string_view value_text(ResultPrinter& p, const Column& c, uint8_t kind, const char* value,
                            char* slot) {
  if (kind == kStoredText) {
    const char* text = stored_text(value);
    return {text, std::strlen(text)};
  }
  const int n = c.text(slot, kValueTextSize, c.type, c.ltype, value);
  if (n >= 0 && static_cast<size_t>(n) < kValueTextSize) return {slot, static_cast<size_t>(n)};
  return long_value_text(p, c, value);
}

// A value of a kPlainValue column, printed straight into the output block (its text has no byte
// that any format quotes or escapes: digits, signs, points, blanks, "$", ":", "-", letters).
char* put_printed(ResultPrinter& p, char* w, const Column& c, const char* value) {
  char* cell = p.out.make_room(w, kValueTextSize);
  const int n = c.text(cell, kValueTextSize, c.type, c.ltype, value);
  if (n >= 0 && static_cast<size_t>(n) < kValueTextSize) return cell + n;
  return put(p.out, cell, long_value_text(p, c, value));
}

// The kind of each visible column for the formats that only tell texts from other values.
void classify_texts(ResultPrinter& p) {
  p.kinds.clear();
  for (int32_t i : p.visible) {
    const Column& c = p.columns[i];
    p.kinds.push_back(!c.left                   ? kPlainValue
                      : c.type->fixed_size == 0 ? kStoredText
                                                : kConvertedText);
  }
}

// Calls `cell(w, column index, visible position, value or null)` for each visible column of
// `row`, and `end(w)` after the last; returns the cursor.
template <typename Cell>
char* each_cell(ResultPrinter& p, char* w, void* const* data, int64_t row, Cell cell) {
  for (size_t k = 0; k < p.visible.size(); ++k) {
    const int32_t i = p.visible[k];
    const Column& c = p.columns[i];
    w = cell(w, c, k, cell_is_null(c, data, row) ? nullptr : cell_value(c, data, row, i));
  }
  return w;
}

template <typename Row>
void each_row(ResultPrinter& p, const int32_t* selection, int64_t rows, Row row_of) {
  char* w = p.out.cursor();
  for (int64_t r = 0; r < rows; ++r) w = row_of(w, r, selection ? selection[r] : r);
  p.out.advance_to(w);
}

// ------------------------------------------------------------------------------------------ csv

// Bytes that make csv quote a field; the terminating zero ends the scan.
constexpr ByteSet kCsvStop = byte_set(std::string_view(",\"\r\n\0", 5));
constexpr ByteSet kCsvQuote = byte_set("\"");

template <typename Out>
char* put_csv_quoted(Out& out, char* w, std::string_view s) {
  w = put(out, w, '"');
  w = put_escaped(out, w, s, kCsvQuote, [](Out& o, char* at, std::string_view, size_t& i) {
    ++i;
    return put(o, at, "\"\"");
  });
  return put(out, w, '"');
}

template <typename Out>
char* put_csv_field(Out& out, char* w, std::string_view s) {
  for (char ch : s) {
    if (kCsvStop[static_cast<unsigned char>(ch)] && ch != '\0') return put_csv_quoted(out, w, s);
  }
  return s.empty() ? put(out, w, "\"\"") : put(out, w, s);
}

// Texts up to this length are copied while they are scanned.
constexpr size_t kShortText = 64;

// A terminated stored text. A short one that needs no quotes (the usual text) is copied in the
// same pass that finds its end; any other is written from the start again by the general path.
char* put_csv_stored(OutBuffer& out, char* w, const char* text) {
  char* const start = out.make_room(w, kShortText);
  size_t n = 0;
  for (; n < kShortText && !kCsvStop[static_cast<unsigned char>(text[n])]; ++n) start[n] = text[n];
  if (n < kShortText && text[n] == '\0' && n > 0) return start + n;
  return put_csv_field(out, start, std::string_view(text, n + std::strlen(text + n)));
}

char* put_csv_cell(ResultPrinter& p, char* w, const Column& c, uint8_t kind, const char* value) {
  if (value == nullptr) return put(p.out, w, p.null_text);
  switch (kind) {
    case kPlainValue:
      return put_printed(p, w, c, value);
    case kStoredText:
      return put_csv_stored(p.out, w, stored_text(value));
    default: {
      char slot[kValueTextSize];
      return put_csv_field(p.out, w, value_text(p, c, kind, value, slot));
    }
  }
}

// ------------------------------------------------------------------------------------------ tsv

constexpr ByteSet kTsvSpecial = byte_set("\\\t\n\r");

template <typename Out>
char* put_tsv(Out& out, char* w, std::string_view s) {
  return put_escaped(out, w, s, kTsvSpecial, [](Out& o, char* at, std::string_view t, size_t& i) {
    const char c = t[i++];
    return put(o, at, c == '\\' ? "\\\\" : c == '\t' ? "\\t" : c == '\n' ? "\\n" : "\\r");
  });
}

// ----------------------------------------------------------------------------------------- json

// Plain in a JSON string: printable ASCII but the quote and the backslash.
constexpr ByteSet kJsonSpecial = [] {
  ByteSet set = byte_set("\"\\", true);
  for (int c = 0x80; c < 0x100; ++c) set[static_cast<size_t>(c)] = true;
  return set;
}();

// The length of the well-formed UTF-8 sequence at `s` (`n` bytes left), or 0 with `*bad` set to
// the length of its maximal ill-formed part, which one U+FFFD replaces.
size_t utf8_sequence(const unsigned char* s, size_t n, size_t* bad) {
  const unsigned char lead = s[0];
  size_t len = 0;
  unsigned char low = 0x80, high = 0xBF;  // the range of the second byte
  if (lead >= 0xC2 && lead <= 0xDF) {
    len = 2;
  } else if (lead >= 0xE0 && lead <= 0xEF) {
    len = 3;
    if (lead == 0xE0) low = 0xA0;   // no overlong forms
    if (lead == 0xED) high = 0x9F;  // no surrogates
  } else if (lead >= 0xF0 && lead <= 0xF4) {
    len = 4;
    if (lead == 0xF0) low = 0x90;
    if (lead == 0xF4) high = 0x8F;  // nothing above U+10FFFF
  } else {
    *bad = 1;
    return 0;
  }
  for (size_t k = 1; k < len; ++k) {
    const bool in_range = k < n && s[k] >= (k == 1 ? low : 0x80) && s[k] <= (k == 1 ? high : 0xBF);
    if (!in_range) {
      *bad = k;
      return 0;
    }
  }
  return len;
}

template <typename Out>
char* put_json_escape(Out& out, char* w, std::string_view s, size_t& i) {
  constexpr std::string_view kHex = "0123456789abcdef";
  const auto c = static_cast<unsigned char>(s[i]);
  w = out.make_room(w, 6);
  if (c >= 0x80) {
    size_t bad = 0;
    const size_t len =
        utf8_sequence(reinterpret_cast<const unsigned char*>(s.data()) + i, s.size() - i, &bad);
    if (len > 0) {
      std::memcpy(w, s.data() + i, len);
      i += len;
      return w + len;
    }
    i += bad;
    std::memcpy(w, "\xEF\xBF\xBD", 3);
    return w + 3;
  }
  ++i;
  const char* short_form = c == '"'    ? "\\\""
                           : c == '\\' ? "\\\\"
                           : c == '\b' ? "\\b"
                           : c == '\f' ? "\\f"
                           : c == '\n' ? "\\n"
                           : c == '\r' ? "\\r"
                           : c == '\t' ? "\\t"
                                       : nullptr;
  if (short_form) {
    std::memcpy(w, short_form, 2);
    return w + 2;
  }
  const char u[6] = {'\\', 'u', '0', '0', kHex[c >> 4], kHex[c & 15]};
  std::memcpy(w, u, sizeof u);
  return w + sizeof u;
}

template <typename Out>
char* put_json_string(Out& out, char* w, std::string_view s) {
  w = put(out, w, '"');
  w = put_escaped(out, w, s, kJsonSpecial, put_json_escape<Out>);
  return put(out, w, '"');
}

// A printed decimal or money amount as a JSON number: as it is when it is one; a fraction
// printed without its leading zero (".05", as the double-held decimals of 2^63 and more print)
// gets it; anything else (a non-finite double) is null.
char* put_json_number(OutBuffer& out, char* w, std::string_view text) {
  if (is_json_number(text)) return put(out, w, text);
  const bool negative = !text.empty() && text[0] == '-';
  const std::string_view rest = text.substr(negative ? 1 : 0);
  const auto is_digit = [](char c) { return c >= '0' && c <= '9'; };
  if (rest.size() > 1 && rest[0] == '.' && std::all_of(rest.begin() + 1, rest.end(), is_digit)) {
    w = put(out, w, negative ? "-0" : "0");
    return put(out, w, rest);
  }
  return put(out, w, "null");
}

template <typename T>
char* put_json_float(OutBuffer& out, char* w, const char* value) {
  T v;
  std::memcpy(&v, value, sizeof v);
  if (!std::isfinite(v)) return put(out, w, "null");
  char* cell = out.make_room(w, 32);
  return std::to_chars(cell, cell + 32, v).ptr;
}

uint8_t json_kind(const Column& c) {
  const uint32_t id = ltype_id(c.ltype);
  const std::string_view physical = c.type->name;
  if (id == LTYPE_MONEY) return kJsonMoney;
  if (c.left) return c.type->fixed_size == 0 ? kStoredText : kConvertedText;
  if (physical == "dbl") return id == LTYPE_DECIMAL ? kJsonDecimal : kJsonDouble;
  if (physical == "flt") return kJsonFloat;
  if (id == LTYPE_BOOL) return kJsonLiteral;
  if (id == LTYPE_DECIMAL) return kJsonDecimal;
  if (id >= LTYPE_SCHR && id <= LTYPE_UIDX) return kJsonInteger;
  return kJsonQuotedText;
}

char* put_json_cell(ResultPrinter& p, char* w, const Column& c, uint8_t kind, const char* value) {
  if (value == nullptr) {
    return p.has_null_text ? put_json_string(p.out, w, p.null_text) : put(p.out, w, "null");
  }
  char slot[kValueTextSize];
  switch (kind) {
    case kJsonDouble:
      return put_json_float<double>(p.out, w, value);
    case kJsonFloat:
      return put_json_float<float>(p.out, w, value);
    case kJsonLiteral:
      return put(p.out, w, value_text(p, c, kind, value, slot));
    case kJsonInteger:
    case kJsonDecimal:
      return put_json_number(p.out, w, value_text(p, c, kind, value, slot));
    case kJsonMoney: {
      std::string_view text = value_text(p, c, kind, value, slot);
      if (text.starts_with("$ ")) text.remove_prefix(2);
      return put_json_number(p.out, w, text);
    }
    default:
      return put_json_string(p.out, w, value_text(p, c, kind, value, slot));
  }
}

// ------------------------------------------------------------------------------------- markdown

constexpr ByteSet kMarkdownSpecial = byte_set("|\r\n");

template <typename Out>
char* put_markdown(Out& out, char* w, std::string_view s) {
  return put_escaped(out, w, s, kMarkdownSpecial,
                     [](Out& o, char* at, std::string_view t, size_t& i) {
                       const char c = t[i++];
                       if (c == '|') return put(o, at, "\\|");
                       if (c == '\r' && i < t.size() && t[i] == '\n') ++i;  // CR LF: one break
                       return put(o, at, "<br>");
                     });
}

bool is_number_type(uint32_t ltype) {
  const uint32_t id = ltype_id(ltype);
  return id >= LTYPE_SCHR && id <= LTYPE_MONEY;
}

// ------------------------------------------------------------------------------------- vertical

constexpr ByteSet kLineFeed = byte_set("\n");

std::string_view rows_word(int64_t rows) { return rows == 1 ? "row" : "rows"; }

}  // namespace

std::optional<OutputMode> output_mode_by_name(std::string_view name) {
  static constexpr std::pair<std::string_view, OutputMode> kNames[] = {
      {"ascii", OutputMode::kAscii},      {"unicode", OutputMode::kUnicode},
      {"raw", OutputMode::kRaw},          {"html", OutputMode::kHtml},
      {"csv", OutputMode::kCsv},          {"tsv", OutputMode::kTsv},
      {"json", OutputMode::kJson},        {"markdown", OutputMode::kMarkdown},
      {"vertical", OutputMode::kVertical}};
  for (const auto& [word, mode] : kNames) {
    if (word == name) return mode;
  }
  return std::nullopt;
}

bool is_json_number(std::string_view text) {
  size_t i = 0;
  const auto digits = [&] {
    const size_t start = i;
    while (i < text.size() && text[i] >= '0' && text[i] <= '9') ++i;
    return i - start;
  };
  if (i < text.size() && text[i] == '-') ++i;
  if (i < text.size() && text[i] == '0') {
    ++i;
  } else if (i >= text.size() || text[i] < '1' || text[i] > '9' || digits() == 0) {
    return false;
  }
  if (i < text.size() && text[i] == '.' && (++i, digits() == 0)) return false;
  if (i < text.size() && (text[i] == 'e' || text[i] == 'E')) {
    ++i;
    if (i < text.size() && (text[i] == '+' || text[i] == '-')) ++i;
    if (digits() == 0) return false;
  }
  return i == text.size();
}

// The header line of csv and tsv: the column names, each written as the format writes a field,
// between separators.
template <typename Field>
void delimited_head(ResultPrinter& p, char* const* names, char separator, Field field) {
  classify_texts(p);
  if (!p.header) return;
  char* w = p.out.cursor();
  for (size_t k = 0; k < p.visible.size(); ++k) {
    if (k > 0) w = put(p.out, w, separator);
    w = field(p.out, w, names[p.visible[k]]);
  }
  p.out.advance_to(put(p.out, w, '\n'));
}

void csv_head(ResultPrinter& p, char* const* names) {
  delimited_head(p, names, ',',
                 [](auto& out, char* w, std::string_view s) { return put_csv_field(out, w, s); });
}

// The hot loop of the data formats: the printer's arrays are read through local pointers, which
// the bytes written cannot alias, so they are not loaded again after every store.
void csv_rows(ResultPrinter& p, void* const* data, const int32_t* selection, int64_t rows) {
  const int32_t* const visible = p.visible.data();
  const Column* const columns = p.columns.data();
  const uint8_t* const kinds = p.kinds.data();
  const size_t n = p.visible.size();
  char* w = p.out.cursor();
  for (int64_t r = 0; r < rows; ++r) {
    const int64_t row = selection ? selection[r] : r;
    for (size_t k = 0; k < n; ++k) {
      if (k > 0) w = put(p.out, w, ',');
      const int32_t i = visible[k];
      const Column& c = columns[i];
      const char* value = cell_is_null(c, data, row) ? nullptr : cell_value(c, data, row, i);
      w = put_csv_cell(p, w, c, kinds[k], value);
    }
    w = put(p.out, w, '\n');
  }
  p.out.advance_to(w);
}

void tsv_head(ResultPrinter& p, char* const* names) {
  delimited_head(p, names, '\t',
                 [](auto& out, char* w, std::string_view s) { return put_tsv(out, w, s); });
}

// One value of a text format: `null_text` for a null, a plain value as printed, any other text
// through the format's own escaping.
template <typename Escape>
char* put_value(ResultPrinter& p, char* at, const Column& c, size_t k, const char* value,
                std::string_view null_text, Escape escape) {
  if (value == nullptr) return put(p.out, at, null_text);
  if (p.kinds[k] == kPlainValue) return put_printed(p, at, c, value);
  char slot[kValueTextSize];
  return escape(at, value_text(p, c, p.kinds[k], value, slot));
}

void tsv_rows(ResultPrinter& p, void* const* data, const int32_t* selection, int64_t rows) {
  const std::string_view null_text = p.has_null_text ? std::string_view(p.null_text) : "\\N";
  each_row(p, selection, rows, [&](char* w, int64_t, int64_t row) {
    w = each_cell(p, w, data, row, [&](char* at, const Column& c, size_t k, const char* value) {
      if (k > 0) at = put(p.out, at, '\t');
      return put_value(p, at, c, k, value, null_text,
                       [&](char* to, std::string_view text) { return put_tsv(p.out, to, text); });
    });
    return put(p.out, w, '\n');
  });
}

void json_head(ResultPrinter& p, char* const* names) {
  p.kinds.clear();
  p.labels.clear();
  for (size_t k = 0; k < p.visible.size(); ++k) {
    const int32_t i = p.visible[k];
    p.kinds.push_back(json_kind(p.columns[i]));
    StringOut key;
    char* w = put(key, key.cursor(), k == 0 ? '{' : ',');
    w = put_json_string(key, w, names[i]);
    p.labels.push_back(key.take(put(key, w, ':')));
  }
}

void json_rows(ResultPrinter& p, void* const* data, const int32_t* selection, int64_t rows) {
  each_row(p, selection, rows, [&](char* w, int64_t, int64_t row) {
    if (p.visible.empty()) return put(p.out, w, "{}\n");
    w = each_cell(p, w, data, row, [&](char* at, const Column& c, size_t k, const char* value) {
      return put_json_cell(p, put(p.out, at, p.labels[k]), c, p.kinds[k], value);
    });
    return put(p.out, w, "}\n");
  });
}

void markdown_head(ResultPrinter& p, char* const* names) {
  classify_texts(p);
  if (!p.header) return;
  char* w = put(p.out, p.out.cursor(), '|');
  for (int32_t i : p.visible) {
    w = put(p.out, w, ' ');
    w = put(p.out, put_markdown(p.out, w, names[i]), " |");
  }
  w = put(p.out, w, "\n|");
  for (int32_t i : p.visible)
    w = put(p.out, w, is_number_type(p.columns[i].ltype) ? " ---: |" : " --- |");
  p.out.advance_to(put(p.out, w, '\n'));
}

void markdown_rows(ResultPrinter& p, void* const* data, const int32_t* selection, int64_t rows) {
  each_row(p, selection, rows, [&](char* w, int64_t, int64_t row) {
    w = put(p.out, w, '|');
    w = each_cell(p, w, data, row, [&](char* at, const Column& c, size_t k, const char* value) {
      at = put(p.out, at, ' ');
      at = put_value(p, at, c, k, value, p.null_text, [&](char* to, std::string_view text) {
        return put_markdown(p.out, to, text);
      });
      return put(p.out, at, " |");
    });
    return put(p.out, w, '\n');
  });
}

// labels: each visible column's name padded to the widest and followed by " | ", then what a
// line feed inside a value becomes (the line feed and blanks up to the values).
void vertical_head(ResultPrinter& p, char* const* names) {
  classify_texts(p);
  p.labels.clear();
  size_t widest = 0;
  for (int32_t i : p.visible)
    widest = std::max(widest, utf8_chars(names[i], std::strlen(names[i])));
  for (int32_t i : p.visible) {
    std::string label = names[i];
    label.append(widest - utf8_chars(label.data(), label.size()), ' ');
    p.labels.push_back(label.append(" | "));
  }
  // The indent of a value's continued lines: a line end, then as wide as a label.
  std::string indent(widest + 4, ' ');
  indent[0] = '\n';
  p.labels.push_back(std::move(indent));
}

void vertical_rows(ResultPrinter& p, void* const* data, const int32_t* selection, int64_t rows) {
  const std::string_view indent = p.labels.back();
  each_row(p, selection, rows, [&](char* w, int64_t r, int64_t row) {
    char number[24];
    const auto end = std::to_chars(number, number + sizeof number, p.rows + r + 1).ptr;
    w = put(p.out, w, "-[ row ");
    w = put(p.out, w, std::string_view(number, static_cast<size_t>(end - number)));
    w = put(p.out, w, " ]\n");
    return each_cell(p, w, data, row, [&](char* at, const Column& c, size_t k, const char* value) {
      at = put(p.out, at, p.labels[k]);
      at = put_value(p, at, c, k, value, p.null_text, [&](char* to, std::string_view text) {
        return put_escaped(p.out, to, text, kLineFeed,
                           [&](OutBuffer& o, char* dst, std::string_view, size_t& i) {
                             ++i;
                             return put(o, dst, indent);
                           });
      });
      return put(p.out, at, '\n');
    });
  });
}

void vertical_footer(ResultPrinter& p) {
  char number[24];
  const auto end = std::to_chars(number, number + sizeof number, p.rows).ptr;
  char* w = put(p.out, p.out.cursor(), '(');
  w = put(p.out, w, std::string_view(number, static_cast<size_t>(end - number)));
  w = put(p.out, w, ' ');
  w = put(p.out, w, rows_word(p.rows));
  p.out.advance_to(put(p.out, w, ")\n"));
}
