// What the end-to-end suites share: a reference server on a thread of the test, listening on
// 127.0.0.1 only, and the built client run against a port with a home directory of its own.
#pragma once

#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "kernel/ltype.h"
#include "support/run_process.h"
#include "support/temp_dir.h"
#include "tools/refserver/server.h"

namespace kest_test {

using Args = std::vector<std::string>;

class RefServer {
 public:
  RefServer() { types_init(); }  // the server's value types
  ~RefServer() { stop(); }
  RefServer(const RefServer&) = delete;
  RefServer& operator=(const RefServer&) = delete;

  // Serves as `options` say (stopping a server started before); the port it listens on, 0 when
  // it could not listen.
  uint16_t start(ServerOptions options = {}) {
    stop();
    options_ = std::move(options);
    options_.host = "127.0.0.1";
    options_.port = 0;
    port_ = 0;
    const int32_t listener = server_listen(options_, &port_);
    if (listener < 0) return port_ = 0;
    thread_ = std::thread([this, listener] { server_serve(listener, options_, stop_); });
    return port_;
  }
  void stop() {
    stop_.store(true);
    if (thread_.joinable()) thread_.join();
    stop_.store(false);
  }
  uint16_t port() const { return port_; }

 private:
  ServerOptions options_;
  uint16_t port_ = 0;
  std::atomic<bool> stop_{false};
  std::thread thread_;
};

// The built client with `args`, standard input fed from `input`, HOME in `home` and no logger
// settings; it must start and end within the limit.
inline ProcessResult run_client(const TempDir& home, Args args, std::string input = "",
                                std::chrono::milliseconds limit = std::chrono::seconds(20)) {
  args.insert(args.begin(), KEST_CLIENT_BIN);
  ProcessOptions options;
  options.stdin_text = std::move(input);
  options.env = {
      {"HOME", home.path().string()}, {"USERPROFILE", home.path().string()}, {"ZNLOG", {}}};
  options.time_limit = limit;
  ProcessResult r = run_process(args, options);
  EXPECT_EQ(r.error, "");
  EXPECT_FALSE(r.timed_out);
  return r;
}

// `args` after the options that aim the client at `port` of 127.0.0.1, with one try.
inline Args at_port(uint16_t port, Args args) {
  args.insert(args.begin(), {"-h", "127.0.0.1", "-P", std::to_string(port), "-t", "1"});
  return args;
}

}  // namespace kest_test
