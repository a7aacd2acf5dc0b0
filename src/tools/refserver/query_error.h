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
