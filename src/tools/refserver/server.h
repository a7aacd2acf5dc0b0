// The reference server's accept loop: one thread per connection, many connections at once.
#pragma once

#include <atomic>

#include "tools/refserver/options.h"

// Listens as `options` say, prints "listening on ADDRESS:PORT" on standard output (flushed) when
// ready, and serves connections until `stop` is set; then waits for every connection thread to
// end. Returns 0, or 1 when the server could not listen.
int run_server(const ServerOptions& options, const std::atomic<bool>& stop);
