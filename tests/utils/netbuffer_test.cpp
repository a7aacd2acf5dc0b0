#include "utils/netbuffer.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "support/scripted_peer.h"
#include "utils/netbuffer_socket.h"

using kest_test::be32;
using kest_test::be64;
using kest_test::frame;
using kest_test::ScriptedPeer;
using testing::HasSubstr;

namespace {

// A buffer without a socket, for building and parsing in memory.
struct MemBuffer {
  NetBuffer nb{};
  MemBuffer() {
    nb.socket = -1;
    nb.state = NETBUF_BUILDING;
    nb.pos = 4;
    nb.size = NETBUF_INITIAL_SIZE;
    nb.data = static_cast<char*>(calloc(1, NETBUF_INITIAL_SIZE));
  }
  ~MemBuffer() { NetBufferClose(&nb); }
  std::string body() const { return std::string(nb.data + 4, nb.data + nb.pos); }
  // Hands the built fields to the reader side, as a receive of them would.
  void to_parsing() {
    nb.used = nb.pos;
    nb.pos = 4;
    nb.state = NETBUF_PARSING;
  }
};

// A NetBuffer on a socket connected to a scripted peer.
struct Connected {
  NetBuffer nb{};
  explicit Connected(const ScriptedPeer& peer) { NetBufferInit(&nb, peer.connect_client()); }
  ~Connected() { NetBufferClose(&nb); }
};

std::string letters(size_t n) {
  std::string s(n, '\0');
  for (size_t i = 0; i < n; ++i) s[i] = static_cast<char>('a' + i % 26);
  return s;
}

struct FieldGolden {
  const char* name;
  void (*put)(NetBuffer*);
  std::string bytes;
};

TEST(NetBufferWire, EveryFieldKindEncodesToItsGoldenBytes) {
  const std::string s254 = letters(254), s255 = letters(255), s510 = letters(510),
                    s600 = letters(600);
  const std::vector<FieldGolden> cases = {
      {"int", [](NetBuffer* b) { NetBufferPutInt(b, 0x01020304u); }, "\x01\x02\x03\x04"},
      {"int -1", [](NetBuffer* b) { NetBufferPutInt(b, 0xFFFFFFFFu); }, "\xFF\xFF\xFF\xFF"},
      {"slng", [](NetBuffer* b) { NetBufferPutSlng(b, 0x0102030405060708); },
       "\x01\x02\x03\x04\x05\x06\x07\x08"},
      {"slng -2", [](NetBuffer* b) { NetBufferPutSlng(b, -2); },
       "\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFE"},
      {"raw", [](NetBuffer* b) { NetBufferPut(b, "a\0b", 3); }, std::string("a\0b", 3)},
      {"str", [](NetBuffer* b) { NetBufferPutStr(b, "abc"); },
       "\x03"
       "abc"},
      {"empty str", [](NetBuffer* b) { NetBufferPutStr(b, ""); }, std::string(1, '\0')},
      {"var 0", [](NetBuffer* b) { NetBufferPutVar(b, "x", 0); }, std::string(1, '\0')},
  };
  for (const auto& c : cases) {
    MemBuffer m;
    c.put(&m.nb);
    EXPECT_EQ(m.body(), c.bytes) << c.name;
  }
  const struct {
    const std::string* text;
    std::string prefix;
  } vars[] = {{&s254, "\xFE"},
              {&s255, std::string("\xFF\x00", 2)},
              {&s510, std::string("\xFF\xFF\x00", 3)},
              {&s600, "\xFF\xFF\x5A"}};
  for (const auto& v : vars) {
    MemBuffer m;
    NetBufferPutVar(&m.nb, v.text->data(), static_cast<int32_t>(v.text->size()));
    EXPECT_EQ(m.body(), v.prefix + *v.text) << "var of " << v.text->size();
  }
}

TEST(NetBufferWire, FieldsReadBackInOrder) {
  MemBuffer m;
  const std::vector<int32_t> lengths = {0, 1, 254, 255, 256, 509, 510, 600, 70000};
  NetBufferPutInt(&m.nb, 0xDEADBEEFu);
  NetBufferPutSlng(&m.nb, INT64_MIN);
  NetBufferPutSlng(&m.nb, -1);
  for (int32_t len : lengths) NetBufferPutVar(&m.nb, letters(len).data(), len);
  NetBufferPutStr(&m.nb, "tail");
  m.to_parsing();

  EXPECT_EQ(NetBufferGetInt(&m.nb), 0xDEADBEEFu);
  EXPECT_EQ(NetBufferGetSlng(&m.nb), INT64_MIN);
  EXPECT_EQ(NetBufferGetSlng(&m.nb), -1);
  for (int32_t len : lengths) {
    const int32_t before = m.nb.pos;
    ASSERT_EQ(NetBufferGetLen(&m.nb), len);
    EXPECT_EQ(m.nb.pos, before) << "GetLen must not consume";
    std::string got(static_cast<size_t>(len), '?');
    ASSERT_EQ(NetBufferGetVar(&m.nb, got.data()), len);
    EXPECT_EQ(got, letters(len));
  }
  char text[8];
  std::memset(text, '#', sizeof text);
  EXPECT_EQ(NetBufferGetStr(&m.nb, text), 4);
  EXPECT_STREQ(text, "tail");
  EXPECT_EQ(m.nb.pos, m.nb.used);
}

TEST(NetBufferWire, StrsInOnePassReadWhatGetStrReads) {
  MemBuffer m;
  const std::vector<int32_t> lengths = {3, 0, 254, 255, 600, 1};
  for (int32_t len : lengths) NetBufferPutVar(&m.nb, letters(len).data(), len);
  NetBufferPutInt(&m.nb, 7);
  m.to_parsing();
  std::vector<char> dest(static_cast<size_t>(m.nb.used - m.nb.pos) + lengths.size(), '#');
  std::vector<char*> starts(lengths.size());
  NetBufferGetStrs(&m.nb, static_cast<int64_t>(lengths.size()), dest.data(), starts.data());
  char* expected_start = dest.data();
  for (size_t j = 0; j < lengths.size(); ++j) {
    EXPECT_EQ(starts[j], expected_start) << "texts lie end to end";
    EXPECT_EQ(std::string(starts[j]), letters(lengths[j])) << "text " << j;
    expected_start += lengths[j] + 1;
  }
  EXPECT_EQ(NetBufferGetInt(&m.nb), 7u) << "the field after the texts";
}

TEST(NetBufferGrowth, DoublesFromOneMebibyteAndKeepsWhatWasBuilt) {
  MemBuffer m;
  const std::string big = letters(NETBUF_INITIAL_SIZE);  // + 4 header + 4 prefix: just over 1 MiB
  NetBufferPutVar(&m.nb, big.data(), static_cast<int32_t>(big.size()));
  EXPECT_EQ(m.nb.size, 2 * NETBUF_INITIAL_SIZE);
  NetBufferPutVar(&m.nb, big.data(), static_cast<int32_t>(big.size()));
  NetBufferPutVar(&m.nb, big.data(), static_cast<int32_t>(big.size()));
  EXPECT_EQ(m.nb.size, 4 * NETBUF_INITIAL_SIZE);
  m.to_parsing();
  std::string got(big.size(), '\0');
  for (int i = 0; i < 3; ++i) {
    ASSERT_EQ(NetBufferGetVar(&m.nb, got.data()), static_cast<int64_t>(big.size()));
    ASSERT_EQ(got, big) << "var " << i;
  }
}

TEST(NetBufferState, ClearStartsANewMessageButKeepsReset) {
  MemBuffer m;
  NetBufferPutInt(&m.nb, 5);
  m.to_parsing();
  NetBufferClear(&m.nb);
  EXPECT_EQ(m.nb.state, NETBUF_BUILDING);
  EXPECT_EQ(m.nb.pos, 4);
  EXPECT_EQ(m.nb.used, 0);

  m.nb.state = NETBUF_RESET;
  NetBufferClear(&m.nb);
  EXPECT_EQ(m.nb.state, NETBUF_RESET);
  NetBufferPutInt(&m.nb, 1);
  NetBufferPutSlng(&m.nb, 1);
  NetBufferPutStr(&m.nb, "ignored");
  NetBufferPut(&m.nb, "x", 1);
  EXPECT_EQ(m.nb.pos, 4) << "puts after a reset write nothing";
}

TEST(NetBufferState, EmptyMessageParsesFromPositionFour) {
  ScriptedPeer peer;
  peer.send(be32(4) + frame(be32(9)));
  peer.start();
  Connected c(peer);
  ASSERT_EQ(NetBufferRecv(&c.nb), 1);
  EXPECT_EQ(c.nb.state, NETBUF_PARSING);
  EXPECT_EQ(c.nb.pos, 4);
  EXPECT_EQ(c.nb.used, 4);
  // The next frame follows without a clear in between.
  ASSERT_EQ(NetBufferRecv(&c.nb), 1);
  EXPECT_EQ(NetBufferGetInt(&c.nb), 9u);
  EXPECT_TRUE(peer.join());
}

struct DeathCase {
  const char* name;
  const char* body;  // the held message
  size_t body_len;
  void (*read)(NetBuffer*);
  const char* text;  // the assertion text, as a regular expression
};

class NetBufferDeathTest : public testing::TestWithParam<DeathCase> {};

TEST_P(NetBufferDeathTest, ReadingPastTheMessageEndsTheProcess) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const DeathCase& c = GetParam();
  MemBuffer m;
  kest_test::hold_message(&m.nb, std::string_view(c.body, c.body_len));
  EXPECT_DEATH(c.read(&m.nb), std::string("NETBUFFER:assertion \"") + c.text + "\" failed");
}

