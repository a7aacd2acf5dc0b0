// The built client run as a user runs it: its command line, runs against a scripted loopback
// server (hostile ones too), and against the reference server, which the test starts on a thread
// of its own. Every client run has a time limit and a home directory of its own.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include "kernel/ltype.h"
#include "support/e2e.h"
#include "support/scripted_peer.h"
#include "tools/refserver/parser.h"
#include "tools/refserver/relation.h"
#include "utils/context.h"

namespace {

using namespace kest_test;
using testing::HasSubstr;
namespace fs = std::filesystem;

const std::string kVersion =
    "kest-vs9-OPTXPROF-64(branches/zn2.50) built on Oct 19 2012 01:09:04 with Microsoft "
    "Compiler version 1500";

std::string usage(const std::string& port) {
  return "Kest client\n\n"
         "Usage: " KEST_CLIENT_BIN
         " [OPTIONS]\n"
         "Executes an kest query on an kest server.\n\n"
         "Options:\n"
         "  -e, --execute QUERY   query to execute\n"
         "      or\n"
         "  -f, --file FILE       query file to execute\n"
         "                        if not provided, query is read from stdin\n"
         "  -h, --host HOSTNAME   server hostname or IP address\n"
         "                        default: localhost\n"
         "  -P, --port PORT       server port\n"
         "                        default: " +
         port +
         "\n"
         "  -p, --ping            ping the server with simple query\n"
         "  -t, --tries TRIES     number of times to try to connect to the server\n"
         "                        default: 1 time\n"
         "  -a  --passfile FILE   authentication file for the server\n"
         "  -o, --output ascii|unicode|raw|html\n"
         "                        selects output formatting\n"
         "  -i, --ignore-err      do not exit on error\n"
         "  -v, --version         print version and exit\n";
}

size_t count_of(const std::string& text, const std::string& what) {
  size_t n = 0;
  for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++n;
  return n;
}

class ClientE2E : public testing::Test {
 protected:
  ProcessResult run(Args args, std::string input = "") {
    return run_client(home_, std::move(args), std::move(input));
  }
  ProcessResult run_at(uint16_t port, Args args, std::string input = "") {
    return run(at_port(port, std::move(args)), std::move(input));
  }
  void start(ServerOptions options = {}) { ASSERT_NE(server_.start(std::move(options)), 0); }
  ProcessResult client(Args args) { return run_at(server_.port(), std::move(args)); }
  // abort(): a signal on POSIX, exit code 3 on Windows.
  static bool aborted(const ProcessResult& r) { return !r.exited || r.raw_code == 3; }

  TempDir home_{"kest_e2e"};
  RefServer server_;
};

TEST_F(ClientE2E, VersionPrintsTheProgramNameAsTypedAndTheBuildLine) {
  ProcessResult r = run({"-v"});
  EXPECT_TRUE(r.exited);
  EXPECT_EQ(r.out, std::string(KEST_CLIENT_BIN) + "\n" + kVersion + "\n");
  EXPECT_EQ(r.err, "");
  EXPECT_EQ(r.status, 0);
}

TEST_F(ClientE2E, RefusedOptionsPrintTheUsageAndFail) {
  for (const char* args : {"--help", "-x", "query.txt", "-?", "--ping=1", "--port", "-e"}) {
    ProcessResult r = run({args});
    EXPECT_EQ(r.out, usage("48130")) << args;
    EXPECT_EQ(r.err, "") << args;
    EXPECT_EQ(r.status, -1) << args;
  }
}

// The usage text shows the port of the merged layers: the per-user file in HOME, then the files
// of -c, then the command line, whatever the order of the options.
TEST_F(ClientE2E, UsageShowsThePortOfTheSettingsLayers) {
  home_.write(".quillmarke.conf", "[client]\nport = 2468\n");
  const std::string conf = home_.write("client.conf", "# test settings\n[client]\nport = 4321\n");
  const struct {
    Args args;
    const char* port;
    bool reads_conf;
  } cases[] = {{{"--help"}, "2468", false},
               {{"-c", conf, "--help"}, "4321", true},
               {{"-P", "99", "-c", conf, "-x"}, "99", true}};
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::PrintToString(c.args));
    ProcessResult r = run(c.args);
    EXPECT_EQ(r.out, usage(c.port));
    EXPECT_EQ(r.status, -1);
    EXPECT_EQ(r.err.find("Reading configuration from '" + conf + "'") != std::string::npos,
              c.reads_conf);
  }
}

