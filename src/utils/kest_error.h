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
constexpr int32_t KEST_ERR_PARSE = 10;       // "Parse error in %0 at line %1, column %2: %3."
constexpr int32_t KEST_ERR_NOT_NUMBER = 18;  // %0 does not read as a number
constexpr int32_t KEST_ERR_NOT_MONEY = 24;   // %0 is not a money value
constexpr int32_t KEST_ERR_NOT_BOOL = 25;    // %0 does not read as a boolean
constexpr int32_t KEST_ERR_CONVERSION = 26;  // %0 cannot be converted from %1 to %2
constexpr int32_t KEST_ERROR_COUNT = 184;    // codes 0 .. 183

// Codes the reference server sends besides the ones above.
constexpr int32_t KEST_ERR_INTERNAL = 1;              // "Internal error: %0."
constexpr int32_t KEST_ERR_UNKNOWN_COLUMN = 11;       // "Unknown column %0."
constexpr int32_t KEST_ERR_UNKNOWN_OPERATOR = 12;     // "Unknown operator or function %0."
constexpr int32_t KEST_ERR_DUPLICATE_COLUMN = 15;     // "Duplicate column name %0 in %1."
constexpr int32_t KEST_ERR_ARITY = 16;                // "Operator %0 expects %1 arguments, got %2."
constexpr int32_t KEST_ERR_OUT_OF_RANGE = 19;         // "Value %0 is out of range for type %1."
constexpr int32_t KEST_ERR_TYPE_MISMATCH = 20;        // "Type mismatch: %0 expects %1, got %2."
constexpr int32_t KEST_ERR_DIVISION_BY_ZERO = 21;     // "Division by zero."
constexpr int32_t KEST_ERR_NOT_DATE = 27;             // "'%0' is not a valid date."
constexpr int32_t KEST_ERR_OUT_OF_MEMORY = 64;        // "Out of memory."
constexpr int32_t KEST_ERR_UNSUPPORTED_REQUEST = 87;  // "Unsupported request code %0."
constexpr int32_t KEST_ERR_AUTHENTICATION = 91;       // "Authentication failed: %0."
constexpr int32_t KEST_ERR_VECTOR_SIZE = 98;       // "Vector size %0 is out of range (%1 to %2)."
constexpr int32_t KEST_ERR_TOO_MANY_COLUMNS = 99;  // "Too many columns: %0 (limit %1)."
constexpr int32_t KEST_ERR_ARRAY_DIMENSION = 117;  // "Array dimension %0 has invalid size %1."
constexpr int32_t KEST_ERR_CANNOT_CAST = 159;      // "Cannot cast %0 to %1."
constexpr int32_t KEST_ERR_SHUTTING_DOWN = 174;    // "The server is shutting down."

// The code of the end marker that follows the last entry of the table (all bits set).
constexpr int32_t KEST_ERROR_END_MARKER = -1;
// One entry of the message table (utils/kest_error_messages.inc).
struct KestErrorMessage {
  int32_t code;
  const char* text;  // null only for the end marker
};

// The template of `code`, or null when the code is outside the table.
const char* kest_error_template(int32_t code);

// Allocates a record (next null) and its zeroed parameter array in `mem`; null when either
// allocation fails. REQUIRES: mem is not null (assertion "mem").
KestError* kest_error_create(MemContext* mem, int32_t code, int32_t nparams);
// Stores a copy of `text` (made in `mem`) at index `num`; a null text stores null, and so does a
// copy that cannot be allocated. Assertions "error", "mem", "num < error->num_err_params".
void kest_error_set_param(KestError* error, MemContext* mem, int32_t num, const char* text);
// Bytes needed by kest_error_format, terminator included: the template's length plus each
// parameter's length once plus 1 (an upper bound: unused parameters count too).
// REQUIRES: err is not null (assertion "err").
size_t kest_error_msg_len(const KestError* err);
// Writes the message into `dest` (at least kest_error_msg_len bytes); returns 1. "%d" copies
// parameter d when d < num_err_params (a null parameter copies nothing), "%%" writes "%", and a
// "%" followed by anything else vanishes together with that character.
// A code outside the table (the client receives codes from servers) never indexes the table: the
// message then names the code and lists the parameters quoted, null ones as null, e.g.
//   Unknown error code 100000 (parameters: 'a', 'b')
//   Unknown error code -1 (no parameters)
// REQUIRES: err is not null (assertion "err").
int kest_error_format(const KestError* err, char* dest);
// Formats `tpl` by the rules of kest_error_format with the parameters of `err` (its code is not
// used). `dest` must hold strlen(tpl) + each parameter's length + 1 bytes.
void kest_error_format_template(const char* tpl, const KestError* err, char* dest);
// Hands the message of `err` to `sink` in order, in pieces, allocating and copying nothing: the
// template's text between placeholders and each parameter a placeholder names (pointing into the
// record). Joined, the pieces are the text kest_error_format writes, unknown codes included, so
// a caller can print a message of any size without building it. REQUIRES: err is not null
// (assertion "err").
using KestErrorSink = void (*)(void* arg, const char* bytes, size_t len);
void kest_error_emit(const KestError* err, KestErrorSink sink, void* arg);
// The message in storage of `mem`, or, when that allocation fails, the static text
// KEST_ERROR_NO_MEMORY_TEXT itself (compare pointers before freeing).
inline constexpr char KEST_ERROR_NO_MEMORY_TEXT[] =
    "Memory allocation for logging failed while trying to report an error";
char* kest_error_text(MemContext* mem, const KestError* err);

// Used by the engine's callers: whether a status is negative, and a negation.
int kest_error_is_negative(int64_t status);
int32_t kest_error_negate(int32_t value);
