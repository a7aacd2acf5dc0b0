// Values crossing type boundaries: literals read as a typed value, column values converted from
// one logical type to another, and a value laid out as the client expects to receive it.
#pragma once

#include <cstdint>
#include <string>

#include "tools/refserver/vector.h"

struct PhysicalType;
struct QueryContext;

// A constant vector holding `text` read as a value of `type`. Unreadable text raises the system
// reader's error (18 not a number, 24 not money, 25 not a boolean, 26 not convertible); an
// integer out of the type's range raises 19.
Vector read_literal(QueryContext* ctx, uint32_t type, const std::string& text);

// The values of `in` (`rows` rows) converted to `to` (nulls stay null). `what` names the source
// in messages. A conversion the types do not allow raises 26; a value that does not fit, 19.
Vector convert_vector(QueryContext* ctx, const Vector& in, size_t rows, uint32_t to,
                      const std::string& what);
// Whether convert_vector accepts values of `from` for `to`.
bool can_convert(uint32_t from, uint32_t to);

// The physical type a column of `type` is sent with.
const PhysicalType* physical_of(const ColumnType& type);
// Lays value `i` of `v` out as its physical type stores it (host byte order) in `dest`, which
// holds 16 bytes; returns the width. REQUIRES: a fixed-size physical type.
int store_physical(const Vector& v, size_t i, unsigned char* dest);
// The text the client would print for value `i` of `v` (nulls print as the empty text).
std::string value_text(const Vector& v, size_t i);

// Digits of the magnitude of `value`, with a "-" in front when negative.
std::string i128_text(i128 value);
// 10^n for 0 <= n <= 38.
i128 pow10_i128(int n);

// Value `i` of a vector of a numeric type (integer, decimal, float or money) as a double: a
// decimal divided by 10^scale, money in currency units (cents / 100).
double numeric_double(const Vector& v, size_t i);
// UTF-8 text of a code point below 0x110000.
std::string utf8_of(int32_t code_point);
