#include "support/scripted_peer.h"

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "utils/netbuffer.h"
#include "utils/netbuffer_socket.h"

namespace kest_test {

std::string be32(uint32_t value) {
  return {char(value >> 24), char(value >> 16), char(value >> 8), char(value)};
}

std::string be64(int64_t value) {
  const auto bits = static_cast<uint64_t>(value);
  return be32(uint32_t(bits >> 32)) + be32(uint32_t(bits));
}

std::string var(std::string_view bytes) {
  std::string out(bytes.size() / 255, '\xFF');
  out += static_cast<char>(bytes.size() % 255);
  out += bytes;
  return out;
}

std::string frame(std::string_view body) {
  return be32(static_cast<uint32_t>(body.size() + 4)) + std::string(body);
}

std::string ack(int32_t vector_size, const std::vector<Column>& columns) {
  std::string body = be32(0) + be32(uint32_t(columns.size())) + be32(uint32_t(vector_size));
  for (const Column& c : columns) body += var(c.name);
  for (const Column& c : columns) body += be32(c.isconst) + var(c.ltype) + var(c.ptype);
  return frame(body);
}

std::string data(int32_t rows, std::string_view blocks) {
  return frame(be32(0) + be32(uint32_t(rows)) + std::string(blocks));
}

std::string error_record(int32_t code, const std::vector<std::string>& params) {
  std::string body = be32(0xFFFFFFFFu) + be32(uint32_t(code)) + be32(uint32_t(params.size()));
  for (const std::string& p : params) body += var(p);
  return frame(body);
}

void hold_message(NetBuffer* nb, std::string_view body) {
  const size_t total = body.size() + 4;
  if (nb->data == nullptr) nb->socket = kNetNoSocket;  // a record of its own, not a connection's
  if (nb->data == nullptr || static_cast<size_t>(nb->size) < total) {
    free(nb->data);
    nb->size = static_cast<int32_t>(std::max<size_t>(total, NETBUF_INITIAL_SIZE));
    nb->data = static_cast<char*>(calloc(1, static_cast<size_t>(nb->size)));
  }
  std::memcpy(nb->data, frame(body).data(), total);
  nb->used = static_cast<int32_t>(total);
  nb->pos = 4;
  nb->state = NETBUF_PARSING;
}

namespace {

bool read_exact(int32_t s, char* dest, size_t len) {
  for (size_t at = 0; at < len;) {
    if (net_wait_readable(s, ScriptedPeer::kStepTimeoutUs) != 1) return false;
    const int64_t n = net_recv(s, dest + at, len - at);
    if (n <= 0) return false;
    at += static_cast<size_t>(n);
  }
  return true;
}

}  // namespace

ScriptedPeer::ScriptedPeer(Options options) : options_(options) {
  network_init();
  if (options_.address == 0) options_.address = net_loopback_address();
  listener_ = net_bind(options_.address, 0, true);
  if (listener_ != kNetNoSocket) port_ = net_local_port(listener_);
}

ScriptedPeer::~ScriptedPeer() {
  join();
  if (listener_ != kNetNoSocket) net_close(listener_);
}

ScriptedPeer& ScriptedPeer::send(std::string bytes) {
  steps_.push_back([this, bytes = std::move(bytes)](int32_t& s) {
    const size_t chunk = options_.chunk ? options_.chunk : bytes.size();
    for (size_t at = 0; at < bytes.size();) {
      const int64_t n = net_send(s, bytes.data() + at, std::min(chunk, bytes.size() - at));
      if (n <= 0) return false;
      at += static_cast<size_t>(n);
      if (options_.pause_us > 0)
        std::this_thread::sleep_for(std::chrono::microseconds(options_.pause_us));
    }
    return true;
  });
  return *this;
}

ScriptedPeer& ScriptedPeer::read_frame() {
  steps_.push_back([this](int32_t& s) {
    std::string got(4, '\0');
    if (!read_exact(s, got.data(), 4)) return false;
    uint32_t total = 0;
    for (char c : got) total = (total << 8) | static_cast<unsigned char>(c);
    if (total < 4 || total > uint32_t{NETBUF_MAX_FRAME}) return false;
    got.resize(total);
    if (!read_exact(s, got.data() + 4, total - 4)) return false;
    frames_.push_back(std::move(got));
    return true;
  });
  return *this;
}

ScriptedPeer& ScriptedPeer::read_to_end() {
  steps_.push_back([this](int32_t& s) {
    char chunk[65536];
    for (;;) {
      if (net_wait_readable(s, kStepTimeoutUs) != 1) return false;
      const int64_t n = net_recv(s, chunk, sizeof chunk);
      if (n <= 0) return n == 0;
      received_.append(chunk, static_cast<size_t>(n));
    }
  });
  return *this;
}

ScriptedPeer& ScriptedPeer::then(std::function<bool()> step) {
  steps_.push_back([step = std::move(step)](int32_t&) { return step(); });
  return *this;
}

ScriptedPeer& ScriptedPeer::wait_us(int microseconds) {
  steps_.push_back([microseconds](int32_t&) {
    std::this_thread::sleep_for(std::chrono::microseconds(microseconds));
    return true;
  });
  return *this;
}

ScriptedPeer& ScriptedPeer::close() {
  steps_.push_back([](int32_t& s) { return net_close(std::exchange(s, kNetNoSocket)) == 0; });
  return *this;
}

ScriptedPeer& ScriptedPeer::reset() {
  steps_.push_back([](int32_t& s) { return net_close_reset(std::exchange(s, kNetNoSocket)) == 0; });
  return *this;
}

void ScriptedPeer::start() {
  thread_ = std::thread([this] {
    if (listener_ == kNetNoSocket || net_wait_readable(listener_, kStepTimeoutUs) != 1) return;
    int32_t s = net_accept(listener_);
    bool ok = s != kNetNoSocket;
    // A step after the end of the connection fails.
    for (size_t i = 0; ok && i < steps_.size(); ++i) ok = s != kNetNoSocket && steps_[i](s);
    if (s != kNetNoSocket) net_close(s);
    ok_ = ok;
  });
}

bool ScriptedPeer::join() {
  if (thread_.joinable()) thread_.join();
  return ok_;
}

int32_t ScriptedPeer::connect_client() const {
  network_init();
  int32_t s = net_tcp_socket();
  if (s != kNetNoSocket && net_connect(s, options_.address, port_) != 0) {
    net_close(s);
    return kNetNoSocket;
  }
  return s;
}

}  // namespace kest_test