TEST_F(ClientE2E, FailedConnectionRunsNoQuery) {
  const ProcessResult r = run_at(1, {"-e", "q"});  // port 1 of 127.0.0.1: nothing listens there
  EXPECT_EQ(r.status, -1);
  EXPECT_EQ(r.out, "");
}

// Whole runs against a scripted server on the loopback address.
std::string query_frame(const std::string& query) { return frame(be32(1) + var(query) + var("")); }

// A successful answer with no columns and its table, and an error answer and its line.
const std::string kOk = ack(1024, {}) + data(0);
const std::string kOkTable = "+\n|\n|\n+\n+\n(0 rows)\n";
const std::string kError = error_record(10, {"q", "1", "2", "bad"});
const std::string kErrorLine = "Error: Parse error in q at line 1, column 2: bad.\n";

// Which queries are sent (the text of -e before the file of -f before standard input), which run,
// and the exit status: the server answers each query it reads with the next reply of the row.
TEST_F(ClientE2E, QueriesSentAndTheExitStatus) {
  const std::string file = home_.write("queries.txt", "file_1; file_2;");
  const struct {
    Args args;
    std::string input;
    std::vector<std::pair<std::string, std::string>> exchange;  // query sent, reply
    int status;
    std::string out;
    const char* log = "";
  } cases[] = {
      {{}, "", {}, 0, "", "KESTCLIENT:Creating connection to server\n"},  // connects all the same
      {{"-f", file, "-e", "text"}, "stdin;", {{"text", kOk}}, 0, kOkTable},
      {{"-f", file}, "stdin;", {{"file_1", kOk}, {"file_2", kOk}}, 0, kOkTable + kOkTable},
      // The first failed query ends the run, unless -i; then the last query's status counts.
      {{"-e", "a;b"}, "", {{"a", kError}}, -1, kErrorLine},
      {{"-i", "-e", "a;b"}, "", {{"a", kError}, {"b", kOk}}, 0, kErrorLine + kOkTable},
      {{"-i", "-e", "a;b"}, "", {{"a", kOk}, {"b", kError}}, -1, kOkTable + kErrorLine},
      // A ping sends its fixed query instead of the given ones and prints nothing.
      {{"-e", "a", "-f", file, "-pu"}, "", {{"Array([i=0])", kOk}}, 0, "", "Pinging server\n"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::PrintToString(c.args));
    ScriptedPeer peer;
    std::vector<std::string> expected;
    for (const auto& [query, reply] : c.exchange) {
      peer.read_frame().send(reply);
      expected.push_back(query_frame(query));
    }
    peer.read_to_end().start();
    ProcessResult r = run_at(peer.port(), c.args, c.input);
    EXPECT_TRUE(peer.join());
    EXPECT_TRUE(r.exited);
    EXPECT_EQ(r.status, c.status) << r.err;
    EXPECT_EQ(peer.frames(), expected);
    EXPECT_EQ(peer.received(), "");  // nothing more was sent
    EXPECT_EQ(r.out, c.out);
    EXPECT_THAT(r.err, HasSubstr(c.log));
  }
}

