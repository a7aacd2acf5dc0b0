#include "utils/netbuffer.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/scripted_peer.h"
#include "utils/netbuffer_socket.h"

using kest_test::be32;
using kest_test::be64;
using kest_test::frame;
using kest_test::ScriptedPeer;
using kest_test::var;
using testing::HasSubstr;

namespace {

// A NetBuffer building in memory without a socket, or on a socket connected to a scripted peer.
struct Buffer {
  NetBuffer nb{};
  Buffer() {
    kest_test::hold_message(&nb, "");
    NetBufferClear(&nb);
  }
  explicit Buffer(const ScriptedPeer& peer) { NetBufferInit(&nb, peer.connect_client()); }
  ~Buffer() { NetBufferClose(&nb); }
  std::string body() const { return std::string(nb.data + 4, nb.data + nb.pos); }
  // Hands the built fields to the reader side, as a receive of them would.
  void to_parsing() {
    nb.used = nb.pos;
    nb.pos = 4;
    nb.state = NETBUF_PARSING;
  }
};

std::string letters(size_t n) {
  std::string s(n, '\0');
  for (size_t i = 0; i < n; ++i) s[i] = static_cast<char>('a' + i % 26);
  return s;
}

void put_var(NetBuffer* nb, const std::string& bytes) {
  NetBufferPutVar(nb, bytes.data(), static_cast<int32_t>(bytes.size()));
}

std::string get_var(NetBuffer* nb) {
  std::string got(static_cast<size_t>(NetBufferGetLen(nb)), '?');
  NetBufferGetVar(nb, got.data());
  return got;
}

TEST(NetBufferWire, EveryFieldKindEncodesToItsGoldenBytes) {
  const struct {
    void (*put)(NetBuffer*);
    std::string bytes;
  } cases[] = {
      {[](NetBuffer* b) { NetBufferPutInt(b, 0x01020304u); }, "\x01\x02\x03\x04"},
      {[](NetBuffer* b) { NetBufferPutSlng(b, -2); }, "\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFE"},
      {[](NetBuffer* b) { NetBufferPut(b, "a\0b", 3); }, std::string("a\0b", 3)},
      {[](NetBuffer* b) { NetBufferPutStr(b, "abc"); },
       "\x03"
       "abc"},
      {[](NetBuffer* b) { NetBufferPutStr(b, ""); }, std::string(1, '\0')},
      // The length prefix of a var: one byte below 255, else 255 bytes adding up to the length.
      {[](NetBuffer* b) { put_var(b, letters(254)); }, "\xFE" + letters(254)},
      {[](NetBuffer* b) { put_var(b, letters(255)); }, std::string("\xFF\x00", 2) + letters(255)},
      {[](NetBuffer* b) { put_var(b, letters(510)); },
       std::string("\xFF\xFF\x00", 3) + letters(510)},
      {[](NetBuffer* b) { put_var(b, letters(600)); }, "\xFF\xFF\x5A" + letters(600)},
  };
  for (size_t i = 0; i < std::size(cases); ++i) {
    Buffer m;
    cases[i].put(&m.nb);
    EXPECT_EQ(m.body(), cases[i].bytes) << "case " << i;
  }
}

// Texts read in one pass, copied end to end or terminated where they lie in the message, are
// what GetStr reads one by one, and the field after them is untouched; also across the growth of
// the data area past its first mebibyte.
TEST(NetBufferWire, StrsCopiedOrInPlaceReadWhatGetStrReads) {
  Buffer m;
  const std::vector<int32_t> lengths = {3, 0, 254, 255, 509, 510, 600, 1, NETBUF_INITIAL_SIZE};
  NetBufferPutSlng(&m.nb, INT64_MIN);
  for (int32_t len : lengths) put_var(&m.nb, letters(len));
  NetBufferPutInt(&m.nb, 0xDEADBEEFu);
  m.to_parsing();
  EXPECT_EQ(NetBufferGetSlng(&m.nb), INT64_MIN);
  const int32_t texts_at = m.nb.pos;
  std::vector<char> dest(static_cast<size_t>(m.nb.used - m.nb.pos) + lengths.size(), '#');
  std::vector<char*> starts(lengths.size()), in_place(lengths.size());
  NetBufferGetStrs(&m.nb, static_cast<int64_t>(lengths.size()), dest.data(), starts.data());
  EXPECT_EQ(NetBufferGetInt(&m.nb), 0xDEADBEEFu) << "the field after the copied texts";
  EXPECT_EQ(m.nb.pos, m.nb.used);

  m.nb.pos = texts_at;
  char* expected_start = dest.data();
  for (size_t j = 0; j < lengths.size(); ++j) {
    SCOPED_TRACE("text of " + std::to_string(lengths[j]));
    EXPECT_EQ(starts[j], expected_start) << "texts lie end to end";
    expected_start += lengths[j] + 1;
    const int32_t before = m.nb.pos;
    ASSERT_EQ(NetBufferGetLen(&m.nb), lengths[j]);
    EXPECT_EQ(m.nb.pos, before) << "GetLen must not consume";
    std::string one(static_cast<size_t>(lengths[j]) + 1, '#');
    ASSERT_EQ(NetBufferGetStr(&m.nb, one.data()), lengths[j]);
    EXPECT_TRUE(std::string(starts[j]) == letters(lengths[j]));
    EXPECT_TRUE(one.c_str() == letters(lengths[j])) << "GetStr ends the text";
  }

  m.nb.pos = texts_at;
  NetBufferGetStrsInPlace(&m.nb, static_cast<int64_t>(lengths.size()), in_place.data());
  EXPECT_EQ(NetBufferGetInt(&m.nb), 0xDEADBEEFu) << "the field after the texts ended in place";
  for (size_t j = 0; j < lengths.size(); ++j) {
    EXPECT_TRUE(in_place[j] >= m.nb.data && in_place[j] < m.nb.data + m.nb.used) << j;
    EXPECT_TRUE(std::string(in_place[j]) == letters(lengths[j])) << j;
  }
}

TEST(NetBufferDeathTest, ReadingPastTheMessageOrInTheWrongStateEndsTheProcess) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const struct {
    std::string body;  // the held message
    void (*call)(NetBuffer*);
    const char* text;  // the assertion text, as a regular expression
  } cases[] = {
      {"\x01\x02\x03", [](NetBuffer* b) { NetBufferGetInt(b); }, "buf->pos \\+ len <= buf->used"},
      {"\xFF\xFF", [](NetBuffer* b) { NetBufferGetLen(b); }, "pos \\+ len <= buf->used"},
      {"\x01"
       "a\x04"
       "abc",  // four bytes announced, three left
       [](NetBuffer* b) {
         char dest[16];
         char* starts[2];
         NetBufferGetStrs(b, 2, dest, starts);
       },
       "pos \\+ len <= buf->used"},
      {"", [](NetBuffer* b) { NetBufferPutInt(b, 1); }, "buf && buf->state == NETBUF_BUILDING"},
      {"",
       [](NetBuffer* b) {
         NetBufferClear(b);
         NetBufferGetInt(b);
       },
       "buf && buf->state == NETBUF_PARSING"},
      {"", [](NetBuffer*) { NetBufferInit(nullptr, -1); }, "buf"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.text);
    NetBuffer nb{};
    kest_test::hold_message(&nb, c.body);
    EXPECT_DEATH(c.call(&nb), std::string("NETBUFFER:assertion \"") + c.text + "\" failed");
    NetBufferClose(&nb);
  }
}

