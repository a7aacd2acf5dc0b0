#include "support/scripted_peer.h"

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <cstring>

#include "utils/netbuffer.h"
#include "utils/netbuffer_socket.h"

namespace kest_test {

std::string be32(uint32_t value) {
  std::string out(4, '\0');
  for (int i = 3; i >= 0; --i, value >>= 8) out[i] = static_cast<char>(value & 0xFF);
  return out;
}

std::string be64(int64_t value) {
  std::string out(8, '\0');
  auto bits = static_cast<uint64_t>(value);
  for (int i = 7; i >= 0; --i, bits >>= 8) out[i] = static_cast<char>(bits & 0xFF);
  return out;
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

void hold_message(NetBuffer* nb, std::string_view body) {
  const size_t total = body.size() + 4;
  if (nb->data == nullptr) nb->socket = kNetNoSocket;  // a record of its own, not a connection's
  if (nb->data == nullptr || static_cast<size_t>(nb->size) < total) {
    free(nb->data);
    nb->size = static_cast<int32_t>(std::max<size_t>(total, NETBUF_INITIAL_SIZE));
    nb->data = static_cast<char*>(calloc(1, static_cast<size_t>(nb->size)));
  }
  const std::string header = be32(static_cast<uint32_t>(total));
  std::memcpy(nb->data, header.data(), 4);
  if (!body.empty()) std::memcpy(nb->data + 4, body.data(), body.size());
  nb->used = static_cast<int32_t>(total);
  nb->pos = 4;
  nb->state = NETBUF_PARSING;
}

ScriptedPeer::ScriptedPeer() : ScriptedPeer(Options{}) {}

ScriptedPeer::ScriptedPeer(Options options) : options_(options) {
  network_init();
  const uint32_t address = options_.address ? options_.address : net_loopback_address();
  listener_ = net_bind(address, 0, true);
  if (listener_ != kNetNoSocket) port_ = net_local_port(listener_);
}

ScriptedPeer::~ScriptedPeer() {
  join();
  if (listener_ != kNetNoSocket) net_close(listener_);
}

ScriptedPeer& ScriptedPeer::send(std::string bytes) {
  steps_.push_back([this, bytes = std::move(bytes)](int32_t s) { return send_all(s, bytes); });
  return *this;
}

ScriptedPeer& ScriptedPeer::read_frame() {
  steps_.push_back([this](int32_t s) {
    std::string got(4, '\0');
    if (!read_exact(s, got.data(), 4)) return false;
    uint32_t total = 0;
    for (char c : got) total = (total << 8) | static_cast<unsigned char>(c);
    if (total < 4 || total > uint32_t{NETBUF_MAX_FRAME}) return false;
    got.resize(total);
    if (!read_exact(s, got.data() + 4, total - 4)) return false;
    std::lock_guard<std::mutex> guard(lock_);
    frames_.push_back(std::move(got));
    return true;
  });
  return *this;
}

ScriptedPeer& ScriptedPeer::read_to_end() {
  steps_.push_back([this](int32_t s) {
    char chunk[65536];
    for (;;) {
      if (net_wait_readable(s, kStepTimeoutUs) != 1) return false;
      const int64_t n = net_recv(s, chunk, sizeof chunk);
      if (n < 0) return false;
      if (n == 0) return true;
      std::lock_guard<std::mutex> guard(lock_);
      received_.append(chunk, static_cast<size_t>(n));
    }
  });
  return *this;
}

ScriptedPeer& ScriptedPeer::wait_us(int microseconds) {
  steps_.push_back([microseconds](int32_t) {
    std::this_thread::sleep_for(std::chrono::microseconds(microseconds));
    return true;
  });
  return *this;
}

// The two ending steps return false on purpose when the socket is already gone; run() treats a
// socket of -1 as "ended".
ScriptedPeer& ScriptedPeer::close() {
  steps_.push_back([](int32_t s) { return net_close(s) == 0; });
  steps_.push_back(nullptr);  // marks the socket as closed
  return *this;
}

ScriptedPeer& ScriptedPeer::reset() {
  steps_.push_back([](int32_t s) { return net_close_reset(s) == 0; });
  steps_.push_back(nullptr);
  return *this;
}

ScriptedPeer& ScriptedPeer::custom(std::function<bool(int32_t)> step) {
  steps_.push_back(std::move(step));
  return *this;
}

void ScriptedPeer::start() {
  joined_ = false;
  thread_ = std::thread([this] { run(); });
}

bool ScriptedPeer::join() {
  if (!joined_) {
    thread_.join();
    joined_ = true;
  }
  return ok_;
}

void ScriptedPeer::run() {
  if (listener_ == kNetNoSocket || net_wait_readable(listener_, kStepTimeoutUs) != 1) return;
  int32_t s = net_accept(listener_);
  if (s == kNetNoSocket) return;
  bool ok = true;
  for (auto& step : steps_) {
    if (!step) {
      s = kNetNoSocket;
      continue;
    }
    if (s == kNetNoSocket || !step(s)) {
      ok = false;
      break;
    }
  }
  if (s != kNetNoSocket) net_close(s);
  ok_ = ok;
}

bool ScriptedPeer::send_all(int32_t s, std::string_view bytes) const {
  const size_t chunk = options_.chunk ? options_.chunk : bytes.size();
  for (size_t at = 0; at < bytes.size();) {
    const size_t want = std::min(chunk, bytes.size() - at);
    const int64_t n = net_send(s, bytes.data() + at, want);
    if (n <= 0) return false;
    at += static_cast<size_t>(n);
    if (options_.pause_us > 0)
      std::this_thread::sleep_for(std::chrono::microseconds(options_.pause_us));
  }
  return true;
}

bool ScriptedPeer::read_exact(int32_t s, char* dest, size_t len) const {
  for (size_t at = 0; at < len;) {
    if (net_wait_readable(s, kStepTimeoutUs) != 1) return false;
    const int64_t n = net_recv(s, dest + at, len - at);
    if (n <= 0) return false;
    at += static_cast<size_t>(n);
  }
  return true;
}

int32_t ScriptedPeer::connect_client() const {
  network_init();
  int32_t s = net_tcp_socket();
  if (s == kNetNoSocket) return s;
  const uint32_t address = options_.address ? options_.address : net_loopback_address();
  if (net_connect(s, address, port_) != 0) {
    net_close(s);
    return kNetNoSocket;
  }
  return s;
}

std::vector<std::string> ScriptedPeer::frames() const {
  std::lock_guard<std::mutex> guard(lock_);
  return frames_;
}

std::string ScriptedPeer::received() const {
  std::lock_guard<std::mutex> guard(lock_);
  return received_;
}

}  // namespace kest_test
