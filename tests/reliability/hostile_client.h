// Shared by the hostile-peer and limits tests: runs of the built client with one query against a
// scripted loopback peer that answers it, each checked for how it ended and what it said.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <string>
#include <vector>

#include "support/run_process.h"
#include "support/scripted_peer.h"

namespace kest_hostile {

using namespace kest_test;

// Raw 4-byte values in the byte order the client copies them in (this host's).
inline std::string sints(const std::vector<int32_t>& values) {
  std::string bytes(values.size() * 4, '\0');
  std::memcpy(bytes.data(), values.data(), bytes.size());
  return bytes;
}

// The process ended through abort: a signal on POSIX, exit code 3 on Windows.
inline bool aborted(const ProcessResult& r) {
  return r.exited ? r.raw_code == 3 : !r.timed_out && r.error.empty();
}

// Starts `peer` and runs the client with the query "q" and `extra` options against it.
inline ProcessResult run_client(ScriptedPeer& peer, std::vector<std::string> extra = {}) {
  peer.start();
  std::vector<std::string> args = {
      KEST_CLIENT_BIN, "-h", "127.0.0.1", "-P", std::to_string(peer.port()), "-t", "1", "-e", "q"};
  args.insert(args.end(), extra.begin(), extra.end());
  ProcessOptions options;
  options.env = {{"HOME", std::nullopt}, {"ZNLOG", std::nullopt}};
  options.time_limit = std::chrono::seconds(20);
  ProcessResult r = run_process(args, options);
  EXPECT_EQ(r.error, "");
  return r;
}

enum class End { kOk, kFailed, kAborted };

struct Case {
  const char* name;
  std::string reply;  // everything the peer sends after reading the query
  End end;
  std::string out;     // expected in standard output ("" for no check)
  std::string err;     // expected in standard error ("" for no check)
  bool close = false;  // the peer closes after the reply instead of waiting for the client
};

// Each case within the run's time limit: the client ends as the case says, never by a crash.
inline void expect_runs(const std::vector<Case>& cases) {
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    ScriptedPeer peer;
    peer.read_frame().send(c.reply);
    if (c.close)
      peer.close();
    else
      peer.read_to_end();
    const ProcessResult r = run_client(peer);
    peer.join();
    ASSERT_FALSE(r.timed_out);
    if (c.end == End::kAborted) {
      EXPECT_TRUE(aborted(r)) << r.err;
    } else {
      EXPECT_TRUE(r.exited) << r.err;
      EXPECT_EQ(r.status, c.end == End::kOk ? 0 : -1);
    }
    EXPECT_THAT(r.out, testing::HasSubstr(c.out));
    EXPECT_THAT(r.err, testing::HasSubstr(c.err));
  }
}

}  // namespace kest_hostile