// ---- From bytes, without a socket ----

// A buffer with no socket, loaded from `bytes` frame after frame until a load returns other than
// 1; what each frame held is its body.
struct Loaded {
  std::vector<std::string> bodies;
  int last = 0;          // the load that stopped the loop
  int64_t consumed = 0;  // by all loads together
  int32_t size = 0;      // of the data area afterwards
  std::string log;       // what the loads logged
  NetBufState state{};   // afterwards
};

Loaded load_all(const std::string& bytes) {
  Loaded out;
  NetBuffer nb{};
  NetBufferInit(&nb, kNetNoSocket);
  testing::internal::CaptureStderr();
  for (;;) {
    int64_t consumed = -7;
    out.last = NetBufferLoad(&nb, bytes.data() + out.consumed,
                             static_cast<int64_t>(bytes.size()) - out.consumed, &consumed);
    if (out.last != 1) {
      EXPECT_EQ(consumed, 0) << "a load that loads nothing consumes nothing";
      break;
    }
    EXPECT_EQ(nb.pos, 4) << "parsing starts at the first field";
    EXPECT_EQ(nb.used, consumed) << "the whole frame is held";
    out.bodies.emplace_back(nb.data + 4, nb.data + nb.used);
    out.consumed += consumed;
  }
  out.log = testing::internal::GetCapturedStderr();
  out.size = nb.size;
  out.state = static_cast<NetBufState>(nb.state);
  NetBufferClose(&nb);
  return out;
}