// Servers that send values past limits the client enforces (the README's "Limits" table; the
// unit suites hold each limit's logic): the query fails, or the process ends through the
// specified assertion report, never by a crash.
TEST_F(ClientE2E, ValuesPastTheLimitsFailTheQueryOrAbortAsSpecified) {
  const auto error_with = [](uint32_t count) {
    return frame(be32(0xFFFFFFFFu) + be32(100000) + be32(count) + var("a") + var("b") + var("c"));
  };
  const struct {
    const char* name;
    std::string reply;
    bool aborts;
    std::string out, err;
  } cases[] = {
      {"TypeText64", ack(4, {{"a", std::string(64, 'x'), "sint"}}), true, "",
       "assertion \"NetBufferGetLen(netbuf) < MAX_TYPE_NAME\" failed"},
      // "money" is read as an 8-byte double: a narrower column is refused before any value.
      {"MoneyInAFourByteColumn", ack(4, {{"m", "money", "sint"}}), true, "",
       "assertion \"ltype_id(queryres.ltype[i]) != LTYPE_MONEY || queryres.width[i] >= 8\" failed"},
      {"ErrorWith10000Parameters", error_record(3, std::vector<std::string>(10000, "p")), false,
       "Error: Not implemented: p.\n", ""},
      // An error record's parameter count must match the parameters its frame holds.
      {"ErrorParameters3", error_with(3), false, "(parameters: 'a', 'b', 'c')\n", ""},
      {"ErrorParameters4", error_with(4), true, "", "assertion \"pos + len <= buf->used\" failed"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    ScriptedPeer peer;
    peer.read_frame().send(c.reply).read_to_end().start();
    const ProcessResult r = run_at(peer.port(), {"-e", "q"});
    peer.join();
    EXPECT_EQ(aborted(r), c.aborts) << r.err;
    EXPECT_TRUE(c.aborts || r.status == -1) << r.status;
    EXPECT_THAT(r.out, HasSubstr(c.out));
    EXPECT_THAT(r.err, HasSubstr(c.err));
  }
}

// Against the reference server.

// One column of every logical type, a nullable column and a constant.
const char* const kAllTypes =
    "Project(Array([i=3]), [b = bool(i), sc = schr(-(i)), uc = uchr(i), ss = ssht(i), "
    "us = usht(i), si = i, ui = uint(i), sl = slng(i), ul = ulng(i), h = s128(i), x = uidx(i), "
    "d1 = decimal(i, 2, 1), d2 = decimal(i, 4, 2), d4 = decimal(i, 9, 3), "
    "d8 = decimal(i, 18, 2), d16 = decimal(i, 30, 2), dd = asdbl(decimal(i, 10, 2)), "
    "f = flt(i), g = dbl(i), m = money(i), c = char('\\u20ac'), cs = char('abc'), v = str(i), "
    "dt = date(+(i, 738945)), tm = time('12:34:56.5', 1), ts = timestamp('2024-02-29 01:02:03'), "
    "ids = intervalds('1 01:01:01'), iym = intervalym('-1-2'), n = nullif(i, 1), k = 'const'])";

// The head names each column's type; those with parameters show them.
const char* const kTypeTexts[] = {"bool",    "s128",    "decimal(30,2)", "money",
                                  "char(3)", "time(1)", "intervalym"};

const char* const kValueTexts[] = {
    "true", "-2",         "2.0",        "0.00",       "2.000", "$ 2.00", "\xE2\x82\xAC",
    "abc",  "2023-03-03", "12:34:56.5", "1 01:01:01", "-1-02", "const",  "2024-02-29 01:02:03"};

TEST_F(ClientE2E, EveryOutputModeShowsEveryType) {
  start();
  for (const char* mode : {"ascii", "unicode", "raw", "html"}) {
    ProcessResult r = client({"-o", mode, "-e", kAllTypes});
    ASSERT_TRUE(r.exited) << mode << r.err;
    EXPECT_EQ(r.status, 0) << mode << r.err;
    for (const char* v : kValueTexts) EXPECT_THAT(r.out, HasSubstr(v)) << mode;
    if (std::string(mode) != "raw") {
      for (const char* t : kTypeTexts) EXPECT_THAT(r.out, HasSubstr(t)) << mode;
      EXPECT_THAT(r.out, HasSubstr("3 rows")) << mode;
    } else {  // the null prints empty, the constant repeats on every row
      EXPECT_THAT(r.out, HasSubstr("|0|const\n"));
      EXPECT_THAT(r.out, HasSubstr("-1-02||const\n"));
      EXPECT_THAT(r.out, HasSubstr("|2|const\n"));
    }
  }
}

// Every fault the server can play, four rows to a data message.
TEST_F(ClientE2E, FaultsOfTheServerEndTheClientAsShown) {
  enum End { kOk, kFailed, kAborted };
  const struct {
    Fault fault;
    const char* expected;  // in standard output or standard error
    End end;
  } cases[] = {
      {Fault::close_after_ack, "connection closed by server", kFailed},
      {Fault::close_mid_frame, "Remote socket closed while receiving", kFailed},
      {Fault::reset, "", kFailed},
      {Fault::too_many_rows, "Received more tuples than vectorsize. Aborting.", kFailed},
      {Fault::unknown_type, "Unknown type: nosuchtype", kAborted},
      {Fault::short_frame, "network error while reading ack", kFailed},
      {Fault::huge_frame, "network error while reading ack", kFailed},
      // Messages that arrive one byte at a time read like whole ones.
      {Fault::byte_by_byte, "0|0\n1|1\n2|2\n3|3\n4|4\n5|5\n6|6\n7|7\n8|8\n9|9\n", kOk},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.expected);
    ServerOptions o;
    o.fault = c.fault;
    o.vector_size = 4;
    start(o);
    ProcessResult r = client({"-r", "-e", "Project(Array([i=10]), [i, s = str(i)])"});
    EXPECT_THAT(r.out + r.err, HasSubstr(c.expected));
    if (c.end == kAborted) {
      EXPECT_TRUE(aborted(r)) << r.err;
    } else {
      ASSERT_TRUE(r.exited) << r.err;
      EXPECT_EQ(r.status, c.end == kOk ? 0 : -1);
    }
    if (c.end == kOk) {
      EXPECT_EQ(r.out, c.expected);
    }
  }
}

