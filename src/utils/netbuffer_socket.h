// The socket layer: thin, portable wrappers over the operating system's TCP sockets (Winsock 2 on
// Windows, BSD sockets elsewhere). With the platform layer, the only code that reaches the
// operating system; the network buffer, the client session, the reference server and the tests
// open, connect, accept and move bytes only through these calls. The calls both systems spell
// alike are in netbuffer_socket.cpp, the others in netbuffer_socket_posix.cpp and
// netbuffer_socket_win.cpp (the build takes the one of its system).
//
// Handles are signed 32-bit numbers, -1 for "no socket". Addresses are IPv4 in network byte order
// (as inet_addr gives them); ports are in host order. Every call that fails leaves its error
// number for net_last_error().
#pragma once

#include <cstddef>
#include <cstdint>

constexpr int32_t kNetNoSocket = -1;
// The connection-reset error numbers of both platforms (WSAECONNRESET, ECONNRESET on Linux).
constexpr int kNetErrResetWindows = 10054;
constexpr int kNetErrResetLinux = 104;

// Starts the socket library (Winsock 2.0) once per process; 0, or -1 when it cannot start.
// Later calls return 0 at once. A no-op returning 0 where no start-up is needed.
int net_startup();

// The error number of the last failed socket call (WSAGetLastError or errno).
int net_last_error();
// True for the two error numbers that mean "the peer reset the connection": 10054 and 104.
bool net_error_is_reset(int error);
// A readable text for a socket error number. Valid until the next call on this thread.
const char* net_error_text(int error);

// A TCP/IPv4 socket, or -1.
int32_t net_tcp_socket();
// Connects `s` to address:port; 0 or -1.
int net_connect(int32_t s, uint32_t address, uint16_t port);
// Sets TCP_NODELAY to 1; 0 or -1.
int net_set_nodelay(int32_t s);
// Turns TCP keep-alive on (probes after a minute of silence where the system lets us choose), so
// that a peer that vanished is noticed on an idle connection; 0 or -1.
int net_set_keepalive(int32_t s);
// Makes every receive on `s` fail with a time-out error once `microseconds` pass without a byte
// (0: wait for ever); 0 or -1.
int net_set_receive_timeout(int32_t s, int64_t microseconds);
// True for the error numbers of a receive whose time-out ran out (EAGAIN/EWOULDBLOCK,
// WSAETIMEDOUT).
bool net_error_is_timeout(int error);
// Closes the socket; 0 or -1.
int net_close(int32_t s);
// Closes the socket so that the peer sees a connection reset (RST) rather than an orderly end.
int net_close_reset(int32_t s);

// One send of at most `len` bytes: the count sent, or -1. Never raises SIGPIPE on a socket whose
// peer has gone; an interrupted call is retried.
int64_t net_send(int32_t s, const void* bytes, size_t len);
// One receive of at most `len` bytes: the count received, 0 at end-of-stream, or -1. An
// interrupted call is retried.
int64_t net_recv(int32_t s, void* bytes, size_t len);
// Waits until `s` is readable (or a listening socket has a connection to accept) for at most
// `microseconds`: 1 readable, 0 timed out, -1 error.
int net_wait_readable(int32_t s, int64_t microseconds);

// inet_addr: the address of a dotted text in network byte order, or 0xFFFFFFFF for a text that
// does not read as one.
uint32_t net_inet_addr(const char* text);
// The first IPv4 address of a host name; 0 or -1 (then net_last_error() is not meaningful).
int net_resolve(const char* host, uint32_t* address);

// Server side. A socket bound to address:port (port 0 picks a free one) and listening; -1 on
// failure. `listen` false binds without listening, so that connections to it are refused.
int32_t net_bind(uint32_t address, uint16_t port, bool listen);
// The port a bound socket has, in host order, or 0.
uint16_t net_local_port(int32_t s);
// Accepts one connection: its socket, or -1.
int32_t net_accept(int32_t listener);

// 127.0.0.1 in network byte order.
uint32_t net_loopback_address();