TEST(NetBufferLoad, LoadsWholeFramesAndWaitsForPartialOnes) {
  const std::string one = frame(be32(7) + var("abc"));
  const std::string big = frame(var(letters(NETBUF_INITIAL_SIZE + 9)));  // grows the data area
  const struct {
    const char* name;
    std::string bytes;
    std::vector<std::string> bodies;  // of the frames loaded
    int last;                         // the load after them
  } cases[] = {
      {"nothing", "", {}, 0},
      {"a whole frame", one, {be32(7) + var("abc")}, 0},
      {"a frame of the header alone", be32(4), {""}, 0},
      {"a partial header", one.substr(0, 3), {}, 0},
      {"a partial body", one.substr(0, one.size() - 1), {}, 0},
      {"two frames back to back", frame(be32(1)) + frame(be32(2)), {be32(1), be32(2)}, 0},
      {"a frame, then the start of the next", one + one.substr(0, 5), {be32(7) + var("abc")}, 0},
      {"a frame past the first data area", big, {big.substr(4)}, 0},
      // The largest length allowed is only waited for; nothing is allocated for it.
      {"the cap announced, a few bytes there", be32(NETBUF_MAX_FRAME) + "abc", {}, 0},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const Loaded got = load_all(c.bytes);
    EXPECT_TRUE(got.bodies == c.bodies);
    EXPECT_EQ(got.last, c.last);
    EXPECT_EQ(got.state, NETBUF_RECEIVING) << "the load that found no frame holds no message";
    EXPECT_EQ(got.log, "");
    if (c.bodies.empty()) {
      EXPECT_EQ(got.size, NETBUF_INITIAL_SIZE) << "a partial frame allocates nothing";
    }
  }
}

// Refused as NetBufferRecv refuses it: at once, whatever follows, and before any allocation.
TEST(NetBufferLoad, LengthOutsideTheFrameLimitsIsRefused) {
  const uint32_t lengths[] = {0, 1, 2, 3, NETBUF_MAX_FRAME + 1u, 0xFFFFFFFFu};
  for (uint32_t length : lengths) {
    SCOPED_TRACE(length);
    const Loaded got = load_all(frame(be32(9)) + be32(length) + "abcdefgh");
    EXPECT_EQ(got.bodies.size(), 1u) << "the frame before it loads";
    EXPECT_EQ(got.last, -1);
    EXPECT_THAT(got.log, HasSubstr("Invalid message length " + std::to_string(length) +
                                   " (allowed 4 to 1073741824)"));
    EXPECT_EQ(got.size, NETBUF_INITIAL_SIZE);
  }
}

TEST(NetBufferLoad, ResetBufferLoadsNothing) {
  NetBuffer nb{};
  NetBufferInit(&nb, kNetNoSocket);
  nb.state = NETBUF_RESET;
  int64_t consumed = -1;
  const std::string bytes = frame(be32(1));
  EXPECT_EQ(NetBufferLoad(&nb, bytes.data(), static_cast<int64_t>(bytes.size()), &consumed), 0);
  EXPECT_EQ(consumed, 0);
  EXPECT_EQ(nb.state, NETBUF_RESET);
  NetBufferClose(&nb);
}

// ---- Over a real socket ----

TEST(NetBufferRecv, AssemblesTheMessageHoweverItArrives) {
  const struct {
    ScriptedPeer::Options options;
    size_t text_len;
  } cases[] = {{{7, 50}, 300}, {{1, 20}, 40}, {{NETBUF_CHUNK, 0}, 3 * NETBUF_INITIAL_SIZE}};
  for (const auto& d : cases) {
    SCOPED_TRACE(d.text_len);
    const std::string text = letters(d.text_len);
    ScriptedPeer peer(d.options);
    peer.send(frame(be32(7) + var(text) + be64(-3)));
    peer.start();
    Buffer c(peer);
    ASSERT_EQ(NetBufferRecv(&c.nb), 1);
    EXPECT_EQ(NetBufferGetInt(&c.nb), 7u);
    EXPECT_TRUE(get_var(&c.nb) == text);
    EXPECT_EQ(NetBufferGetSlng(&c.nb), -3);
    EXPECT_EQ(c.nb.pos, c.nb.used);
    EXPECT_TRUE(peer.join());
  }
}

