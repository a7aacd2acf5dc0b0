// The query context: where errors raised while a query runs are collected.
#pragma once

#include <cstdarg>
#include <cstdint>

struct KestError;
struct MemContext;
struct Lock;

struct QueryContext {
  MemContext* mem;      // error records and their texts live here
  Lock* lock;           // guards the error list for the whole of add_error
  bool collect_errors;  // when false add_error does nothing
  KestError* errors;    // first record, or null
};

// A context with its own memory context (child of `parent`, which may be null), its own lock,
// error collection on and an empty list; null when the lock cannot be created. Free with
// query_context_destroy, which frees every record and text made by add_error.
QueryContext* query_context_create(MemContext* parent);
void query_context_destroy(QueryContext* ctx);

// Appends error `code` with `count` text parameters (const char*, each may be null) to the
// context's list and logs its text at level 3 under `facility`. A null context, or one with
// collect_errors off, is left alone. A list that starts with a KEST_OK record is emptied first;
// when memory runs out that KEST_OK record is reused for the new code (its parameters are lost),
// so the fact that an error happened is never lost. The context's lock is held throughout.
void add_error(QueryContext* context, const char* facility, int32_t code, int32_t count, ...);
// Same as add_error; always returns 1.
int add_error_ret(QueryContext* context, const char* facility, int32_t code, int32_t count, ...);
// add_error with the parameters in a va_list.
void add_error_v(QueryContext* context, const char* facility, int32_t code, int32_t count,
                 va_list params);
