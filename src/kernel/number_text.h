// Text of numbers: plain integers and floats, money, and scaled decimals whose unscaled value is
// held in a 64-bit integer, a 128-bit integer or a double; and the readers of decimals and money.
// Every printer writes into the caller's buffer; none allocates.
#pragma once

#include <cstddef>
#include <cstdint>

#include "kernel/s128.h"

// Bounded plain forms. Each writes exactly the bytes of the printf format it names and returns
// what the bounded formatter str_bprintf would: the length, or -1 when the text does not fit in
// size bytes (then the buffer holds the cut text, terminated on its last byte).
int int64_to_string(char* buffer, size_t size, int64_t value);    // "%lld"
int uint64_to_string(char* buffer, size_t size, uint64_t value);  // "%llu"
int double_to_string(char* buffer, size_t size, double value);    // "%.16g"
int float_to_string(char* buffer, size_t size, float value);      // "%.7g" of the widened value
int money_to_string(char* buffer, size_t size, double cents);     // "$ %.2lf" of cents * 0.01

// Copies `length` bytes of text the way str_bprintf ends: the length, or -1 with the text cut
// and terminated on the last byte when it does not fit.
int bounded_copy(char* buffer, size_t size, const char* text, size_t length);

// Unscaled value with `scale` digits after the point: 5 with scale 2 is "0.05". The text is copied
// with its terminator, at most size bytes: when it is longer than size - 1 the copy is cut with
// no terminator and size is returned; otherwise the text's length.
int decimal64_to_string(char* buffer, size_t size, int64_t value, int scale);
// 128-bit unscaled value. Returns the length the whole text needs; a return above size - 1 means
// the text was cut (the buffer is always terminated when size > 0).
int decimal128_to_string(char* buffer, size_t size, s128 value, int scale);
// A double holding the unscaled value. Within the signed 64-bit range it is truncated toward zero
// and printed as decimal64_to_string does (same return). Beyond it the integer digits of "%.255g"
// are scaled: the return is then the characters written plus one, or 0 when they do not fit or
// the scale is negative.
int decimal_double_to_string(char* buffer, size_t size, double value, int scale);

// Outcome of the readers.
enum class NumberRead { ok, not_a_number, overflow };

// Reads "[blanks][+|-]digits[.digits][blanks]" (digits on at least one side of the point) as an
// unscaled value of `scale` fraction digits that must fit `precision` digits (at most 38).
// Fraction digits beyond the scale are rounded half away from zero.
NumberRead decimal_from_string(const char* text, int precision, int scale, s128* result);
// Money: blanks and dollar signs at the start are skipped and the rest read as a floating number;
// *cents is the amount in cents rounded half away from zero. not_a_number when nothing reads.
NumberRead money_from_string(const char* text, double* cents);