// A server that accepts and never answers: --timeout (or the settings key) fails each query,
// naming where and how long, and the next query runs on a connection opened anew.
TEST_F(ClientE2E, ASilentServerTimesOutAndTheNextQueryReconnects) {
  ServerOptions o;
  o.fault = Fault::no_answer;
  start(o);
  const std::string where =
      "no data from the server at 127.0.0.1:" + std::to_string(server_.port());
  const std::string settings = home_.write("timeout.conf", "[client]\ntimeout = 0.3\n");
  for (const Args& timeout :
       {Args{"--timeout", "0.3"}, Args{"--timeout=0.3"}, Args{"-c", settings}}) {
    Args args = timeout;
    args.insert(args.end(), {"-i", "-e", "Array([i=1]);Array([i=2])"});
    ProcessResult r = client(args);
    ASSERT_TRUE(r.exited) << r.err;
    EXPECT_EQ(r.status, -1);
    EXPECT_EQ(count_of(r.err, where + " for 0.3 seconds"), 2u) << r.err;
    EXPECT_EQ(count_of(r.err, "re-opening the connection"), 1u) << r.err;
  }
}

// The data formats against the reference server.

// A large result of mixed types: numbers of every kind, dates, times, texts that hold every byte
// csv and json treat specially (and none), multibyte characters, empty texts and nulls.
std::string mixed_query(int rows) {
  return "Project(Array([i=" + std::to_string(rows) +
         "]), [i, l = *(slng(i), -(3)), u = ulng(*(i, 7)), h = s128(*(slng(i), 1000000007)), "
         "b = bool(%(i, 2)), d = decimal(*(decimal('1.25'), i), 12, 2), "
         "d16 = decimal(*(decimal('-0.5'), i), 30, 3), g = /(dbl(i), 7), f = flt(/(dbl(i), 3)), "
         "m = money(-(i, 500)), dt = date(+(%(i, 36500), 738945)), tm = time('12:34:56.5', 1), "
         "iv = intervalds('-1 01:01:01'), ym = intervalym('2-03'), "
         "s = substr(concat(str(i), 'a,b\"c\\n\\r\\t|\\\\\\u20ac x'), 1, %(i, 14)), "
         "n = nullif(%(i, 5), 0), ns = nullif(substr(str(i), 1, 1), '1'), c = char('\\u20ac')])";
}

