// Every limit the client enforces on what a server sends (and on its key file), each at
// limit - 1, limit and limit + 1, through the built client against a scripted loopback peer.
// The README's "Limits" table lists the same limits.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <vector>

#include "reliability/hostile_client.h"
#include "tools/standalone_client/reception.h"
#include "utils/kest_error.h"
#include "utils/znconfig.h"
#include "utils/znconfig_parser.h"
#include "utils/znlog_config.h"

namespace {

using namespace kest_hostile;
using testing::HasSubstr;
using testing::Not;

class Limits : public testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(network_init(), 0); }

  // Runs one query whose answer is `reply`; the server then waits for the client to go, or
  // with `close` ends the connection itself.
  ProcessResult answer_with(const std::string& reply, bool close = false) {
    ScriptedPeer peer;
    peer.read_frame().send(reply);
    if (close)
      peer.close();
    else
      peer.read_to_end();
    ProcessResult r = run_client(peer);
    peer.join();
    EXPECT_FALSE(r.timed_out);
    return r;
  }
};

// The length field of a frame: 4 (the header alone) to NETBUF_MAX_FRAME. Outside, the client
// refuses the frame before allocating anything and fails the query. Inside, it takes the frame:
// an empty acknowledgement then fails its first read, a large one waits for a body that the
// server never sends.
TEST_F(Limits, FrameLengthLowerBound) {
  const ProcessResult below = answer_with(be32(3));
  ASSERT_TRUE(below.exited);
  EXPECT_EQ(below.status, -1);
  EXPECT_THAT(below.err, HasSubstr("Invalid message length 3 (allowed 4 to 1073741824)"));
  for (uint32_t len : {4u, 5u}) {
    const ProcessResult r = answer_with(be32(len) + std::string(len - 4, '\0'));
    EXPECT_TRUE(aborted(r)) << len;
    EXPECT_THAT(r.err, HasSubstr("assertion \"buf->pos + len <= buf->used\" failed")) << len;
    EXPECT_THAT(r.err, Not(HasSubstr("Invalid message length")));
  }
}

TEST_F(Limits, FrameLengthUpperBound) {
  static_assert(NETBUF_MAX_FRAME == 1 << 30);
  for (uint32_t len : {uint32_t{NETBUF_MAX_FRAME} - 1, uint32_t{NETBUF_MAX_FRAME}}) {
    const ProcessResult r = answer_with(be32(len), true);
    ASSERT_TRUE(r.exited) << len;
    EXPECT_EQ(r.status, -1);
    EXPECT_THAT(r.err, HasSubstr("Remote socket closed while receiving")) << len;
    EXPECT_THAT(r.err, Not(HasSubstr("Invalid message length")));
  }
  const ProcessResult above = answer_with(be32(uint32_t{NETBUF_MAX_FRAME} + 1));
  ASSERT_TRUE(above.exited);
  EXPECT_EQ(above.status, -1);
  EXPECT_THAT(above.err, HasSubstr("Invalid message length 1073741825"));
}

// A logical type text is shorter than MAX_TYPE_NAME (64) bytes.
TEST_F(Limits, LogicalTypeText) {
  static_assert(MAX_TYPE_NAME == 64);
  const std::string reply_end = data(1, std::string(4, '\1')) + data(0);
  const ProcessResult fits = answer_with(ack(4, {{"a", std::string(63, 'x'), "sint"}}) + reply_end);
  ASSERT_TRUE(fits.exited) << fits.err;
  EXPECT_EQ(fits.status, 0);
  EXPECT_THAT(fits.out, HasSubstr("(1 row)"));
  for (size_t len : {size_t{64}, size_t{65}}) {
    const ProcessResult r = answer_with(ack(4, {{"a", std::string(len, 'x'), "sint"}}));
    EXPECT_TRUE(aborted(r)) << len;
    EXPECT_THAT(r.err, HasSubstr("assertion \"NetBufferGetLen(netbuf) < MAX_TYPE_NAME\" failed"));
  }
}

// A data message carries at most the acknowledgement's vector size of rows.
TEST_F(Limits, RowsPerDataMessage) {
  constexpr int32_t kVector = 5;
  auto rows = [](int32_t n) { return data(n, std::string(size_t(n) * 4, '\0')); };
  for (int32_t n : {kVector - 1, kVector}) {
    const ProcessResult r = answer_with(ack(kVector, {{"a", "sint", "sint"}}) + rows(n) + data(0));
    ASSERT_TRUE(r.exited) << n;
    EXPECT_EQ(r.status, 0) << n;
    EXPECT_THAT(r.out, HasSubstr("(" + std::to_string(n) + " rows)"));
  }
  const ProcessResult over =
      answer_with(ack(kVector, {{"a", "sint", "sint"}}) + rows(kVector + 1) + data(0));
  ASSERT_TRUE(over.exited);
  EXPECT_EQ(over.status, -1);
  EXPECT_THAT(over.err, HasSubstr("Received more tuples than vectorsize. Aborting."));
}

