// The calls of the socket layer that Winsock and BSD sockets spell alike. What differs between
// the two systems is in netbuffer_socket_posix.cpp and netbuffer_socket_win.cpp.
#include "utils/netbuffer_socket.h"

#include <cstring>

#include "utils/netbuffer_socket_native.h"

namespace {

sockaddr_in ipv4(uint32_t address, uint16_t port) {
  sockaddr_in sa;
  std::memset(&sa, 0, sizeof sa);
  sa.sin_family = AF_INET;
  sa.sin_port = htons(port);
  sa.sin_addr.s_addr = address;
  return sa;
}

}  // namespace

bool net_error_is_reset(int error) {
  return error == kNetErrResetWindows || error == kNetErrResetLinux;
}

int32_t net_tcp_socket() { return net_handle(socket(AF_INET, SOCK_STREAM, IPPROTO_TCP)); }

int net_connect(int32_t s, uint32_t address, uint16_t port) {
  sockaddr_in sa = ipv4(address, port);
  return connect(net_native(s), reinterpret_cast<const sockaddr*>(&sa), sizeof sa) == 0 ? 0 : -1;
}

int net_set_nodelay(int32_t s) {
  int one = 1;
  return setsockopt(net_native(s), IPPROTO_TCP, TCP_NODELAY, reinterpret_cast<const char*>(&one),
                    sizeof one) == 0
             ? 0
             : -1;
}

int net_close_reset(int32_t s) {
  linger lg;
  lg.l_onoff = 1;
  lg.l_linger = 0;
  setsockopt(net_native(s), SOL_SOCKET, SO_LINGER, reinterpret_cast<const char*>(&lg), sizeof lg);
  return net_close(s);
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
  net_prepare_bind(net_native(s));
  if (bind(net_native(s), reinterpret_cast<const sockaddr*>(&sa), sizeof sa) != 0 ||
      (listen_too && listen(net_native(s), SOMAXCONN) != 0)) {
    const int error = net_last_error();  // the failure's, not the close's
    net_close(s);
    net_set_last_error(error);
    return kNetNoSocket;
  }
  return s;
}

uint16_t net_local_port(int32_t s) {
  sockaddr_in sa;
  socklen_t len = sizeof sa;
  if (getsockname(net_native(s), reinterpret_cast<sockaddr*>(&sa), &len) != 0) return 0;
  return ntohs(sa.sin_port);
}

uint32_t net_loopback_address() { return htonl(INADDR_LOOPBACK); }