std::string hex(std::string_view bytes) {
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string out;
  for (unsigned char b : bytes) (out += kDigits[b >> 4]) += kDigits[b & 15];
  return out;
}

// The server's values, as the reference server's own evaluator computes them, and what the two
// formats must carry for each: the csv field and the json value in the tagged form the reader
// script prints (Z null, S+hex a string, N+text a number, T/F a boolean; D+hex a number that
// must read back as this double, R+hex as this float).
struct Expected {
  std::vector<std::string> names;
  std::vector<std::vector<std::pair<std::string, std::string>>> rows;  // (csv, json) per column
};

std::string bits(const void* value, size_t size) {
  return hex(std::string_view(static_cast<const char*>(value), size));
}

std::pair<std::string, std::string> expected_cell(const ColumnType& type, const Vector& v,
                                                  size_t row) {
  if (v.is_null(row)) return {"Z", "Z"};
  const size_t at = v.at(row);
  const uint32_t id = ltype_id(type.ltype);
  if (value_form(type.ltype) == ValueForm::text)
    return {"S" + hex(v.texts[at]), "S" + hex(v.texts[at])};
  // The value as the client stores it, then printed by the client's value printer.
  alignas(16) unsigned char stored[16] = {};
  const PhysicalType* physical = ltype_physical(type.ltype);
  if (value_form(type.ltype) == ValueForm::integer) {
    std::memcpy(stored, &v.ints[at], static_cast<size_t>(ptype_width(physical)));
  } else if (id == LTYPE_FLT4) {
    const auto f = static_cast<float>(v.reals[at]);
    std::memcpy(stored, &f, sizeof f);
  } else {
    std::memcpy(stored, &v.reals[at], sizeof(double));
  }
  char text[1024];
  const int n = value_to_string(text, sizeof text, physical, type.ltype, stored);
  const std::string printed(text, static_cast<size_t>(n));
  const std::string csv = "S" + hex(printed);
  switch (id) {
    case LTYPE_BOOL:
      return {csv, printed == "true" ? "T" : "F"};
    case LTYPE_FLT4:
      return {csv, "R" + bits(stored, sizeof(float))};
    case LTYPE_FLT8:
      return {csv, "D" + bits(stored, sizeof(double))};
    case LTYPE_MONEY:
      return {csv, "N" + printed.substr(2)};  // without "$ "
    case LTYPE_DATE:
    case LTYPE_TIME:
    case LTYPE_TIMESTAMP:
    case LTYPE_INTERVALDS:
    case LTYPE_INTERVALYM:
    case LTYPE_CHAR:
      return {csv, "S" + hex(printed)};
    default:
      return {csv, "N" + printed};
  }
}

Expected server_values(const std::string& query) {
  Expected e;
  QueryContext* ctx = query_context_create(nullptr);
  const auto rel = parse_query(ctx, query);
  const auto source = build_plan(ctx, *rel, 1024, nullptr);
  e.names = source->schema().names;
  Batch batch;
  while (source->next(batch)) {
    for (size_t r = 0; r < batch.rows; ++r) {
      auto& row = e.rows.emplace_back();
      for (size_t c = 0; c < batch.columns.size(); ++c)
        row.push_back(expected_cell(source->schema().types[c], batch.columns[c], r));
    }
  }
  query_context_destroy(ctx);
  return e;
}

// Reads the csv with Python's csv module and the json lines with its json module (numbers kept
// as their text) and prints one line per row: the csv fields, a tab, the json values, in the
// tagged form above; first the header and the keys of the first object.
constexpr const char* kReaderScript = R"(
import csv, json, sys
class Num(str): pass
def tag(v):
    if v is None: return 'Z'
    if v is True: return 'T'
    if v is False: return 'F'
    if isinstance(v, Num): return 'N' + v
    return 'S' + v.encode('utf-8').hex()
with open(sys.argv[1], newline='', encoding='utf-8') as f:
    rows = list(csv.reader(f, strict=True))
