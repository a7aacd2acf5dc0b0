// The result printer: turns a streamed query result into an ascii or unicode table, raw values or
// an html table on a stream: the head when the acknowledgement arrives, the rows of each data
// message as it arrives, the footer with the row count at the end.
#pragma once

#include <cstdint>
#include <cstdio>

struct PhysicalType;
struct ResultPrinter;

// Output modes (output_mode_code).
enum : int { OUTPUT_ASCII = 0, OUTPUT_UNICODE = 1, OUTPUT_RAW = 2, OUTPUT_HTML = 3 };

// Prints the head and returns the printer, or null when memory runs out (nothing is printed).
// `names` (ncols entries), `types`, `ltypes` and `isconst` are borrowed and must outlive the
// printer.
ResultPrinter* printer_open(FILE* stream, int32_t ncols, char* const* names,
                            const PhysicalType* const* types, const uint32_t* ltypes,
                            const int32_t* isconst, int mode);
// Prints `rows` rows of one data message. `data` holds one data area per column; `selection`
// (optional, may be null) lists the row indexes to print.
void printer_rows(ResultPrinter* printer, void* const* data, const int32_t* selection,
                  int64_t rows);
// Prints the footer, flushes the stream and frees the printer.
void printer_close(ResultPrinter* printer);
// Prints rule line 0 (top), 1 (middle) or 2 (bottom).
void print_rule(ResultPrinter* printer, int which);