// Error codes 0 .. KEST_ERROR_COUNT - 1 have a template; any other code is named as unknown.
TEST_F(Limits, ErrorCodes) {
  static_assert(KEST_ERROR_COUNT == 184);
  for (int32_t code : {KEST_ERROR_COUNT - 2, KEST_ERROR_COUNT - 1}) {
    const ProcessResult r = answer_with(error_record(code, {"a", "b", "c"}));
    ASSERT_TRUE(r.exited);
    EXPECT_EQ(r.status, -1);
    EXPECT_THAT(r.out, HasSubstr("Error: "));
    EXPECT_THAT(r.out, Not(HasSubstr("Unknown error code"))) << code;
  }
  const ProcessResult r = answer_with(error_record(KEST_ERROR_COUNT, {}));
  ASSERT_TRUE(r.exited);
  EXPECT_EQ(r.status, -1);
  EXPECT_THAT(r.out, HasSubstr("Error: Unknown error code 184 (no parameters)"));
}

// An error record's parameter count must match the parameters the frame holds.
TEST_F(Limits, ErrorParameterCount) {
  auto record = [](uint32_t count) {
    return frame(be32(0xFFFFFFFFu) + be32(100000) + be32(count) + var("a") + var("b") + var("c"));
  };
  for (uint32_t count : {2u, 3u}) {
    const ProcessResult r = answer_with(record(count));
    ASSERT_TRUE(r.exited) << count;
    EXPECT_EQ(r.status, -1);
    EXPECT_THAT(r.out,
                HasSubstr(count == 2 ? "(parameters: 'a', 'b')" : "(parameters: 'a', 'b', 'c')"));
  }
  const ProcessResult over = answer_with(record(4));
  EXPECT_TRUE(aborted(over));
  EXPECT_THAT(over.err, HasSubstr("assertion \"pos + len <= buf->used\" failed"));
}

// The authentication key is the first 64 bytes of the key file; the query carries it.
TEST_F(Limits, KeyBytes) {
  namespace fs = std::filesystem;
  const fs::path dir =
      fs::temp_directory_path() / ("kest_limits_" + std::to_string(std::random_device{}()));
  fs::create_directories(dir);
  for (size_t len : {size_t{63}, size_t{64}, size_t{65}}) {
    const fs::path key = dir / ("key" + std::to_string(len));
    std::ofstream(key, std::ios::binary) << std::string(len, 'k');
    ScriptedPeer peer;
    peer.read_frame().send(ack(1, {}) + data(0)).read_to_end();
    const ProcessResult r = run_client(peer, std::chrono::seconds(20), {"-a", key.string()});
    ASSERT_TRUE(peer.join());
    ASSERT_TRUE(r.exited) << r.err;
    EXPECT_EQ(r.status, 0);
    const std::vector<std::string> frames = peer.frames();
    ASSERT_EQ(frames.size(), 1u);
    const std::string sent_key = std::string(std::min(len, size_t{64}), 'k');
    EXPECT_EQ(frames[0], frame(be32(1) + var("q") + var(sent_key))) << len;
  }
  fs::remove_all(dir);
}

// A word of a settings file holds at most ZNCONFIG_WORD_MAX characters. A longer one ends in an
// error token, which counts an error but leaves the parser waiting for the value: the
// characters past the limit are then read as the value.
TEST(SettingsLimits, WordLength) {
  static_assert(ZNCONFIG_WORD_MAX == 4000);
  for (size_t len : {ZNCONFIG_WORD_MAX - 1, ZNCONFIG_WORD_MAX, ZNCONFIG_WORD_MAX + 1}) {
    ConfigLayer* c = znconfig_create();
    const std::string host(len, 'h');
    const int errors = znconfig_parse_config(c, ("[client]\nhost = " + host + "\n").c_str(), 0);
    const std::string got = znconfig_get_str(c, ZNCONFIG_GROUP_CLIENT, ZNCONFIG_CLIENT_HOST);
    if (len <= ZNCONFIG_WORD_MAX) {
      EXPECT_EQ(errors, 0) << len;
      EXPECT_EQ(got, host) << len;
    } else {
      EXPECT_GT(errors, 0);
      EXPECT_EQ(got, "h");
    }
    znconfig_free(c);
  }
}

// The logger holds kMaxFacilityRules rules, the default one included; one more named rule ends
// parsing at its line, keeping the rules before it.
TEST(LoggerLimits, FacilityRules) {
  static_assert(kMaxFacilityRules == 128);
  for (int named : {kMaxFacilityRules - 2, kMaxFacilityRules - 1, kMaxFacilityRules}) {
    std::string text;
    for (int i = 0; i < named; ++i) text += "F" + std::to_string(i) + " = debug\n";
    const LogConfig c = parse_log_config(text);
    if (named < kMaxFacilityRules) {
      EXPECT_EQ(c.error_line, 0) << named;
      EXPECT_EQ(c.rule_count, named + 1);
    } else {
      EXPECT_EQ(c.error_line, named);
      EXPECT_EQ(c.rule_count, kMaxFacilityRules);
    }
  }
}

}  // namespace
