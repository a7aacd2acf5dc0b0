// Shared by the hostile-peer and limits tests: messages a server could send, and a run of the
// built client against a scripted loopback peer.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <vector>

#include "support/run_process.h"
#include "support/scripted_peer.h"
#include "utils/netbuffer.h"

namespace kest_hostile {

using kest_test::be32;
using kest_test::frame;
using kest_test::ScriptedPeer;
using kest_test::var;

struct Column {
  std::string name, ltype, ptype;
  uint32_t isconst = 0;
};

inline std::string ack(int32_t vector_size, const std::vector<Column>& cols) {
  std::string body = be32(0) + be32(uint32_t(cols.size())) + be32(uint32_t(vector_size));
  for (const Column& c : cols) body += var(c.name);
  for (const Column& c : cols) body += be32(c.isconst) + var(c.ltype) + var(c.ptype);
  return frame(body);
}

inline std::string data(int32_t rows, const std::string& blocks = "") {
  return frame(be32(0) + be32(uint32_t(rows)) + blocks);
}

inline std::string error_record(int32_t code, const std::vector<std::string>& params) {
  std::string body = be32(0xFFFFFFFFu) + be32(uint32_t(code)) + be32(uint32_t(params.size()));
  for (const std::string& p : params) body += var(p);
  return frame(body);
}

// Raw 4-byte values in the byte order the client copies them in (this host's).
inline std::string sints(const std::vector<int32_t>& values) {
  return std::string(reinterpret_cast<const char*>(values.data()), values.size() * 4);
}

// The process ended through abort: a signal on POSIX, exit code 3 on Windows.
inline bool aborted(const ProcessResult& r) {
  return r.exited ? r.raw_code == 3 : !r.timed_out && r.error.empty();
}

// Starts `peer` and runs the client with one query against it, within `limit`.
inline ProcessResult run_client(ScriptedPeer& peer,
                                std::chrono::milliseconds limit = std::chrono::seconds(20),
                                std::vector<std::string> extra = {}) {
  peer.start();
  std::vector<std::string> args = {
      KEST_CLIENT_BIN, "-h", "127.0.0.1", "-P", std::to_string(peer.port()), "-t", "1", "-e", "q"};
  args.insert(args.end(), extra.begin(), extra.end());
  ProcessOptions options;
  options.env = {{"HOME", std::nullopt}, {"ZNLOG", std::nullopt}};
  options.time_limit = limit;
  ProcessResult r = run_process(args, options);
  EXPECT_EQ(r.error, "");
  return r;
}

}  // namespace kest_hostile
