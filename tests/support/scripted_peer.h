// Test fakes for the framed wire protocol: byte builders for fields and server messages, and a
// loopback peer thread that accepts one connection and plays a script of steps, e.g.
// `peer.read_frame().send(frame(be32(7))).close(); peer.start();`, then a client connects (a
// process given port(), or connect_client()) and `peer.join()` tells whether the script ran to
// its end. Every wait in the peer is bounded (kStepTimeoutUs per step).
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

struct NetBuffer;

namespace kest_test {

// Field encodings of the wire format, for building expected or scripted bytes.
std::string be32(uint32_t value);
std::string be64(int64_t value);
std::string var(std::string_view bytes);   // length prefix and the bytes
std::string frame(std::string_view body);  // the 4-byte total length, then the body
// Fixed-size values of a data message, in the host's own byte order.
template <typename T>
std::string raw(std::initializer_list<T> values) {
  std::string out;
  for (T v : values) out.append(reinterpret_cast<const char*>(&v), sizeof v);
  return out;
}

// Whole messages of a server's answer.
struct Column {
  std::string name, ltype, ptype;
  uint32_t isconst = 0;
};
std::string ack(int32_t vector_size, const std::vector<Column>& columns);
std::string data(int32_t rows, std::string_view blocks = "");
std::string error_record(int32_t code, const std::vector<std::string>& params);

// Puts `body` into `nb` as a received message ready to parse (NETBUF_PARSING, pos 4), without a
// socket. Allocates the data area when nb->data is null; release it with NetBufferClose.
void hold_message(NetBuffer* nb, std::string_view body);

class ScriptedPeer {
 public:
  struct Options {
    size_t chunk = 0;  // bytes per send call; 0 sends each step's bytes in one go
    int pause_us = 0;  // pause after each chunk, so the receiver sees partial data
    // Where to listen, IPv4 in network byte order; 0 is 127.0.0.1. Keep it inside 127.0.0.0/8.
    uint32_t address = 0;
  };
  static constexpr int64_t kStepTimeoutUs = 10'000'000;

  ScriptedPeer() : ScriptedPeer(Options{}) {}
  explicit ScriptedPeer(Options options);
  ~ScriptedPeer();  // joins the thread and closes every socket it still holds
  ScriptedPeer(const ScriptedPeer&) = delete;
  ScriptedPeer& operator=(const ScriptedPeer&) = delete;

  uint16_t port() const { return port_; }

  // Script steps, queued before start() and played in order after the connection is accepted.
  ScriptedPeer& send(std::string bytes);
  ScriptedPeer& read_frame();   // reads one whole frame (header included) into frames()
  ScriptedPeer& read_to_end();  // reads until the client closes; the bytes go to received()
  ScriptedPeer& wait_us(int microseconds);
  ScriptedPeer& close();  // orderly end (the client reads end-of-stream)
  ScriptedPeer& reset();  // abortive end (the client sees a connection reset)
  // Runs `step` (false fails the script), for a wait on something outside the connection.
  ScriptedPeer& then(std::function<bool()> step);

  // Starts the thread. A script without close() or reset() closes orderly at its end.
  void start();
  // Waits for the thread; true when every step succeeded.
  bool join();
  // A socket connected to this peer (owned by the caller), or -1.
  int32_t connect_client() const;

  // What the steps read; look after join().
  const std::vector<std::string>& frames() const { return frames_; }
  const std::string& received() const { return received_; }

 private:
  Options options_;
  int32_t listener_ = -1;
  uint16_t port_ = 0;
  // A step may end the connection by setting the socket to -1.
  std::vector<std::function<bool(int32_t& socket)>> steps_;
  std::thread thread_;
  bool ok_ = false;
  std::vector<std::string> frames_;
  std::string received_;
};

}  // namespace kest_test
