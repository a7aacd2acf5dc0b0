// The socket layer on POSIX systems: errno, close, MSG_NOSIGNAL, poll and the retry of a call
// that a signal interrupted.
#include <poll.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "utils/netbuffer_socket.h"
#include "utils/netbuffer_socket_native.h"

int net_startup() { return 0; }

int net_last_error() { return errno; }

void net_set_last_error(int error) { errno = error; }

const char* net_error_text(int error) { return std::strerror(error); }

void net_prepare_bind(NativeSocket s) {
  int one = 1;
  setsockopt(s, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
}

int net_set_keepalive(int32_t s) {
  int one = 1;
  if (setsockopt(net_native(s), SOL_SOCKET, SO_KEEPALIVE, &one, sizeof one) != 0) return -1;
#ifdef TCP_KEEPIDLE  // the probe timing, where the system lets us choose it
  int idle = 60, interval = 10, probes = 6;
  setsockopt(net_native(s), IPPROTO_TCP, TCP_KEEPIDLE, &idle, sizeof idle);
  setsockopt(net_native(s), IPPROTO_TCP, TCP_KEEPINTVL, &interval, sizeof interval);
  setsockopt(net_native(s), IPPROTO_TCP, TCP_KEEPCNT, &probes, sizeof probes);
#endif
  return 0;
}

int net_set_receive_timeout(int32_t s, int64_t microseconds) {
  if (microseconds < 0) microseconds = 0;
  timeval tv;
  tv.tv_sec = static_cast<time_t>(microseconds / 1000000);
  tv.tv_usec = static_cast<suseconds_t>(microseconds % 1000000);
  return setsockopt(net_native(s), SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv) == 0 ? 0 : -1;
}

bool net_error_is_timeout(int error) { return error == EAGAIN || error == EWOULDBLOCK; }

int net_close(int32_t s) { return close(net_native(s)) == 0 ? 0 : -1; }

int64_t net_send(int32_t s, const void* bytes, size_t len) {
  for (;;) {
    ssize_t n = send(net_native(s), bytes, net_clamp_io(len), MSG_NOSIGNAL);
    if (n >= 0) return n;
    if (errno != EINTR) return -1;
  }
}

int64_t net_recv(int32_t s, void* bytes, size_t len) {
  for (;;) {
    ssize_t n = recv(net_native(s), bytes, net_clamp_io(len), 0);
    if (n >= 0) return n;
    if (errno != EINTR) return -1;
  }
}

int net_wait_readable(int32_t s, int64_t microseconds) {
  if (microseconds < 0) microseconds = 0;
  // poll rather than select: a descriptor above FD_SETSIZE must not overrun an fd_set.
  pollfd pfd{net_native(s), POLLIN, 0};
  const int64_t ms = (microseconds + 999) / 1000;
  const int timeout = ms > INT_MAX ? INT_MAX : static_cast<int>(ms);
  for (;;) {
    int n = poll(&pfd, 1, timeout);
    if (n >= 0) return n > 0 ? 1 : 0;
    if (errno != EINTR) return -1;
  }
}

int32_t net_accept(int32_t listener) {
  for (;;) {
    int s = accept(net_native(listener), nullptr, nullptr);
    if (s >= 0 || errno != EINTR) return net_handle(s);
  }
}