const DeathCase kDeathCases[] = {
    {"IntWithThreeBytesLeft", "\x01\x02\x03", 3, [](NetBuffer* b) { NetBufferGetInt(b); },
     "buf->pos \\+ len <= buf->used"},
    {"SlngWithSevenBytesLeft", "1234567", 7, [](NetBuffer* b) { NetBufferGetSlng(b); },
     "buf->pos \\+ len <= buf->used"},
    {"IntOnEmptyMessage", "", 0, [](NetBuffer* b) { NetBufferGetInt(b); },
     "buf->pos \\+ len <= buf->used"},
    {"LenBeyondEnd",
     "\x05"
     "abc",
     4, [](NetBuffer* b) { NetBufferGetLen(b); }, "pos \\+ len <= buf->used"},
    {"LenPrefixCutShort", "\xFF\xFF", 2, [](NetBuffer* b) { NetBufferGetLen(b); },
     "pos \\+ len <= buf->used"},
    {"VarBeyondEnd",
     "\x05"
     "abc",
     4,
     [](NetBuffer* b) {
       char dest[8];
       NetBufferGetVar(b, dest);
     },
     "pos \\+ len <= buf->used"},
    {"StrsBeyondEnd",
     "\x01"
     "a\x05"
     "abc",
     6,
     [](NetBuffer* b) {
       char dest[16];
       char* starts[2];
       NetBufferGetStrs(b, 2, dest, starts);
     },
     "pos \\+ len <= buf->used"},
    {"PutWhileParsing", "", 0, [](NetBuffer* b) { NetBufferPutInt(b, 1); },
     "buf && buf->state == NETBUF_BUILDING"},
    {"GetWhileBuilding", "", 0,
     [](NetBuffer* b) {
       NetBufferClear(b);
       NetBufferGetInt(b);
     },
     "buf && buf->state == NETBUF_PARSING"},
};

