#include "tools/refserver/options.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "support/run_process.h"

namespace {

namespace fs = std::filesystem;

// The release named by project(... VERSION x.y.z ...) in the top-level CMakeLists.txt, read from
// the source tree so that a number frozen anywhere else in the build shows up as a mismatch.
std::string project_version() {
  const fs::path lists =
      fs::path(KEST_TEST_DATA_DIR).parent_path().parent_path() / "CMakeLists.txt";
  std::ifstream in(lists);
  std::stringstream text;
  text << in.rdbuf();
  std::smatch m;
  const std::string s = text.str();
  if (!std::regex_search(s, m, std::regex(R"(project\(kest\s+VERSION\s+([0-9]+\.[0-9]+\.[0-9]+))")))
    return "(no project version in " + lists.string() + ")";
  return m[1];
}

OptionsResult parse(std::vector<std::string> args, ServerOptions* options) {
  kest_test::Argv a("kest_refserver", std::move(args));
  return parse_options(a.argc(), a.argv(), options);
}

TEST(RefserverVersion, BothFormsPrintTheProjectReleaseNotTheClientBuildText) {
  const std::string expected = "kest_refserver " + project_version() + "\n";
  EXPECT_EQ(version_text(), expected);
  for (const char* option : {"--version", "-v"}) {
    ProcessOptions po;
    po.time_limit = std::chrono::seconds(20);
    const ProcessResult r = run_process({KEST_REFSERVER_BIN, option}, po);
    EXPECT_EQ(r.error, "") << option;
    EXPECT_TRUE(r.exited) << option;
    EXPECT_EQ(r.out, expected) << option;
    EXPECT_EQ(r.err, "") << option;
    EXPECT_EQ(r.status, 0) << option;
  }
}

TEST(RefserverOptions, ValuesInEveryFormAndTheirBounds) {
  const struct {
    std::vector<std::string> args;
    OptionsResult result;
    uint16_t port;
    int32_t vector_size;
  } cases[] = {
      {{"-P", "5000"}, OptionsResult::run, 5000, 1024},
      {{"--port=0"}, OptionsResult::run, 0, 1024},
      {{"--port", "65535", "--vectorsize=7"}, OptionsResult::run, 65535, 7},
      {{"--vectorsize", "1048576"}, OptionsResult::run, 48130, 1 << 20},
      {{"-P", "65536"}, OptionsResult::exit_error, 0, 0},
      {{"-P", "12x"}, OptionsResult::exit_error, 0, 0},
      {{"-P"}, OptionsResult::exit_error, 0, 0},
      {{"--vectorsize=0"}, OptionsResult::exit_error, 0, 0},
      {{"--vectorsize=1048577"}, OptionsResult::exit_error, 0, 0},
      {{"--fault", "no-such-fault"}, OptionsResult::exit_error, 0, 0},
      {{"--versions"}, OptionsResult::exit_error, 0, 0},
      {{"query.txt"}, OptionsResult::exit_error, 0, 0},
  };
  for (const auto& c : cases) {
    ServerOptions o;
    testing::internal::CaptureStderr();
    const OptionsResult result = parse(c.args, &o);
    const std::string err = testing::internal::GetCapturedStderr();
    EXPECT_EQ(result, c.result) << c.args[0];
    if (c.result == OptionsResult::run) {
      EXPECT_EQ(o.port, c.port) << c.args[0];
      EXPECT_EQ(o.vector_size, c.vector_size) << c.args[0];
      EXPECT_EQ(err, "") << c.args[0];
    } else {
      EXPECT_EQ(err.rfind("kest_refserver: bad option or value: " + c.args[0] + "\n", 0), 0u)
          << err;
    }
  }
}

TEST(RefserverOptions, UsageNamesTheVersionOptionsAndEveryFault) {
  const std::string usage = usage_text();
  EXPECT_NE(usage.find("  -v, --version "), std::string::npos) << usage;
  EXPECT_NE(usage.find(fault_names()), std::string::npos) << usage;
}

}  // namespace
