// Column vectors of the reference server: one chunk of at most vectorsize values of one column,
// the unit in which the evaluator computes and the streamer sends.
//
// Values are held in one of three forms whatever their logical type, so that every operator is
// written once per form: integers of any width (dates, times, intervals, decimals as their
// unscaled value, a one-character "char" as its code point, "bool" as 0/1) as a 128-bit integer;
// "flt", "dbl" and "money" (in cents) as a double; other "char" and "varchar" as text. The
// physical layout the client expects is produced only when a vector is sent.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

// All three compilers the system is built with (GCC, Clang, mingw-w64 g++) provide it.
using i128 = __int128;

enum class ValueForm { integer, real, text };

struct ColumnType {
  uint32_t ltype = 0;        // the logical type word
  bool nullable = false;     // sent behind a one-byte null indicator column
  bool dbl_storage = false;  // a "decimal" sent with the physical type "dbl"
};

// The form in which values of a logical type are held.
ValueForm value_form(uint32_t ltype);
// The smallest and largest value a type of integer form can hold (unscaled for decimals).
i128 integer_min(uint32_t ltype);
i128 integer_max(uint32_t ltype);
// The text of a type for messages: "sint", "decimal(12,2)", "str".
std::string type_text(uint32_t ltype);

struct Vector {
  ColumnType type;
  bool is_const = false;  // one value standing for every row
  size_t rows = 0;        // values held: 1 when is_const
  std::vector<i128> ints;
  std::vector<double> reals;
  std::vector<std::string> texts;
  std::vector<uint8_t> nulls;  // empty, or one flag per value (non-zero = null)

  bool is_null(size_t i) const { return !nulls.empty() && nulls[is_const ? 0 : i]; }
  size_t at(size_t i) const { return is_const ? 0 : i; }  // index of row i's value
};

// An empty vector of `type` with room reserved for `rows` values.
Vector make_vector(const ColumnType& type, size_t rows);
// Appends value `i` of `from` (same form) to `to`, null flag included.
void append_value(Vector& to, const Vector& from, size_t i);
// Appends a null of the vector's form (its value is a zero placeholder).
void append_null(Vector& to);
// The rows of `in` whose `keep` flag is set, in order. A constant vector stays constant.
Vector filter_vector(const Vector& in, const std::vector<uint8_t>& keep, size_t kept);
