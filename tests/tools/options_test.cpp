#include "tools/standalone_client/options.h"

#include <gtest/gtest.h>

#include <iterator>
#include <sstream>
#include <string>
#include <vector>

#include "support/run_process.h"
#include "utils/znconfig.h"

namespace {

// Scans to the end or the first refusal: "p,i,." means -p, -i, end; "P=5000" an option with its
// value; "?" a refusal (after which the client stops).
std::string scan(std::vector<std::string> args) {
  kest_test::Argv a("kest_client", std::move(args));
  OptionCursor cursor;
  std::string seq;
  for (int guard = 0; guard < 64; ++guard) {
    const char* value = nullptr;
    const int c = get_option(&cursor, a.argc(), a.argv(), kest_client_options, &value);
    if (!seq.empty()) seq += ",";
    if (c == GET_OPTION_END) return seq + ".";
    if (c == GET_OPTION_REFUSED) return seq + "?";
    seq += static_cast<char>(c);
    if (value) seq.append("=").append(value);
  }
  return seq + "(no end)";
}

// Each case is the argument vector as words split at spaces, and what the scan yields. Long
// names are not abbreviated ("--pin"), and a value may start with "-" ("-e -v").
TEST(GetOption, ScansArgumentVectors) {
  const struct {
    const char* args;
    const char* expected;
  } cases[] = {
      {"", "."},
      {"-pi", "p,i,."},
      {"-P5000", "P=5000,."},
      {"--port=5000", "P=5000,."},
      {"--port", "?"},
      {"-P", "?"},
      {"--ping=1", "?"},
      {"--pin", "?"},
      {"query.txt", "?"},
      {"-", "?"},
      {"-px", "p,?"},
      {"-e -v", "e=-v,."},
      {"-iPx5", "i,P=x5,."},
      {"--execute=a=b", "e=a=b,."},
      {"--ping --raw-output --output=html -?", "p,r,o=html,?"},
      {"-c a.conf -f q.txt -a pw -h db -t 2 -o raw", "c=a.conf,f=q.txt,a=pw,h=db,t=2,o=raw,."},
      {"--config a --execute b --host c --tries d --unicode --nounicode --file e "
       "--passfile f --ignore-err --version",
       "c=a,e=b,h=c,t=d,u,n,f=e,a=f,i,v,."}};
  for (const auto& c : cases) {
    std::istringstream in(c.args);
    const std::vector<std::string> args{std::istream_iterator<std::string>(in), {}};
    EXPECT_EQ(scan(args), c.expected) << c.args;
  }
}

// Without an argument vector the usage names the program "kest_client". (The end-to-end suite
// shows the whole text with the port of each settings layer.)
TEST(PrintUsage, NamesTheProgramWithoutAnArgumentVector) {
  ConfigLayer* config =
      znconfig_layer_create(nullptr, "cmdline", znconfig_schema_create()->defaults);
  ASSERT_EQ(znconfig_set_by_id(config, ZNCONFIG_GROUP_CLIENT, ZNCONFIG_CLIENT_PORT, "1K"), 1);
  testing::internal::CaptureStdout();
  print_usage(0, nullptr, config);
  const std::string usage = testing::internal::GetCapturedStdout();
  EXPECT_EQ(usage.rfind("Kest client\n\nUsage: kest_client [OPTIONS]\n", 0), 0u) << usage;
  EXPECT_NE(usage.find("  -P, --port PORT       server port\n"
                       "                        default: 1024\n"),
            std::string::npos);
  znconfig_free(config);
}

}  // namespace
