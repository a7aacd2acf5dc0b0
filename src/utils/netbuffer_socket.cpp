#include "utils/netbuffer_socket.h"

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <mutex>

#ifdef _WIN32
#include <winsock2.h>
#include <ws2tcpip.h>
#else
#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>
#endif

namespace {

// One call moves at most this much; the callers chunk below it anyway.
constexpr size_t kMaxIo = INT_MAX;

size_t clamp_io(size_t len) { return len < kMaxIo ? len : kMaxIo; }

#ifdef _WIN32
using NativeSocket = SOCKET;
NativeSocket native(int32_t s) { return static_cast<NativeSocket>(static_cast<uint32_t>(s)); }
int32_t handle(NativeSocket s) {
  return s == INVALID_SOCKET ? kNetNoSocket : static_cast<int32_t>(s);
}
#else
using NativeSocket = int;
NativeSocket native(int32_t s) { return s; }
int32_t handle(NativeSocket s) { return s < 0 ? kNetNoSocket : s; }
#endif

sockaddr_in ipv4(uint32_t address, uint16_t port) {
  sockaddr_in sa;
  std::memset(&sa, 0, sizeof sa);
  sa.sin_family = AF_INET;
  sa.sin_port = htons(port);
  sa.sin_addr.s_addr = address;
  return sa;
}

}  // namespace

int net_startup() {
#ifdef _WIN32
  static std::atomic<bool> started{false};
  static std::mutex start_lock;
  if (started.load()) return 0;
  std::lock_guard<std::mutex> guard(start_lock);
  if (started.load()) return 0;
  WSADATA wsa;
  if (WSAStartup(2, &wsa) != 0) return -1;
  started.store(true);
#endif
  return 0;
}

int net_last_error() {
#ifdef _WIN32
  return WSAGetLastError();
#else
  return errno;
#endif
}

bool net_error_is_reset(int error) {
  return error == kNetErrResetWindows || error == kNetErrResetLinux;
}

const char* net_error_text(int error) {
#ifdef _WIN32
  thread_local char text[256];
  DWORD n = FormatMessageA(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS, nullptr,
                           static_cast<DWORD>(error), 0, text, sizeof text, nullptr);
  while (n > 0 && (text[n - 1] == '\n' || text[n - 1] == '\r' || text[n - 1] == ' ')) --n;
  if (n == 0)
    std::snprintf(text, sizeof text, "socket error %d", error);
  else
    text[n] = '\0';
  return text;
#else
  return std::strerror(error);
#endif
}

int32_t net_tcp_socket() { return handle(socket(AF_INET, SOCK_STREAM, IPPROTO_TCP)); }

int net_connect(int32_t s, uint32_t address, uint16_t port) {
  sockaddr_in sa = ipv4(address, port);
  return connect(native(s), reinterpret_cast<const sockaddr*>(&sa), sizeof sa) == 0 ? 0 : -1;
}

int net_set_nodelay(int32_t s) {
  int one = 1;
  return setsockopt(native(s), IPPROTO_TCP, TCP_NODELAY, reinterpret_cast<const char*>(&one),
                    sizeof one) == 0
             ? 0
             : -1;
}

int net_set_keepalive(int32_t s) {
  int one = 1;
  if (setsockopt(native(s), SOL_SOCKET, SO_KEEPALIVE, reinterpret_cast<const char*>(&one),
                 sizeof one) != 0)
    return -1;
#ifdef TCP_KEEPIDLE
  int idle = 60, interval = 10, probes = 6;
  setsockopt(native(s), IPPROTO_TCP, TCP_KEEPIDLE, &idle, sizeof idle);
  setsockopt(native(s), IPPROTO_TCP, TCP_KEEPINTVL, &interval, sizeof interval);
  setsockopt(native(s), IPPROTO_TCP, TCP_KEEPCNT, &probes, sizeof probes);
#endif
  return 0;
}

int net_set_receive_timeout(int32_t s, int64_t microseconds) {
  if (microseconds < 0) microseconds = 0;
#ifdef _WIN32
  const DWORD ms =
      static_cast<DWORD>(microseconds > 0 && microseconds < 1000 ? 1 : microseconds / 1000);
  return setsockopt(native(s), SOL_SOCKET, SO_RCVTIMEO, reinterpret_cast<const char*>(&ms),
                    sizeof ms) == 0
             ? 0
             : -1;
#else
  timeval tv;
  tv.tv_sec = static_cast<time_t>(microseconds / 1000000);
  tv.tv_usec = static_cast<suseconds_t>(microseconds % 1000000);
  return setsockopt(native(s), SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv) == 0 ? 0 : -1;
#endif
}

bool net_error_is_timeout(int error) {
#ifdef _WIN32
  return error == WSAETIMEDOUT;
#else
  return error == EAGAIN || error == EWOULDBLOCK;
#endif
}

