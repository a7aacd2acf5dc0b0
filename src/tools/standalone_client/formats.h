// The data formats of the result printer: csv, tsv, json lines, markdown and vertical. The
// printer's mode table (printer.cpp) dispatches to the renderers below; callers use printer.h.
//
// Unlike the classic modes these never cut a value: a text is written from its stored bytes,
// however long, in pieces through the printer's output block, and every other value through the
// value printers (a text longer than their 1,024-byte slot is converted again into a larger
// one). Memory does not grow with the result.
//
//   csv       header line of the names, one line per row, fields separated by ",". A field is
//             quoted ("...") when it holds a comma, a double quote, CR or LF, or is an empty
//             text; quotes inside are doubled. A null is an empty unquoted field.
//   tsv       header line, fields separated by a tab; in names and values backslash, tab, LF and
//             CR are written \\, \t, \n and \r. A null is \N.
//   json      one object per line, keys the column names in order. Integers, decimals and money
//             are numbers with the value printers' digits (money without its "$ "); doubles and
//             floats the shortest text that reads back to the same double or float, and null
//             when not finite; booleans true/false; dates, times, timestamps and intervals the
//             classic texts as strings; char and varchar strings, with invalid UTF-8 replaced by
//             U+FFFD. A null is null.
//   markdown  a pipe table: header row, alignment row (numbers right-aligned), one row per row;
//             "|" in names and values is written \|, a line break (LF, CR or CR LF) <br>.
//   vertical  for each row a line "-[ row N ]" and one line per column, "name | value", the
//             names padded to the widest; the lines after a line feed inside a value are
//             indented under the value. After the last row "(N rows)".
//
// Lines end with LF alone in every format. The null text of PrintOptions replaces a mode's own
// null, written as given (json: as a JSON string); PrintOptions::header false leaves out the
// header line of csv and tsv, and the header and alignment rows of markdown.
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

#include "tools/standalone_client/printer.h"

// Every name a format can be given by, in the order the refusal of an unknown name lists them.
inline constexpr std::string_view kOutputModeNames =
    "ascii, unicode, raw, html, csv, tsv, json, markdown, vertical";
// The mode `name` stands for (exactly, in lower case), or nothing.
std::optional<OutputMode> output_mode_by_name(std::string_view name);

// True when `text` is a number by JSON's grammar: -?(0|[1-9][0-9]*)(.[0-9]+)?([eE][+-]?[0-9]+)?
bool is_json_number(std::string_view text);

// Renderers, one set per format, as the printer's mode table calls them.
void csv_head(ResultPrinter& p, char* const* names);
void csv_rows(ResultPrinter& p, void* const* data, const int32_t* selection, int64_t rows);
void tsv_head(ResultPrinter& p, char* const* names);
void tsv_rows(ResultPrinter& p, void* const* data, const int32_t* selection, int64_t rows);
void json_head(ResultPrinter& p, char* const* names);
void json_rows(ResultPrinter& p, void* const* data, const int32_t* selection, int64_t rows);
void markdown_head(ResultPrinter& p, char* const* names);
void markdown_rows(ResultPrinter& p, void* const* data, const int32_t* selection, int64_t rows);
void vertical_head(ResultPrinter& p, char* const* names);
void vertical_rows(ResultPrinter& p, void* const* data, const int32_t* selection, int64_t rows);
void vertical_footer(ResultPrinter& p);
