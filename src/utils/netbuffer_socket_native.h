// The socket layer's private view of the operating system: the headers of the Berkeley socket
// calls (Winsock 2 on Windows, BSD sockets elsewhere) and the conversion between our 32-bit
// handles and native sockets. Included only by netbuffer_socket*.cpp; the calls both systems
// spell alike live in netbuffer_socket.cpp, the rest in netbuffer_socket_posix.cpp and
// netbuffer_socket_win.cpp.
#pragma once

#include <climits>
#include <cstddef>
#include <cstdint>

#ifdef _WIN32
#include <winsock2.h>
#include <ws2tcpip.h>
using NativeSocket = SOCKET;
inline NativeSocket net_native(int32_t s) {
  return static_cast<NativeSocket>(static_cast<uint32_t>(s));
}
inline int32_t net_handle(NativeSocket s) {
  return s == INVALID_SOCKET ? -1 : static_cast<int32_t>(s);
}
#else
#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
using NativeSocket = int;
inline NativeSocket net_native(int32_t s) { return s; }
inline int32_t net_handle(NativeSocket s) { return s < 0 ? -1 : s; }
#endif

// One call moves at most this much; the callers chunk below it anyway.
inline size_t net_clamp_io(size_t len) { return len < size_t{INT_MAX} ? len : size_t{INT_MAX}; }

// Provided by each system's file for the shared calls.
// Makes `error` the one net_last_error() reports (errno or WSASetLastError).
void net_set_last_error(int error);
// Prepares a fresh socket before bind: on POSIX SO_REUSEADDR, so that a restarted server need
// not wait for the old port's TIME_WAIT to pass; nothing on Windows, where the option would let
// a second server take a port in use.
void net_prepare_bind(NativeSocket s);
