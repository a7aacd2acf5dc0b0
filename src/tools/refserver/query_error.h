// How a query fails in the reference server: the error is added to the query context's list
// (add_error, as everywhere in the system) and the evaluation unwinds to the connection, which
// sends the first record of that list to the client.
//
// Unwinding by exception is the C++ form of the exception environments the engine jumps to on
// failure; it keeps the evaluator's many small operators free of error plumbing.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <string>

struct QueryContext;

// Thrown after the error has been recorded in the context.
struct QueryFailed {};

// Records `code` with up to four parameters on `ctx` under the facility "REFSERVER", then throws
// QueryFailed.
[[noreturn]] void query_fail(QueryContext* ctx, int32_t code,
                             std::initializer_list<std::string> params = {});

// Codes of the limits below, from the shared table.
constexpr int32_t kErrTextTooLong = 34;  // "Text of %0 bytes exceeds the maximum length %1 of %2."
constexpr int32_t kErrMessageTooLong = 85;  // "Message of %0 bytes exceeds the limit of %1."
constexpr int32_t kErrNestingDepth = 121;   // "Nesting depth of the query exceeds %0."

// Relations and expressions nested in each other, counted together, that a query may hold. The
// parser refuses deeper text with a parse error, so every later walk of the tree (building the
// plan, compiling, evaluating, freeing) recurses at most this deep and stays well inside a
// thread's stack on every platform, sanitizers included.
constexpr int kMaxQueryNesting = 256;

// The recursive walks over a query tree. Building a plan compiles each relation's expressions
// inside it, so the two count together, as the parser counts relations and expressions; an
// evaluation (constant folding while compiling included) starts its own count.
enum class Walk { build, eval };

// Counts the levels of one kind of walk running on this thread; one guard per level, released in
// reverse order (unwinding included). A level past kMaxQueryNesting fails the query with error
// 121 ("Nesting depth of the query exceeds 256."): parsed text never gets there (the parser
// refuses it first), trees built some other way do.
class NestingGuard {
 public:
  NestingGuard(QueryContext* ctx, Walk walk);
  ~NestingGuard();
  NestingGuard(const NestingGuard&) = delete;
  NestingGuard& operator=(const NestingGuard&) = delete;

 private:
  int& depth_;
};