INSTANTIATE_TEST_SUITE_P(Fields, NetBufferDeathTest, testing::ValuesIn(kDeathCases),
                         [](const auto& info) { return std::string(info.param.name); });

TEST(NetBufferInitDeathTest, NullRecordIsAnAssertion) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(NetBufferInit(nullptr, -1), "NETBUFFER:assertion \"buf\" failed");
}

// ---- Over a real socket ----

TEST(NetBufferSend, FrameOnTheWireIsTheLengthThenTheFields) {
  ScriptedPeer peer;
  peer.read_frame().read_frame();
  peer.start();
  Connected c(peer);
  NetBufferPutInt(&c.nb, 1);
  NetBufferPutStr(&c.nb, "Array([i=0])");
  NetBufferPutStr(&c.nb, "");
  ASSERT_EQ(NetBufferSend(&c.nb), 0);
  EXPECT_EQ(c.nb.state, NETBUF_SENDING);
  // A message of several chunks, sent after a clear on the same buffer.
  const std::string big = letters(3 * NETBUF_CHUNK + 17);
  NetBufferClear(&c.nb);
  NetBufferPutVar(&c.nb, big.data(), static_cast<int32_t>(big.size()));
  NetBufferPutSlng(&c.nb, 42);
  ASSERT_EQ(NetBufferSend(&c.nb), 0);
  ASSERT_TRUE(peer.join());
  const auto frames = peer.frames();
  ASSERT_EQ(frames.size(), 2u);
  EXPECT_EQ(frames[0], frame(be32(1) +
                             "\x0c"
                             "Array([i=0])" +
                             std::string(1, '\0')));
  EXPECT_EQ(frames[1], frame(kest_test::var(big) + be64(42)));
}

