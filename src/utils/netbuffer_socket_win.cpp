// The socket layer on Windows: Winsock's start-up, its error numbers and their texts,
// closesocket and select.
#include <atomic>
#include <cstdio>
#include <mutex>

#include "utils/netbuffer_socket.h"
#include "utils/netbuffer_socket_native.h"

int net_startup() {
  static std::atomic<bool> started{false};
  static std::mutex start_lock;
  if (started.load()) return 0;
  std::lock_guard<std::mutex> guard(start_lock);
  if (started.load()) return 0;
  WSADATA wsa;
  if (WSAStartup(2, &wsa) != 0) return -1;
  started.store(true);
  return 0;
}

int net_last_error() { return WSAGetLastError(); }

void net_set_last_error(int error) { WSASetLastError(error); }

const char* net_error_text(int error) {
  thread_local char text[256];
  DWORD n = FormatMessageA(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS, nullptr,
                           static_cast<DWORD>(error), 0, text, sizeof text, nullptr);
  while (n > 0 && (text[n - 1] == '\n' || text[n - 1] == '\r' || text[n - 1] == ' ')) --n;
  if (n == 0)
    std::snprintf(text, sizeof text, "socket error %d", error);
  else
    text[n] = '\0';
  return text;
}

void net_prepare_bind(NativeSocket /*s*/) {}

int net_set_keepalive(int32_t s) {
  int one = 1;
  return setsockopt(net_native(s), SOL_SOCKET, SO_KEEPALIVE, reinterpret_cast<const char*>(&one),
                    sizeof one) == 0
             ? 0
             : -1;
}

// Winsock takes the time-out in milliseconds; a positive time below one must not become 0, which
// would mean no time-out at all.
int net_set_receive_timeout(int32_t s, int64_t microseconds) {
  if (microseconds < 0) microseconds = 0;
  const DWORD ms =
      static_cast<DWORD>(microseconds > 0 && microseconds < 1000 ? 1 : microseconds / 1000);
  return setsockopt(net_native(s), SOL_SOCKET, SO_RCVTIMEO, reinterpret_cast<const char*>(&ms),
                    sizeof ms) == 0
             ? 0
             : -1;
}

bool net_error_is_timeout(int error) { return error == WSAETIMEDOUT; }

int net_close(int32_t s) { return closesocket(net_native(s)) == 0 ? 0 : -1; }

int64_t net_send(int32_t s, const void* bytes, size_t len) {
  int n =
      send(net_native(s), static_cast<const char*>(bytes), static_cast<int>(net_clamp_io(len)), 0);
  return n == SOCKET_ERROR ? -1 : n;
}

int64_t net_recv(int32_t s, void* bytes, size_t len) {
  int n = recv(net_native(s), static_cast<char*>(bytes), static_cast<int>(net_clamp_io(len)), 0);
  return n == SOCKET_ERROR ? -1 : n;
}

int net_wait_readable(int32_t s, int64_t microseconds) {
  if (microseconds < 0) microseconds = 0;
  fd_set readable;
  FD_ZERO(&readable);
  FD_SET(net_native(s), &readable);
  timeval tv;
  tv.tv_sec = static_cast<long>(microseconds / 1000000);
  tv.tv_usec = static_cast<long>(microseconds % 1000000);
  int n = select(0, &readable, nullptr, nullptr, &tv);
  return n == SOCKET_ERROR ? -1 : (n > 0 ? 1 : 0);
}

int32_t net_accept(int32_t listener) {
  return net_handle(accept(net_native(listener), nullptr, nullptr));
}
