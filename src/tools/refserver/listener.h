// The reference server's sockets. Every socket call of the server is made in listener.cpp, over
// the system's portable socket layer (utils/netbuffer_socket.h): the rest of the server sees
// handles and these few verbs, so the OS-specific surface stays in one reviewed place.
#pragma once

#include <cstddef>
#include <cstdint>

// Binds `host` (a dotted address or a name) and `port` (0 picks a free one) and listens. The
// listening socket, or -1 (the reason is logged); `*bound_port` receives the port.
int32_t listener_open(const char* host, uint16_t port, uint16_t* bound_port);
// Waits at most `microseconds` for a connection: its socket, -2 when none came, -1 on error.
int32_t listener_accept(int32_t listener, int64_t microseconds);
// Waits at most `microseconds` until `s` has data (or the peer closed): 1, 0 on time-out, -1.
int socket_wait_readable(int32_t s, int64_t microseconds);
// Sends all `len` bytes, `chunk` bytes per call; false when the peer is gone.
bool socket_send_all(int32_t s, const void* bytes, size_t len, size_t chunk);
void socket_close(int32_t s);
// Closes so that the peer sees a connection reset.
void socket_close_reset(int32_t s);