with open(sys.argv[2], encoding='utf-8') as f:
    objects = [json.loads(line, parse_int=Num, parse_float=Num) for line in f]
out = sys.stdout
out.write(' '.join(rows[0]) + '\t' + ' '.join(objects[0].keys()) + '\n')
for fields, obj in zip(rows[1:], objects):
    out.write(' '.join('Z' if x == '<NULL>' else 'S' + x.encode('utf-8').hex() for x in fields))
    out.write('\t' + ' '.join(tag(v) for v in obj.values()) + '\n')
out.write('rows %d %d\n' % (len(rows) - 1, len(objects)))
)";

// An executable python3 on PATH, or empty.
std::string find_python() {
  const char* path = std::getenv("PATH");
  std::stringstream dirs(path ? path : "");
  for (std::string dir; std::getline(dirs, dir, ':');) {
    const fs::path candidate = fs::path(dir) / "python3";
    std::error_code ec;
    if (!dir.empty() && fs::is_regular_file(candidate, ec)) return candidate.string();
  }
  return {};
}

bool json_value_matches(const std::string& got, const std::string& expected) {
  if (expected[0] == 'D' || expected[0] == 'R') {  // read back: the same bits
    if (got[0] != 'N') return false;
    const std::string text = got.substr(1);
    if (expected[0] == 'D') {
      const double d = std::strtod(text.c_str(), nullptr);
      return "D" + bits(&d, sizeof d) == expected;
    }
    const float f = std::strtof(text.c_str(), nullptr);
    return "R" + bits(&f, sizeof f) == expected;
  }
  return got == expected;
}

TEST_F(ClientE2E, CsvAndJsonReadByRealParsersGiveTheServersValues) {
  const std::string python = find_python();
  if (python.empty()) GTEST_SKIP() << "no python3 on PATH";
  constexpr int kRows = 30000;
  const std::string query = mixed_query(kRows);
  start();
  const ProcessResult csv = client({"--quiet", "--format", "csv", "--null", "<NULL>", "-e", query});
  const ProcessResult json = client({"--quiet", "--format", "json", "-e", query});
  ASSERT_EQ(csv.status, 0) << csv.err;
  ASSERT_EQ(json.status, 0) << json.err;
  EXPECT_EQ(csv.err + json.err, "") << "--quiet leaves standard error to errors";
  const std::string script = home_.write("read_formats.py", kReaderScript);
  const std::string csv_file = home_.write("result.csv", csv.out);
  const std::string json_file = home_.write("result.json", json.out);
  ProcessOptions options;
  options.time_limit = std::chrono::seconds(120);
  const ProcessResult read = run_process({python, script, csv_file, json_file}, options);
  ASSERT_EQ(read.status, 0) << read.err;

  const Expected expected = server_values(query);
  ASSERT_EQ(expected.rows.size(), static_cast<size_t>(kRows));
  std::istringstream lines(read.out);
  std::string line;
  std::getline(lines, line);
  std::string names;
  for (const std::string& n : expected.names) names += (names.empty() ? "" : " ") + n;
  EXPECT_EQ(line, names + "\t" + names);
  size_t mismatches = 0;
  for (size_t r = 0; r < expected.rows.size() && std::getline(lines, line); ++r) {
    const size_t tab = line.find('\t');
    std::istringstream csv_cells(line.substr(0, tab)), json_cells(line.substr(tab + 1));
    for (size_t c = 0; c < expected.names.size(); ++c) {
      std::string got_csv, got_json;
      csv_cells >> got_csv;
      json_cells >> got_json;
      const auto& [want_csv, want_json] = expected.rows[r][c];
      if (got_csv != want_csv || !json_value_matches(got_json, want_json)) {
        if (++mismatches <= 5) {
          ADD_FAILURE() << "row " << r << " column " << expected.names[c] << ": csv " << got_csv
                        << " json " << got_json << ", server " << want_csv << " / " << want_json;
        }
      }
    }
  }
  EXPECT_EQ(mismatches, 0u);
  std::getline(lines, line);
  EXPECT_EQ(line, "rows " + std::to_string(kRows) + " " + std::to_string(kRows));
}

