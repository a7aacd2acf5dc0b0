// One client connection of the reference server: queries are read and answered one after the
// other, as the client sends them.
#pragma once

#include <atomic>
#include <cstdint>

#include "tools/refserver/options.h"

// Serves the connection on `socket` until the client closes it, the connection fails, a fault
// mode ends it or `stop` is set; then closes the socket. Safe to run on many threads at once.
void serve_connection(int32_t socket, const ServerOptions& options, const std::atomic<bool>& stop);
