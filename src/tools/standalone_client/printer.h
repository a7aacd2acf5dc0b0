// The result printer: turns a streamed query result into an ascii or unicode table, raw values,
// an html table or one of the data formats (csv, tsv, json lines, markdown, vertical) on a stream:
// the head when the acknowledgement arrives, the rows of each data message as it arrives, the
// footer with the row count at the end. The printer keeps no rows; its memory does not grow with
// the result.
#pragma once

#include <cstdint>
#include <cstdio>

struct PhysicalType;
struct ResultPrinter;

// The output modes; the values are the codes the run driver sets in output_mode_code.
enum class OutputMode : int {
  kAscii = 0,    // a table ruled with ASCII characters
  kUnicode = 1,  // a table ruled with box-drawing characters (UTF-8)
  kRaw = 2,      // bare values separated by "|", no head, no footer
  kHtml = 3,     // one table element
  // The data formats (formats.h); values are never cut.
  kCsv = 4,       // comma-separated values, quoted where needed
  kTsv = 5,       // tab-separated values with backslash escapes
  kJson = 6,      // one JSON object per row
  kMarkdown = 7,  // a pipe table
  kVertical = 8,  // one line per column, a record per row
};

// Choices beyond the mode.
struct PrintOptions {
  // How a null prints, written as given (json: as a JSON string); null for the mode's own: blank
  // in the classic modes, csv, markdown and vertical, \N in tsv, null in json. The classic modes
  // cut it to 1,023 bytes, as they cut values. Copied by printer_open.
  const char* null_text = nullptr;
  bool header = true;  // csv, tsv and markdown: false leaves out their header line(s)
};

// Prints the head and returns the printer, or null when memory runs out (nothing is printed).
// `names` (ncols entries), `types`, `ltypes` and `isconst` are borrowed and must outlive the
// printer. A column with an empty name and 1-byte values that is not the last one, and does not
// follow such a column, is the null indicator of the next column and is never printed.
//
// The printer gathers its text in a block of its own: what printer_open and printer_rows print
// reaches `stream` when the block fills, at printer_flush and at printer_close. The caller
// flushes before it waits for the next message (rows appear as their message arrives, and the
// messages of a short answer that come together leave in one write) and before it writes
// anything else to the same stream (so that its text follows the rows).
ResultPrinter* printer_open(FILE* stream, int32_t ncols, char* const* names,
                            const PhysicalType* const* types, const uint32_t* ltypes,
                            const int32_t* isconst, OutputMode mode);
// The same with options (the call above takes the defaults).
ResultPrinter* printer_open(FILE* stream, int32_t ncols, char* const* names,
                            const PhysicalType* const* types, const uint32_t* ltypes,
                            const int32_t* isconst, OutputMode mode, const PrintOptions& options);
// Prints `rows` rows of one data message. `data` holds one data area per column (one value for a
// constant column, else at least `rows` values, or as many as `selection` reaches); `selection`
// (optional, may be null) lists the row indexes to print. A null printer prints nothing.
void printer_rows(ResultPrinter* printer, void* const* data, const int32_t* selection,
                  int64_t rows);
// Writes what the printer holds to its stream and flushes the stream. A null printer is ignored.
void printer_flush(ResultPrinter* printer);
// Prints the footer, flushes the stream and frees the printer. A null printer is ignored.
void printer_close(ResultPrinter* printer);
// Prints rule line 0 (top), 1 (middle) or 2 (bottom); any other line is an assertion failure.
void print_rule(ResultPrinter* printer, int which);
