// The query context: where errors raised while a query runs are collected.
#pragma once

#include <cstdint>

struct KestError;
struct MemContext;
struct Lock;

struct QueryContext {
  MemContext* mem;        // error records and their texts live here
  Lock* lock;             // guards the error list for the whole of add_error
  bool collect_errors;    // when false add_error does nothing
  KestError* errors;      // first record, or null
};

// A context with its own memory context (child of `parent`, which may be null); free with
// query_context_destroy.
QueryContext* query_context_create(MemContext* parent);
void query_context_destroy(QueryContext* ctx);

// Appends error `code` with `count` text parameters (const char*) to the context's list and logs
// its text at level 3 under `facility`. A list that starts with a KEST_OK record is emptied first.
void add_error(QueryContext* context, const char* facility, int32_t code, int32_t count, ...);
// Same as add_error; always returns 1.
int add_error_ret(QueryContext* context, const char* facility, int32_t code, int32_t count, ...);
