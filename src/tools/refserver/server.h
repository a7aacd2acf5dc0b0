// The reference server's accept loop: one thread per connection, many connections at once.
#pragma once

#include <atomic>
#include <cstdint>

#include "tools/refserver/options.h"

// Listens as `options` say, prints "listening on ADDRESS:PORT" on standard output (flushed) when
// ready, and serves connections until `stop` is set; then waits for every connection thread to
// end. Returns 0, or 1 when the server could not listen.
int run_server(const ServerOptions& options, const std::atomic<bool>& stop);

// The two halves of run_server, for a server run inside another program (the end-to-end tests):
// the listening socket (or -1, logged) with the port it got, and the accept loop on it, which
// closes it when `stop` is set and every connection thread has ended.
int32_t server_listen(const ServerOptions& options, uint16_t* port);
void server_serve(int32_t listener, const ServerOptions& options, const std::atomic<bool>& stop);
