// Inside the result printer: the printer record and the per-mode operations, shared by the
// classic modes (printer.cpp) and the data formats (formats.cpp). Not for other callers: they use
// printer.h.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "kernel/ltype.h"
#include "tools/standalone_client/out_buffer.h"
#include "tools/standalone_client/printer.h"

// Glyphs by rule position: 0 the cell separator (also raw's value separator), 1 the horizontal
// line, then the left corner, junction and right corner of the top (2-4), middle (5-7) and
// bottom (8-10) rules. Rule k uses 2 + 3k, 3 + 3k and 4 + 3k.
using LineGlyphs = std::array<std::string_view, 11>;

// The classic modes convert a value into a slot of this size and cut what does not fit.
constexpr size_t kValueTextSize = 1024;
constexpr int kMaxWidth = 128;
// Texts up to this length are aligned by fixed-size moves.
constexpr size_t kShortText = 32;
// Room for one cell in any mode: its text, a full width of blanks (written whole by the aligners),
// a short text moved past them, the 8-byte separator block, and html's tags.
constexpr size_t kCellRoom = kValueTextSize + kMaxWidth + kShortText + 64;

struct Column {
  const PhysicalType* type;
  uint32_t ltype;
  ValueTextFn text;  // value_to_string for this column's types, chosen once
  int32_t isconst;
  int32_t width;      // display width in characters
  int32_t size;       // bytes per stored value
  int32_t hidden;     // the null indicator of the next column, never printed
  int32_t indicator;  // index of this column's null indicator, or -1
  int32_t indicator_const;
  bool left;  // char and varchar: left-aligned, padded by characters
};

// What one output mode prints at each step of a result.
struct ModeOps {
  void (*head)(ResultPrinter&, char* const* names);
  void (*rows)(ResultPrinter&, void* const* data, const int32_t* selection, int64_t rows);
  void (*footer)(ResultPrinter&);
  const LineGlyphs* glyphs;
  bool aligned;  // cells padded to the column widths, through the row's text slots
};

struct ResultPrinter {
  ResultPrinter(FILE* stream, OutputMode mode, const PrintOptions& options);

  std::vector<Column> columns;
  std::vector<int32_t> visible;  // indexes of the printed columns, in order
  // Table modes: the texts of one row, a kValueTextSize slot per visible column, and their lengths.
  std::vector<char> slots;
  std::vector<size_t> lengths;
  char* slot(size_t k) { return slots.data() + k * kValueTextSize; }
  int64_t rows = 0;
  OutBuffer out;
  const LineGlyphs* glyphs;
  const ModeOps* ops;  // what the output mode prints, and how
  // The text of a null; `has_null_text` false when none was given (each mode then has its own).
  std::string null_text;
  bool has_null_text;
  bool header;  // csv, tsv, markdown: print the header line
  // What a data format works out once at the head, per visible column (json's keys, vertical's
  // padded names), and room for a value text longer than a slot.
  std::vector<std::string> labels;
  std::vector<uint8_t> kinds;  // a data format's own class of each visible column
  std::string scratch;
};

// The UTF-8 characters of `len` bytes of text as the classic tables count them for padding.
size_t utf8_chars(const char* text, size_t len);

// Whether the value of column `c` in `row` is null (its indicator byte is non-zero).
inline bool cell_is_null(const Column& c, void* const* data, int64_t row) {
  if (c.indicator < 0) return false;
  const auto* flags = static_cast<const unsigned char*>(data[c.indicator]);
  return flags[c.indicator_const ? 0 : row] != 0;
}

// The stored value of column `column` (described by `c`) in `row`.
inline const char* cell_value(const Column& c, void* const* data, int64_t row, int32_t column) {
  return static_cast<const char*>(data[column]) + (c.isconst ? 0 : row * c.size);
}

// A text stored by reference ("str"): the terminated string the value points to.
inline const char* stored_text(const char* value) {
  const char* text;
  std::memcpy(&text, value, sizeof text);
  return text;
}