struct Delivery {
  const char* name;
  ScriptedPeer::Options options;
  size_t text_len;
  int32_t area;  // the data area's size afterwards
};

class NetBufferRecvDelivery : public testing::TestWithParam<Delivery> {};

TEST_P(NetBufferRecvDelivery, AssemblesTheMessageHoweverItArrives) {
  const Delivery& d = GetParam();
  const std::string text = letters(d.text_len);
  ScriptedPeer peer(d.options);
  peer.send(frame(be32(7) + kest_test::var(text) + be64(-3)));
  peer.start();
  Connected c(peer);
  ASSERT_EQ(NetBufferRecv(&c.nb), 1);
  EXPECT_EQ(NetBufferGetInt(&c.nb), 7u);
  std::string got(static_cast<size_t>(NetBufferGetLen(&c.nb)), '\0');
  NetBufferGetVar(&c.nb, got.data());
  EXPECT_EQ(got, text);
  EXPECT_EQ(NetBufferGetSlng(&c.nb), -3);
  EXPECT_EQ(c.nb.pos, c.nb.used);
  EXPECT_EQ(c.nb.size, d.area);
  EXPECT_TRUE(peer.join());
}

INSTANTIATE_TEST_SUITE_P(Chunking, NetBufferRecvDelivery,
                         testing::Values(Delivery{"Whole", {}, 300, NETBUF_INITIAL_SIZE},
                                         Delivery{
                                             "SevenByteChunks", {7, 50}, 300, NETBUF_INITIAL_SIZE},
                                         Delivery{"OneByteDrip", {1, 20}, 40, NETBUF_INITIAL_SIZE},
                                         Delivery{"LargerThanTheArea",
                                                  {NETBUF_CHUNK, 0},
                                                  3 * NETBUF_INITIAL_SIZE,
                                                  4 * NETBUF_INITIAL_SIZE}),
                         [](const auto& info) { return std::string(info.param.name); });

// One recv takes whatever has arrived, up to a chunk: frames that come together are read ahead
// and handed out one by one, also across a message the client builds and sends in between.
TEST(NetBufferRecvAhead, FramesThatArriveTogetherAreHandedOutOneByOne) {
  const std::string big = letters(3 * NETBUF_CHUNK + 5);
  ScriptedPeer peer;
  peer.send(frame(be32(1)) + frame(be32(2)))  // one send: one segment on loopback
      .read_frame()
      .send(frame(kest_test::var(big)) + frame(be32(4)))
      .close();
  peer.start();
  Connected c(peer);
  ASSERT_EQ(NetBufferRecv(&c.nb), 1);
  EXPECT_EQ(NetBufferGetInt(&c.nb), 1u);
  EXPECT_TRUE(NetBufferFrameReady(&c.nb));
  NetBufferClear(&c.nb);
  NetBufferPutInt(&c.nb, 9);
  ASSERT_EQ(NetBufferSend(&c.nb), 0);
  ASSERT_EQ(NetBufferTimedRecv(&c.nb, 0), 1) << "a frame read ahead needs no wait";
  EXPECT_EQ(NetBufferGetInt(&c.nb), 2u);
  EXPECT_FALSE(NetBufferFrameReady(&c.nb));
  ASSERT_EQ(NetBufferRecv(&c.nb), 1);
  std::string got(static_cast<size_t>(NetBufferGetLen(&c.nb)), '\0');
  NetBufferGetVar(&c.nb, got.data());
  EXPECT_TRUE(got == big) << "a frame longer than a chunk, begun in the read-ahead area";
  ASSERT_EQ(NetBufferRecv(&c.nb), 1);
  EXPECT_EQ(NetBufferGetInt(&c.nb), 4u);
  testing::internal::CaptureStderr();
  EXPECT_EQ(NetBufferRecv(&c.nb), 0);
  testing::internal::GetCapturedStderr();
  EXPECT_TRUE(peer.join());
  ASSERT_EQ(peer.frames().size(), 1u);
  EXPECT_EQ(peer.frames()[0], frame(be32(9)));
}