int net_close(int32_t s) {
#ifdef _WIN32
  return closesocket(native(s)) == 0 ? 0 : -1;
#else
  return close(native(s)) == 0 ? 0 : -1;
#endif
}

int net_close_reset(int32_t s) {
  linger lg;
  lg.l_onoff = 1;
  lg.l_linger = 0;
  setsockopt(native(s), SOL_SOCKET, SO_LINGER, reinterpret_cast<const char*>(&lg), sizeof lg);
  return net_close(s);
}

int net_shutdown_send(int32_t s) {
#ifdef _WIN32
  return shutdown(native(s), SD_SEND) == 0 ? 0 : -1;
#else
  return shutdown(native(s), SHUT_WR) == 0 ? 0 : -1;
#endif
}

int64_t net_send(int32_t s, const void* bytes, size_t len) {
#ifdef _WIN32
  int n = send(native(s), static_cast<const char*>(bytes), static_cast<int>(clamp_io(len)), 0);
  return n == SOCKET_ERROR ? -1 : n;
#else
  for (;;) {
    ssize_t n = send(native(s), bytes, clamp_io(len), MSG_NOSIGNAL);
    if (n >= 0) return n;
    if (errno != EINTR) return -1;
  }
#endif
}

int64_t net_recv(int32_t s, void* bytes, size_t len) {
#ifdef _WIN32
  int n = recv(native(s), static_cast<char*>(bytes), static_cast<int>(clamp_io(len)), 0);
  return n == SOCKET_ERROR ? -1 : n;
#else
  for (;;) {
    ssize_t n = recv(native(s), bytes, clamp_io(len), 0);
    if (n >= 0) return n;
    if (errno != EINTR) return -1;
  }
#endif
}

int net_wait_readable(int32_t s, int64_t microseconds) {
  if (microseconds < 0) microseconds = 0;
#ifdef _WIN32
  fd_set readable;
  FD_ZERO(&readable);
  FD_SET(native(s), &readable);
  timeval tv;
  tv.tv_sec = static_cast<long>(microseconds / 1000000);
  tv.tv_usec = static_cast<long>(microseconds % 1000000);
  int n = select(0, &readable, nullptr, nullptr, &tv);
  return n == SOCKET_ERROR ? -1 : (n > 0 ? 1 : 0);
#else
  // poll rather than select: a descriptor above FD_SETSIZE must not overrun an fd_set.
  pollfd pfd{native(s), POLLIN, 0};
  const int64_t ms = (microseconds + 999) / 1000;
  const int timeout = ms > INT_MAX ? INT_MAX : static_cast<int>(ms);
  for (;;) {
    int n = poll(&pfd, 1, timeout);
    if (n >= 0) return n > 0 ? 1 : 0;
    if (errno != EINTR) return -1;
  }
#endif
}

uint32_t net_inet_addr(const char* text) { return inet_addr(text); }

int net_resolve(const char* host, uint32_t* address) {
  addrinfo hints;
  std::memset(&hints, 0, sizeof hints);
  hints.ai_family = AF_INET;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* found = nullptr;
  if (getaddrinfo(host, nullptr, &hints, &found) != 0 || found == nullptr) return -1;
  *address = reinterpret_cast<const sockaddr_in*>(found->ai_addr)->sin_addr.s_addr;
  freeaddrinfo(found);
  return 0;
}

int32_t net_bind(uint32_t address, uint16_t port, bool listen_too) {
  int32_t s = net_tcp_socket();
  if (s == kNetNoSocket) return kNetNoSocket;
  sockaddr_in sa = ipv4(address, port);
#ifndef _WIN32
  // A restarted server must not wait for the old port's TIME_WAIT to pass.
  int one = 1;
  setsockopt(native(s), SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
#endif
  if (bind(native(s), reinterpret_cast<const sockaddr*>(&sa), sizeof sa) != 0 ||
      (listen_too && listen(native(s), SOMAXCONN) != 0)) {
    const int error = net_last_error();
    net_close(s);
#ifdef _WIN32
    WSASetLastError(error);
#else
    errno = error;
#endif
    return kNetNoSocket;
  }
  return s;
}

uint16_t net_local_port(int32_t s) {
  sockaddr_in sa;
  socklen_t len = sizeof sa;
  if (getsockname(native(s), reinterpret_cast<sockaddr*>(&sa), &len) != 0) return 0;
  return ntohs(sa.sin_port);
}

int32_t net_accept(int32_t listener) {
#ifdef _WIN32
  return handle(accept(native(listener), nullptr, nullptr));
#else
  for (;;) {
    int s = accept(native(listener), nullptr, nullptr);
    if (s >= 0 || errno != EINTR) return handle(s);
  }
#endif
}

uint32_t net_loopback_address() { return htonl(INADDR_LOOPBACK); }
