// Error records: a code indexing the shared message table (part of the protocol: client and
// server must agree on every code) and its text parameters, which fill "%0" to "%9".
#pragma once

#include <cstddef>
#include <cstdint>

struct MemContext;

struct KestError {
  int32_t code;            // index into the message table; 0 is KEST_OK
  int32_t num_err_params;  // number of entries in params
  char** params;           // each may be null
  KestError* next;         // following record in a context's error list
};
// A record received from the server; allocated on the heap and freed with free_error.
using ErrorRecord = KestError;

constexpr int32_t KEST_OK = 0;
constexpr int32_t KEST_ERR_PARSE = 10;        // "Parse error in %0 at line %1, column %2: %3."
constexpr int32_t KEST_ERR_NOT_NUMBER = 18;   // %0 does not read as a number
constexpr int32_t KEST_ERR_NOT_MONEY = 24;    // %0 is not a money value
constexpr int32_t KEST_ERR_NOT_BOOL = 25;     // %0 does not read as a boolean
constexpr int32_t KEST_ERR_CONVERSION = 26;   // %0 cannot be converted from %1 to %2
constexpr int32_t KEST_ERROR_COUNT = 184;     // codes 0 .. 183

// The template of `code`, or null when the code is outside the table.
const char* kest_error_template(int32_t code);

// Allocates a record and its parameter array in `mem`; null when either allocation fails.
KestError* kest_error_create(MemContext* mem, int32_t code, int32_t nparams);
// Stores a copy of `text` (made in `mem`) at index `num`; a null text stores null.
void kest_error_set_param(KestError* error, MemContext* mem, int32_t num, const char* text);
// Bytes needed by kest_error_format, terminator included.
size_t kest_error_msg_len(const KestError* err);
// Writes the message into `dest` (at least kest_error_msg_len bytes); returns 1.
int kest_error_format(const KestError* err, char* dest);
// The message in storage of `mem`, or a fixed text when that allocation fails.
char* kest_error_text(MemContext* mem, const KestError* err);

// Used by the engine's callers: whether a status is negative, and a negation.
int kest_error_is_negative(int64_t status);
int32_t kest_error_negate(int32_t value);
