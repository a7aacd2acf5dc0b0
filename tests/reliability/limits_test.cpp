// Every limit the client enforces on what a server sends (and on its key file), each at
// limit - 1, limit and limit + 1, through the built client against a scripted loopback peer; and
// the limits of the settings-file and logger-configuration parsers. The README's "Limits" table
// lists the same limits.
#include <filesystem>
#include <fstream>
#include <random>

#include "reliability/hostile_client.h"
#include "tools/standalone_client/reception.h"
#include "utils/kest_error.h"
#include "utils/netbuffer.h"
#include "utils/znconfig.h"
#include "utils/znconfig_parser.h"
#include "utils/znlog_config.h"

namespace {

using namespace kest_hostile;

std::string type_text_ack(size_t len) { return ack(4, {{"a", std::string(len, 'x'), "sint"}}); }
std::string rows(int32_t n) { return data(n, std::string(size_t(n) * 4, '\0')); }
std::string error_with(uint32_t count) {
  return frame(be32(0xFFFFFFFFu) + be32(100000) + be32(count) + var("a") + var("b") + var("c"));
}

TEST(Limits, WhatAServerSends) {
  static_assert(NETBUF_MAX_FRAME == 1 << 30 && MAX_TYPE_NAME == 64 && KEST_ERROR_COUNT == 184);
  constexpr uint32_t kMax = NETBUF_MAX_FRAME;
  const std::string short_read = "assertion \"buf->pos + len <= buf->used\" failed";
  const std::string vector5 = ack(5, {{"a", "sint", "sint"}});
  expect_runs({
      // The frame length field: 4 (the header alone) to NETBUF_MAX_FRAME. Outside, the client
      // refuses the frame before allocating anything; inside, it takes the frame: an empty
      // acknowledgement then fails its first read, a large one waits for its body.
      {"FrameLength3", be32(3), End::kFailed, "",
       "Invalid message length 3 (allowed 4 to 1073741824)"},
      {"FrameLength4", be32(4), End::kAborted, "", short_read},
      {"FrameLength5", be32(5) + '\0', End::kAborted, "", short_read},
      {"FrameLengthMaxMinus1", be32(kMax - 1), End::kFailed, "",
       "Remote socket closed while receiving", true},
      {"FrameLengthMax", be32(kMax), End::kFailed, "", "Remote socket closed while receiving",
       true},
      {"FrameLengthMaxPlus1", be32(kMax + 1), End::kFailed, "",
       "Invalid message length 1073741825"},
      // A logical type text is shorter than MAX_TYPE_NAME bytes.
      {"TypeText63", type_text_ack(63) + data(1, std::string(4, '\1')) + data(0), End::kOk,
       "(1 row)", ""},
      {"TypeText64", type_text_ack(64), End::kAborted, "",
       "assertion \"NetBufferGetLen(netbuf) < MAX_TYPE_NAME\" failed"},
      {"TypeText65", type_text_ack(65), End::kAborted, "",
       "assertion \"NetBufferGetLen(netbuf) < MAX_TYPE_NAME\" failed"},
      // A data message carries at most the acknowledgement's vector size of rows.
      {"Rows4", vector5 + rows(4) + data(0), End::kOk, "(4 rows)", ""},
      {"Rows5", vector5 + rows(5) + data(0), End::kOk, "(5 rows)", ""},
      {"Rows6", vector5 + rows(6) + data(0), End::kFailed, "",
       "Received more tuples than vectorsize. Aborting."},
      // Codes 0 .. KEST_ERROR_COUNT - 1 have a template; any other is named as unknown.
      {"ErrorCode182", error_record(182, {"a", "b", "c"}), End::kFailed,
       "Error: Feature a is not enabled.\n", ""},
      {"ErrorCode183", error_record(183, {"a", "b", "c"}), End::kFailed,
       "Error: Error a raised with b parameters, expected c.\n", ""},
      {"ErrorCode184", error_record(184, {}), End::kFailed,
       "Error: Unknown error code 184 (no parameters)", ""},
      // An error record's parameter count must match the parameters its frame holds.
      {"ErrorParameters2", error_with(2), End::kFailed, "(parameters: 'a', 'b')\n", ""},
      {"ErrorParameters3", error_with(3), End::kFailed, "(parameters: 'a', 'b', 'c')\n", ""},
      {"ErrorParameters4", error_with(4), End::kAborted, "",
       "assertion \"pos + len <= buf->used\" failed"},
  });
}

// The authentication key is the first 64 bytes of the key file; the query carries it.
TEST(Limits, KeyBytes) {
  namespace fs = std::filesystem;
  const fs::path key =
      fs::temp_directory_path() / ("kest_limits_" + std::to_string(std::random_device{}()));
  for (size_t len : {size_t{63}, size_t{64}, size_t{65}}) {
    std::ofstream(key, std::ios::binary) << std::string(len, 'k');
    ScriptedPeer peer;
    peer.read_frame().send(ack(1, {}) + data(0)).read_to_end();
    const ProcessResult r = run_client(peer, {"-a", key.string()});
    ASSERT_TRUE(peer.join());
    EXPECT_EQ(r.status, 0) << r.err;
    const std::string sent_key(std::min(len, size_t{64}), 'k');
    EXPECT_EQ(peer.frames(), std::vector{frame(be32(1) + var("q") + var(sent_key))}) << len;
  }
  fs::remove(key);
}

// A word of a settings file holds at most ZNCONFIG_WORD_MAX characters. A longer one ends in an
// error token, which counts an error but leaves the parser waiting for the value: the
// characters past the limit are then read as the value.
TEST(Limits, SettingsWordLength) {
  static_assert(ZNCONFIG_WORD_MAX == 4000);
  for (size_t len : {ZNCONFIG_WORD_MAX - 1, ZNCONFIG_WORD_MAX, ZNCONFIG_WORD_MAX + 1}) {
    ConfigLayer* c = znconfig_create();
    const std::string host(len, 'h');
    const int errors = znconfig_parse_config(c, ("[client]\nhost = " + host + "\n").c_str(), 0);
    const bool fits = len <= ZNCONFIG_WORD_MAX;
    EXPECT_EQ(errors > 0, !fits) << len;
    EXPECT_EQ(znconfig_get_str(c, ZNCONFIG_GROUP_CLIENT, ZNCONFIG_CLIENT_HOST), fits ? host : "h");
    znconfig_free(c);
  }
}

// The logger holds kMaxFacilityRules rules, the default one included; one more named rule ends
// parsing at its line, keeping the rules before it.
TEST(Limits, LoggerFacilityRules) {
  static_assert(kMaxFacilityRules == 128);
  for (int named : {kMaxFacilityRules - 2, kMaxFacilityRules - 1, kMaxFacilityRules}) {
    std::string text;
    for (int i = 0; i < named; ++i) text += "F" + std::to_string(i) + " = debug\n";
    const LogConfig c = parse_log_config(text);
    const bool fits = named < kMaxFacilityRules;
    EXPECT_EQ(c.error_line, fits ? 0 : named) << named;
    EXPECT_EQ(c.rule_count, fits ? named + 1 : kMaxFacilityRules);
  }
}

}  // namespace