// A value of 10 MiB (a text doubled twenty times by nested projections) arrives whole.
TEST_F(ClientE2E, TenMegabyteValueArrivesWhole) {
  std::string query = "Project(Array([i=1]), [s = 'a,b\"c\\n'])";
  for (int i = 0; i < 21; ++i) query = "Project(" + query + ", [s = concat(s, s)])";
  start();
  const std::string quoted = "a,b\"\"c\n";
  for (const auto& [format, head, expected_piece, tail] :
       {std::tuple<std::string, std::string, std::string, std::string>{"csv", "s\n\"", quoted,
                                                                       "\"\n"},
        {"json", "{\"s\":\"", "a,b\\\"c\\n", "\"}\n"},
        {"tsv", "s\n", "a,b\"c\\n", "\n"}}) {
    SCOPED_TRACE(format);
    const ProcessResult r = client({"--quiet", "--format", format, "-e", query});
    ASSERT_EQ(r.status, 0) << r.err;
    const size_t copies = size_t{1} << 21;  // 12 MiB of text
    ASSERT_EQ(r.out.size(), head.size() + copies * expected_piece.size() + tail.size());
    EXPECT_EQ(r.out.substr(0, head.size()), head);
    EXPECT_EQ(r.out.substr(r.out.size() - tail.size()), tail);
    bool whole = true;
    for (size_t k = 0; k < copies && whole; ++k)
      whole = r.out.compare(head.size() + k * expected_piece.size(), expected_piece.size(),
                            expected_piece) == 0;
    EXPECT_TRUE(whole);
  }
}

// --format is checked, -o is not; --timing and --quiet on standard error; settings from a file.
TEST_F(ClientE2E, FormatOptionsAsAUserMeetsThem) {
  start();
  const ProcessResult bogus = client({"--format", "bogus", "-e", "Array([i=1])"});
  EXPECT_EQ(bogus.status, -1);
  EXPECT_EQ(bogus.out, "");
  EXPECT_EQ(bogus.err,
            "Error: unknown format 'bogus' (formats: ascii, unicode, raw, html, csv, tsv, json, "
            "markdown, vertical)\n");

  const ProcessResult o_csv = client({"-o", "csv", "-e", "Array([i=1])"});
  EXPECT_EQ(o_csv.status, 0);
  EXPECT_EQ(o_csv.out,
            "+-----------+\n|i          |\n|sint       |\n+-----------+\n|          0|\n"
            "+-----------+\n(1 row)\n");

  const ProcessResult timed =
      client({"--timing", "--quiet", "--format", "csv", "-e", "Array([i=3]); Array([j=1])"});
  EXPECT_EQ(timed.status, 0);
  EXPECT_EQ(timed.out, "i\n0\n1\n2\nj\n0\n");
  EXPECT_TRUE(std::regex_match(timed.err, std::regex("Time: [0-9]+\\.[0-9]{3} ms, 3 rows\n"
                                                     "Time: [0-9]+\\.[0-9]{3} ms, 1 row\n")))
      << timed.err;

  // The same from a settings file; the command line wins over it.
  const std::string conf =
      home_.write("formats.conf", "[client]\nformat = tsv\nnull = NA\ntiming = no\nquiet = yes\n");
  const char* const query = "Project(Array([i=2]), [n = nullif(i, 0)])";
  const ProcessResult from_file = client({"-c", conf, "-e", query});
  EXPECT_EQ(from_file.out, "n\nNA\n1\n");
  // The settings file is read before its quiet setting is known; nothing below warn follows.
  EXPECT_THAT(from_file.err, HasSubstr("Reading configuration from"));
  EXPECT_THAT(from_file.err, testing::Not(HasSubstr("Starting")));
  const ProcessResult over = client({"-c", conf, "-r", "--null", "-", "-e", query});
  EXPECT_EQ(over.out, "-\n1\n");
}

}  // namespace
