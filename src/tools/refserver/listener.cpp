#include "tools/refserver/listener.h"

#include "utils/netbuffer_socket.h"
#include "utils/znlog.h"

namespace {
constexpr const char* kFacility = "REFSERVER";
}

int32_t listener_open(const char* host, uint16_t port, uint16_t* bound_port) {
  if (net_startup() != 0) return -1;
  uint32_t address = net_inet_addr(host);
  if (address == 0xFFFFFFFFu && net_resolve(host, &address) != 0) {
    ZN_LOG(kFacility, ZN_ERROR, "cannot resolve %s", host);
    return -1;
  }
  const int32_t s = net_bind(address, port, true);
  if (s < 0) {
    ZN_LOG(kFacility, ZN_ERROR, "cannot listen on %s:%u: %s", host, static_cast<unsigned>(port),
           net_error_text(net_last_error()));
    return -1;
  }
  *bound_port = net_local_port(s);
  return s;
}

int32_t listener_accept(int32_t listener, int64_t microseconds) {
  const int ready = net_wait_readable(listener, microseconds);
  if (ready <= 0) return ready == 0 ? -2 : -1;
  return net_accept(listener);
}

int socket_wait_readable(int32_t s, int64_t microseconds) {
  return net_wait_readable(s, microseconds);
}

bool socket_send_all(int32_t s, const void* bytes, size_t len, size_t chunk) {
  const auto* p = static_cast<const char*>(bytes);
  for (size_t sent = 0; sent < len;) {
    const int64_t n = net_send(s, p + sent, len - sent < chunk ? len - sent : chunk);
    if (n <= 0) return false;
    sent += static_cast<size_t>(n);
  }
  return true;
}

void socket_close(int32_t s) { net_close(s); }

void socket_close_reset(int32_t s) { net_close_reset(s); }