// The data area holds one frame: it is sized afresh for a frame that does not fit, and given
// back when a frame needs a quarter of an area over 16 MiB, so a huge answer does not stay
// resident for the rest of the connection.
TEST(NetBufferRecv, AreaFollowsTheFramesItHolds) {
  const struct {
    size_t text_len;
    int32_t size;  // of the area after the frame
  } frames[] = {{10, NETBUF_INITIAL_SIZE}, {3 << 20, 4 << 20},
                {1 << 20, 4 << 20},                               // small areas are kept
                {40 << 20, 64 << 20},      {20 << 20, 64 << 20},  // more than a quarter: kept
                {10, NETBUF_INITIAL_SIZE}};
  ScriptedPeer peer;
  for (const auto& f : frames) peer.send(frame(be32(7) + var(letters(f.text_len))));
  peer.start();
  Buffer c(peer);
  for (const auto& f : frames) {
    SCOPED_TRACE(f.text_len);
    ASSERT_EQ(NetBufferRecv(&c.nb), 1);
    EXPECT_EQ(c.nb.size, f.size);
    EXPECT_EQ(NetBufferGetInt(&c.nb), 7u);
    EXPECT_TRUE(get_var(&c.nb) == letters(f.text_len));
  }
  EXPECT_TRUE(peer.join());
}

// One recv takes whatever has arrived, up to a chunk: frames that come together are read ahead
// and handed out one by one, also across a message the client builds and sends in between.
TEST(NetBufferRecvAhead, FramesThatArriveTogetherAreHandedOutOneByOne) {
  const std::string big = letters(3 * NETBUF_CHUNK + 5);
  ScriptedPeer peer;
  peer.send(frame(be32(1)) + frame(be32(2)))  // one send: one segment on loopback
      .read_frame()
      .send(frame(var(big)) + frame(be32(4)))
      .close();
  peer.start();
  Buffer c(peer);
  ASSERT_EQ(NetBufferRecv(&c.nb), 1);
  EXPECT_EQ(NetBufferGetInt(&c.nb), 1u);
  EXPECT_TRUE(NetBufferFrameReady(&c.nb));
  // Sent in between: a message of several chunks, the frame length then the fields.
  NetBufferClear(&c.nb);
  NetBufferPutStr(&c.nb, "Array([i=0])");
  put_var(&c.nb, big);
  NetBufferPutSlng(&c.nb, 42);
  ASSERT_EQ(NetBufferSend(&c.nb), 0);
  ASSERT_EQ(NetBufferTimedRecv(&c.nb, 0), 1) << "a frame read ahead needs no wait";
  EXPECT_EQ(NetBufferGetInt(&c.nb), 2u);
  EXPECT_FALSE(NetBufferFrameReady(&c.nb));
  ASSERT_EQ(NetBufferRecv(&c.nb), 1);
  EXPECT_TRUE(get_var(&c.nb) == big) << "a frame longer than a chunk, begun in the read-ahead area";
  ASSERT_EQ(NetBufferRecv(&c.nb), 1);
  EXPECT_EQ(NetBufferGetInt(&c.nb), 4u);
  testing::internal::CaptureStderr();
  EXPECT_EQ(NetBufferRecv(&c.nb), 0);
  testing::internal::GetCapturedStderr();
  EXPECT_TRUE(peer.join());
  EXPECT_TRUE(peer.frames() == std::vector({frame(var("Array([i=0])") + var(big) + be64(42))}));
}

