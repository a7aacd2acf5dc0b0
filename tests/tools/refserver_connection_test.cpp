#include "tools/refserver/connection.h"

#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>

#include "kernel/ltype.h"
#include "support/scripted_peer.h"
#include "utils/netbuffer.h"
#include "utils/netbuffer_socket.h"

using kest_test::be32;
using kest_test::frame;
using kest_test::var;

namespace {

// A client socket talking to serve_connection on a thread of its own.
class Served {
 public:
  Served() {
    types_init();
    network_init();
    const int32_t listener = net_bind(net_loopback_address(), 0, true);
    client_ = net_tcp_socket();
    EXPECT_EQ(net_connect(client_, net_loopback_address(), net_local_port(listener)), 0);
    const int32_t server = net_accept(listener);
    net_close(listener);
    thread_ = std::thread([this, server] { serve_connection(server, options_, stop_); });
    NetBufferInit(&nb_, client_);
  }
  ~Served() {
    stop_ = true;
    NetBufferClose(&nb_);
    thread_.join();
  }
  Served(const Served&) = delete;
  Served& operator=(const Served&) = delete;

  NetBuffer* nb() { return &nb_; }
  bool send_raw(const std::string& bytes) {
    return net_send(client_, bytes.data(), bytes.size()) == static_cast<int64_t>(bytes.size());
  }
  // Receives one message, waiting ten seconds at most, and returns its status and row count (or
  // column count for an acknowledgement).
  std::pair<uint32_t, uint32_t> next() {
    if (NetBufferTimedRecv(&nb_, 10'000'000) != 1) return {0xDEAD, 0xDEAD};
    const uint32_t status = NetBufferGetInt(&nb_);
    return {status, NetBufferGetInt(&nb_)};
  }

 private:
  ServerOptions options_;
  std::atomic<bool> stop_{false};
  int32_t client_ = -1;
  NetBuffer nb_{};
  std::thread thread_;
};

std::string query(const std::string& text) { return frame(be32(1) + var(text) + var("")); }

using Message = std::pair<uint32_t, uint32_t>;

// A client may send its next query before the answer to the last one: queries that arrive in
// one segment are each answered, in order, and the answer to a short query arrives whole.
TEST(RefserverConnection, QueriesThatArriveTogetherAreAnsweredInOrder) {
  Served s;
  ASSERT_TRUE(s.send_raw(query("Array([i=2])") + query("Array([i=3, j=1])")));
  EXPECT_EQ(s.next(), Message(0, 1)) << "acknowledgement, one column";
  EXPECT_TRUE(NetBufferFrameReady(s.nb())) << "the data came with the acknowledgement";
  EXPECT_EQ(s.next(), Message(0, 2));
  EXPECT_EQ(s.next(), Message(0, 0)) << "end of results";
  EXPECT_EQ(s.next(), Message(0, 2)) << "acknowledgement, two columns";
  EXPECT_EQ(s.next(), Message(0, 3));
  EXPECT_EQ(s.next(), Message(0, 0));
}

}  // namespace
