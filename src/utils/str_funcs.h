// The string builder `sb` (a growable, always NUL-terminated heap text) and string functions that
// allocate in a memory context or write into a caller's fixed buffer.
#pragma once

#include <cstdarg>
#include <cstddef>
#include <cstdint>

#include "utils/compiler.h"

struct MemContext;

struct sb {
  char* data;       // always NUL-terminated
  size_t length;    // bytes of text, not counting the NUL
  size_t capacity;  // bytes allocated for data; length < capacity
};

// Capacity `initial`, or 64 when it is 0. Failure to allocate is an assertion.
sb* sb_create(size_t initial);
void sb_reset(sb* b);
// Appends formatted text; returns the number of bytes appended. Growth at least doubles, so a
// pointer into data is invalidated by any append that grows the buffer.
int sb_append(sb* b, const char* format, ...) KEST_PRINTF_LIKE(2, 3);
int sb_vappend(sb* b, const char* format, va_list args) KEST_PRINTF_LIKE(2, 0);
// Drops the first `n` bytes: the rest of the text and its NUL move to the front, the capacity
// stays (so a reader that keeps discarding what it has used needs no more than its longest
// stretch). Pointers into data are invalidated. REQUIRES: n <= length (assertion "n <= b->length").
void sb_drop_front(sb* b, size_t n);
void sb_free(sb* b);

// Context string functions: results live in `ctx` and die with it.
char* str_dup(MemContext* ctx, const char* text, uint32_t flags = 0);
// Newly formatted text; a shared empty string (never to be written or freed) when the allocation
// fails with KEST_MEM_ALLOWFAILURE in `flags` or the format is in error, never null. Without the
// flag, running out of memory takes the context's out-of-memory path.
char* str_format(MemContext* ctx, uint32_t flags, const char* format, ...) KEST_PRINTF_LIKE(3, 4);
// Lower-case copy of A-Z; returns `text` itself (nothing allocated) when it holds no ASCII capital,
// null when the copy cannot be allocated.
char* str_tolower(MemContext* ctx, const char* text);
// Reallocates and zeroes the bytes between the old requested size and the new one (not needed,
// and skipped, when the block lies in a page area, which is fresh from the system).
void* mem_realloc_zero(MemContext* ctx, void* block, size_t new_size, uint32_t flags = 0);

// Bounded format: the number of bytes written; -1 (last byte set to NUL) when the text does not
// fit; a negative formatting error is passed back the same way.
int str_bprintf(char* buffer, size_t size, const char* format, ...) KEST_PRINTF_LIKE(3, 4);
int str_vbprintf(char* buffer, size_t size, const char* format, va_list args)
    KEST_PRINTF_LIKE(3, 0);

// Byte length of well-formed UTF-8 text (lead bytes 192-223, 224-239, 240-247, 248-251 and above
// take 1 to 5 continuation bytes 10xxxxxx), else -1.
long utf8_length(const char* text);
long utf8_length_n(const char* text, size_t n);
size_t str_length(const char* text);