TEST(NetBufferRecv, PeerThatGoesAwayIsReportedNotFatal) {
  const struct {
    std::string sent;  // what the peer sends before it closes
    int expected;
    const char* log;
  } cases[] = {
      {"", 0, "Client closed connection"},
      {std::string("\0\0", 2), 0, "Client closed connection"},
      {be32(12) + "abc", -1, "Remote socket closed while receiving"},
      {be32(3) + "abcdefgh", -1, "Invalid message length 3"},
      {be32(NETBUF_MAX_FRAME + 1u), -1, "Invalid message length 1073741825"},
      {be32(0xFFFFFFFFu), -1, "Invalid message length 4294967295"},
  };
  for (const auto& e : cases) {
    SCOPED_TRACE(e.log);
    ScriptedPeer peer;
    peer.send(e.sent).close();
    peer.start();
    Buffer c(peer);
    testing::internal::CaptureStderr();
    EXPECT_EQ(NetBufferRecv(&c.nb), e.expected);
    EXPECT_THAT(testing::internal::GetCapturedStderr(), HasSubstr(e.log));
    EXPECT_EQ(c.nb.size, NETBUF_INITIAL_SIZE) << "a refused length allocates nothing";
    EXPECT_TRUE(peer.join());
  }
}

TEST(NetBufferReset, ResetIsStickyAndRefusesFurtherSends) {
  ScriptedPeer peer;
  peer.read_frame().reset();  // answers a request with a reset
  peer.start();
  Buffer c(peer);
  NetBufferPutInt(&c.nb, 1);
  ASSERT_EQ(NetBufferSend(&c.nb), 0);
  testing::internal::CaptureStderr();
  EXPECT_EQ(NetBufferRecv(&c.nb), 0);
  if (c.nb.state != NETBUF_RESET) {
    testing::internal::GetCapturedStderr();
    EXPECT_TRUE(peer.join());
    GTEST_SKIP() << "the socket layer reported the peer's reset as an orderly close (as wine may)";
  }
  NetBufferClear(&c.nb);
  EXPECT_EQ(c.nb.state, NETBUF_RESET) << "a clear keeps the reset state";
  NetBufferPutInt(&c.nb, 1);
  NetBufferPutSlng(&c.nb, 1);
  NetBufferPutStr(&c.nb, "ignored");
  NetBufferPut(&c.nb, "x", 1);
  EXPECT_EQ(c.nb.pos, 4) << "puts after a reset write nothing";
  EXPECT_EQ(NetBufferSend(&c.nb), -1);
  EXPECT_EQ(NetBufferRecv(&c.nb), 0);
  EXPECT_EQ(c.nb.state, NETBUF_RESET) << "only a new NetBufferInit leaves the reset state";
  const std::string log = testing::internal::GetCapturedStderr();
  EXPECT_THAT(log, HasSubstr("Client closed connection"));
  EXPECT_THAT(log, HasSubstr("Not sending data, connection was reset before."));
  EXPECT_TRUE(peer.join());
}

TEST(NetBufferReset, SendingToAGonePeerFailsWithoutASignal) {
  ScriptedPeer peer;
  peer.close();
  peer.start();
  Buffer c(peer);
  ASSERT_EQ(net_wait_readable(c.nb.socket, ScriptedPeer::kStepTimeoutUs), 1);  // peer's end seen
  const std::string big = letters(4 * NETBUF_CHUNK);
  testing::internal::CaptureStderr();
  int result = 0;
  // The first send may still be taken by the kernel; the peer's reset then fails the next.
  for (int attempt = 0; attempt < 50 && result == 0; ++attempt) {
    NetBufferClear(&c.nb);
    put_var(&c.nb, big);
    result = NetBufferSend(&c.nb);
  }
  // A raw send on the broken socket must not raise SIGPIPE either.
  EXPECT_EQ(net_send(c.nb.socket, "x", 1), -1);
  const std::string log = testing::internal::GetCapturedStderr();
  EXPECT_EQ(result, -1);
  EXPECT_THAT(log, HasSubstr("Error while sending: "));
  EXPECT_TRUE(peer.join());
}

TEST(NetBufferTimedRecv, TimesOutWhenNothingArrivesThenReceives) {
  ScriptedPeer peer;
  peer.wait_us(300'000).send(frame(be32(11)));
  peer.start();
  Buffer c(peer);
  EXPECT_EQ(NetBufferTimedRecv(&c.nb, 20'000), -2);
  EXPECT_EQ(NetBufferTimedRecv(&c.nb, ScriptedPeer::kStepTimeoutUs), 1);
  EXPECT_EQ(NetBufferGetInt(&c.nb), 11u);
  EXPECT_TRUE(peer.join());
}

}  // namespace