struct Ending {
  const char* name;
  std::string sent;  // what the peer sends before it ends
  bool reset;
  int expected;
  const char* log;
};

class NetBufferRecvEnding : public testing::TestWithParam<Ending> {};

TEST_P(NetBufferRecvEnding, PeerThatGoesAwayIsReportedNotFatal) {
  const Ending& e = GetParam();
  ScriptedPeer peer;
  peer.send(e.sent);
  if (e.reset)
    peer.reset();
  else
    peer.close();
  peer.start();
  Connected c(peer);
  testing::internal::CaptureStderr();
  const int got = NetBufferRecv(&c.nb);
  const std::string log = testing::internal::GetCapturedStderr();
  EXPECT_EQ(got, e.expected);
  EXPECT_THAT(log, HasSubstr(e.log));
  EXPECT_EQ(c.nb.size, NETBUF_INITIAL_SIZE) << "a refused length allocates nothing";
  EXPECT_TRUE(peer.join());
}

INSTANTIATE_TEST_SUITE_P(
    Endings, NetBufferRecvEnding,
    testing::Values(
        Ending{"CloseBeforeAnything", "", false, 0, "Client closed connection"},
        Ending{"CloseInsideTheHeader", std::string("\0\0", 2), false, 0,
               "Client closed connection"},
        Ending{"CloseInsideTheBody", be32(12) + "abc", false, -1,
               "Remote socket closed while receiving"},
        Ending{"LengthBelowTheHeader", be32(3) + "abcdefgh", false, -1, "Invalid message length 3"},
        Ending{"LengthZero", be32(0), false, -1, "Invalid message length 0"},
        Ending{"LengthAboveTheCap", be32(NETBUF_MAX_FRAME + 1u), false, -1,
               "Invalid message length 1073741825"},
        Ending{"LengthAllOnes", be32(0xFFFFFFFFu), false, -1, "Invalid message length 4294967295"}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(NetBufferReset, ResetIsStickyAndRefusesFurtherSends) {
  ScriptedPeer peer;
  peer.read_frame().reset();  // answers a request with a reset
  peer.start();
  Connected c(peer);
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
  NetBufferPutInt(&c.nb, 1);
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
  Connected c(peer);
  ASSERT_EQ(net_wait_readable(c.nb.socket, ScriptedPeer::kStepTimeoutUs), 1);  // peer's end seen
  const std::string big = letters(4 * NETBUF_CHUNK);
  testing::internal::CaptureStderr();
  int result = 0;
  // The first send may still be taken by the kernel; the peer's reset then fails the next.
  for (int attempt = 0; attempt < 50 && result == 0; ++attempt) {
    NetBufferClear(&c.nb);
    NetBufferPutVar(&c.nb, big.data(), static_cast<int32_t>(big.size()));
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
  Connected c(peer);
  EXPECT_EQ(NetBufferTimedRecv(&c.nb, 20'000), -2);
  EXPECT_EQ(NetBufferTimedRecv(&c.nb, ScriptedPeer::kStepTimeoutUs), 1);
  EXPECT_EQ(NetBufferGetInt(&c.nb), 11u);
  EXPECT_TRUE(peer.join());
}

TEST(NetBufferClose, ReleasesTheSocketAndTheArea) {
  ScriptedPeer peer;
  peer.read_to_end();
  peer.start();
  NetBuffer nb{};
  NetBufferInit(&nb, peer.connect_client());
  ASSERT_NE(nb.socket, -1);
  EXPECT_EQ(nb.state, NETBUF_BUILDING);
  EXPECT_EQ(nb.pos, 4);
  EXPECT_EQ(nb.size, NETBUF_INITIAL_SIZE);
  NetBufferClose(&nb);
  EXPECT_EQ(nb.socket, -1);
  EXPECT_EQ(nb.data, nullptr);
  EXPECT_TRUE(peer.join()) << "the peer reads end-of-stream once the socket is closed";
}

}  // namespace
