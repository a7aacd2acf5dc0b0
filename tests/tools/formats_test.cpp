#include "tools/standalone_client/formats.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include "kernel/s128.h"
#include "support/printed_result.h"

namespace {

using namespace kest_test;

constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();
constexpr double kInf = std::numeric_limits<double>::infinity();

// The names of the modes, in the order of OutputMode.
std::vector<std::string> mode_names() {
  std::vector<std::string> names(1);
  for (char c : kOutputModeNames) {
    if (c == ',') names.emplace_back();
    if (c != ',' && c != ' ') names.back().push_back(c);
  }
  return names;
}
std::string name_of(OutputMode mode) { return mode_names().at(static_cast<size_t>(mode)); }

// Numbers: every integer width, decimals stored in 8 and 16 bytes and in a double (the last two
// values of "dx" print through the double path of 2^63 and more, whose fraction lacks its leading
// zero), floats, money.
std::vector<Col> number_columns() {
  return {col<uint8_t>("b", "bool", {1, 0}),
          col<int8_t>("sc", "schr", {-128, 127}),
          col<uint8_t>("uc", "uchr", {255, 0}),
          col<int32_t>("i", "sint", {-7, 2147483647}),
          col<int64_t>("l", "slng", {INT64_MIN, 42}),
          col<uint64_t>("u", "ulng", {UINT64_MAX, 0}),
          col<s128>("h", "s128", {{5, 0}, {~0ull - 4, -1}}),
          col<int64_t>("d", "decimal(12,2)", {-5, 12345}),
          col<s128>("dd", "decimal(30,3)", {{5, 0}, {~0ull - 4, -1}}),
          col<double>("dx", "decimal(38,25)", {1234.0, 1e19}, false, "dbl"),
          col<float>("f", "flt", {0.1f, -1.5e-7f}),
          col<double>("g", "dbl", {0.1, -0.0}),
          col<double>("m", "money", {12345.0, -1999.0})};
}

// Texts, dates, times and intervals, and a null in a column of each group.
std::vector<Col> text_columns() {
  return {col<int32_t>("c", "char(1)", {',', 0x20AC}),
          strs("v", "varchar(8)", {"plain", ""}),
          nulls({0, 1}),
          strs("nv", "str", {"x", "y"}),
          col<int32_t>("dt", "date", {719528, 3652424}),
          col<int32_t>("t", "time(3)", {45296789, 0}),
          col<int64_t>("ts", "timestamp", {63876387723, 0}),
          col<int64_t>("ids", "intervalds(2)", {12345, -9006100}),
          col<int32_t>("iym", "intervalym", {14, -1}),
          nulls({1, 0}),
          col<int32_t>("n", "sint", {1, 2})};
}

// The awkward texts, one per row, the last one null.
const std::vector<std::string> kAwkward = {"",
                                           "a,b",
                                           "say \"hi\"",
                                           "two\nlines",
                                           "cr\rcrlf\r\n",
                                           "tab\there",
                                           "back\\slash",
                                           "bar|pipe",
                                           std::string("\x01\x1f\x7f", 3),
                                           "h\xC3\xA9llo \xE2\x82\xAC \xF0\x9F\x98\x80",
                                           "bad \xFF \xC3( \xED\xA0\x80 \xF0\x9F\x98 \xE2\x82",
                                           "null next"};

std::vector<Col> awkward_columns() {
  std::vector<uint8_t> flags(kAwkward.size() + 1, 0);
  flags.back() = 1;
  std::vector<std::string> values = kAwkward;
  values.push_back("(null)");
  return {col<int32_t>("#", "sint", {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13}), nulls(flags),
          strs("text, \"quoted\"", "str", values)};
}

// Each format over the type groups and the awkward texts, the last printed from two messages (the
// row numbers of vertical go on across them).
TEST(FormatGoldens, TypeGroupsAndAwkwardTexts) {
  const struct {
    OutputMode mode;
    const char* numbers;
    const char* texts;
    const char* awkward;
  } cases[] = {
      {OutputMode::kCsv,
       R"(
b,sc,uc,i,l,u,h,d,dd,dx,f,g,m
true,-128,255,-7,-9223372036854775808,18446744073709551615,5,-0.05,0.005,0.0000000000000000000001234,0.1,0.1,$ 123.45
false,127,0,2147483647,42,0,-5,123.45,-0.005,.0000010000000000000000000,-1.5e-07,-0,$ -19.99
)",
       R"(
c,v,nv,dt,t,ts,ids,iym,n
",",plain,x,1970-01-01,12:34:56.789,2024-02-29 01:02:03,0 00:02:03.45,1-02,
€,"",,9999-12-31,00:00:00.000,-001-12-31 00:00:00,-1 01:01:01.00,-0-01,2
)",
       "#,\"text, \"\"quoted\"\"\"\n"
       "1,\"\"\n"
       "2,\"a,b\"\n"
       "3,\"say \"\"hi\"\"\"\n"
       "4,\"two\n"
       "lines\"\n"
       "5,\"cr\rcrlf\r\n"
       "\"\n"
       "6,tab\there\n"
       "7,back\\slash\n"
       "8,bar|pipe\n"
       "9,\x01\x1F\x7F\n"
       "10,h\xC3\xA9llo \xE2\x82\xAC \xF0\x9F\x98\x80\n"
       "11,bad \xFF \xC3( \xED\xA0\x80 \xF0\x9F\x98 \xE2\x82\n"
       "12,null next\n"
       "13,\n"},
      {OutputMode::kTsv,
       "b\tsc\tuc\ti\tl\tu\th\td\tdd\tdx\tf\tg\tm\n"
       "true\t-128\t255\t-7\t-9223372036854775808\t18446744073709551615\t5\t-0.05\t0.005\t0."
       "0000000000000000000001234\t0.1\t0.1\t$ 123.45\n"
       "false\t127\t0\t2147483647\t42\t0\t-5\t123.45\t-0.005\t.0000010000000000000000000\t-1.5e-"
       "07\t-0\t$ -19.99\n",
       "c\tv\tnv\tdt\tt\tts\tids\tiym\tn\n"
       ",\tplain\tx\t1970-01-01\t12:34:56.789\t2024-02-29 01:02:03\t0 00:02:03.45\t1-02\t\\N\n"
       "\xE2\x82\xAC\t\t\\N\t9999-12-31\t00:00:00.000\t-001-12-31 00:00:00\t-1 "
       "01:01:01.00\t-0-01\t2\n",
       "#\ttext, \"quoted\"\n"
       "1\t\n"
       "2\ta,b\n"
       "3\tsay \"hi\"\n"
       "4\ttwo\\nlines\n"
       "5\tcr\\rcrlf\\r\\n\n"
       "6\ttab\\there\n"
       "7\tback\\\\slash\n"
       "8\tbar|pipe\n"
       "9\t\x01\x1F\x7F\n"
       "10\th\xC3\xA9llo \xE2\x82\xAC \xF0\x9F\x98\x80\n"
       "11\tbad \xFF \xC3( \xED\xA0\x80 \xF0\x9F\x98 \xE2\x82\n"
       "12\tnull next\n"
       "13\t\\N\n"},
      {OutputMode::kJson,
       R"(
{"b":true,"sc":-128,"uc":255,"i":-7,"l":-9223372036854775808,"u":18446744073709551615,"h":5,"d":-0.05,"dd":0.005,"dx":0.0000000000000000000001234,"f":0.1,"g":0.1,"m":123.45}
{"b":false,"sc":127,"uc":0,"i":2147483647,"l":42,"u":0,"h":-5,"d":123.45,"dd":-0.005,"dx":0.0000010000000000000000000,"f":-1.5e-07,"g":-0,"m":-19.99}
)",
       R"(
{"c":",","v":"plain","nv":"x","dt":"1970-01-01","t":"12:34:56.789","ts":"2024-02-29 01:02:03","ids":"0 00:02:03.45","iym":"1-02","n":null}
{"c":"€","v":"","nv":null,"dt":"9999-12-31","t":"00:00:00.000","ts":"-001-12-31 00:00:00","ids":"-1 01:01:01.00","iym":"-0-01","n":2}
)",
       "{\"#\":1,\"text, \\\"quoted\\\"\":\"\"}\n"
       "{\"#\":2,\"text, \\\"quoted\\\"\":\"a,b\"}\n"
       "{\"#\":3,\"text, \\\"quoted\\\"\":\"say \\\"hi\\\"\"}\n"
       "{\"#\":4,\"text, \\\"quoted\\\"\":\"two\\nlines\"}\n"
       "{\"#\":5,\"text, \\\"quoted\\\"\":\"cr\\rcrlf\\r\\n\"}\n"
       "{\"#\":6,\"text, \\\"quoted\\\"\":\"tab\\there\"}\n"
       "{\"#\":7,\"text, \\\"quoted\\\"\":\"back\\\\slash\"}\n"
       "{\"#\":8,\"text, \\\"quoted\\\"\":\"bar|pipe\"}\n"
       "{\"#\":9,\"text, \\\"quoted\\\"\":\"\\u0001\\u001f\x7F\"}\n"
       "{\"#\":10,\"text, \\\"quoted\\\"\":\"h\xC3\xA9llo \xE2\x82\xAC \xF0\x9F\x98\x80\"}\n"
       "{\"#\":11,\"text, \\\"quoted\\\"\":\"bad \xEF\xBF\xBD \xEF\xBF\xBD( "
       "\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD \xEF\xBF\xBD \xEF\xBF\xBD\"}\n"
       "{\"#\":12,\"text, \\\"quoted\\\"\":\"null next\"}\n"
       "{\"#\":13,\"text, \\\"quoted\\\"\":null}\n"},
      {OutputMode::kMarkdown,
       R"(
| b | sc | uc | i | l | u | h | d | dd | dx | f | g | m |
| --- | ---: | ---: | ---: | ---: | ---: | ---: | ---: | ---: | ---: | ---: | ---: | ---: |
| true | -128 | 255 | -7 | -9223372036854775808 | 18446744073709551615 | 5 | -0.05 | 0.005 | 0.0000000000000000000001234 | 0.1 | 0.1 | $ 123.45 |
| false | 127 | 0 | 2147483647 | 42 | 0 | -5 | 123.45 | -0.005 | .0000010000000000000000000 | -1.5e-07 | -0 | $ -19.99 |
)",
       R"(
| c | v | nv | dt | t | ts | ids | iym | n |
| --- | --- | --- | --- | --- | --- | --- | --- | ---: |
| , | plain | x | 1970-01-01 | 12:34:56.789 | 2024-02-29 01:02:03 | 0 00:02:03.45 | 1-02 |  |
| € |  |  | 9999-12-31 | 00:00:00.000 | -001-12-31 00:00:00 | -1 01:01:01.00 | -0-01 | 2 |
)",
       "| # | text, \"quoted\" |\n"
       "| ---: | --- |\n"
       "| 1 |  |\n"
       "| 2 | a,b |\n"
       "| 3 | say \"hi\" |\n"
       "| 4 | two<br>lines |\n"
       "| 5 | cr<br>crlf<br> |\n"
       "| 6 | tab\there |\n"
       "| 7 | back\\slash |\n"
       "| 8 | bar\\|pipe |\n"
       "| 9 | \x01\x1F\x7F |\n"
       "| 10 | h\xC3\xA9llo \xE2\x82\xAC \xF0\x9F\x98\x80 |\n"
       "| 11 | bad \xFF \xC3( \xED\xA0\x80 \xF0\x9F\x98 \xE2\x82 |\n"
       "| 12 | null next |\n"
       "| 13 |  |\n"},
      {OutputMode::kVertical,
       R"(
-[ row 1 ]
b  | true
sc | -128
uc | 255
i  | -7
l  | -9223372036854775808
u  | 18446744073709551615
h  | 5
d  | -0.05
dd | 0.005
dx | 0.0000000000000000000001234
f  | 0.1
g  | 0.1
m  | $ 123.45
-[ row 2 ]
b  | false
sc | 127
uc | 0
i  | 2147483647
l  | 42
u  | 0
h  | -5
d  | 123.45
dd | -0.005
dx | .0000010000000000000000000
f  | -1.5e-07
g  | -0
m  | $ -19.99
(2 rows)
)",
       R"(
-[ row 1 ]
c   | ,
v   | plain
nv  | x
dt  | 1970-01-01
t   | 12:34:56.789
ts  | 2024-02-29 01:02:03
ids | 0 00:02:03.45
iym | 1-02
n   | 
-[ row 2 ]
c   | €
v   | 
nv  | 
dt  | 9999-12-31
t   | 00:00:00.000
ts  | -001-12-31 00:00:00
ids | -1 01:01:01.00
iym | -0-01
n   | 2
(2 rows)
)",
       "-[ row 1 ]\n"
       "#              | 1\n"
       "text, \"quoted\" | \n"
       "-[ row 2 ]\n"
       "#              | 2\n"
       "text, \"quoted\" | a,b\n"
       "-[ row 3 ]\n"
       "#              | 3\n"
       "text, \"quoted\" | say \"hi\"\n"
       "-[ row 4 ]\n"
       "#              | 4\n"
       "text, \"quoted\" | two\n"
       "                 lines\n"
       "-[ row 5 ]\n"
       "#              | 5\n"
       "text, \"quoted\" | cr\rcrlf\r\n"
       "                 \n"
       "-[ row 6 ]\n"
       "#              | 6\n"
       "text, \"quoted\" | tab\there\n"
       "-[ row 7 ]\n"
       "#              | 7\n"
       "text, \"quoted\" | back\\slash\n"
       "-[ row 8 ]\n"
       "#              | 8\n"
       "text, \"quoted\" | bar|pipe\n"
       "-[ row 9 ]\n"
       "#              | 9\n"
       "text, \"quoted\" | \x01\x1F\x7F\n"
       "-[ row 10 ]\n"
       "#              | 10\n"
       "text, \"quoted\" | h\xC3\xA9llo \xE2\x82\xAC \xF0\x9F\x98\x80\n"
       "-[ row 11 ]\n"
       "#              | 11\n"
       "text, \"quoted\" | bad \xFF \xC3( \xED\xA0\x80 \xF0\x9F\x98 \xE2\x82\n"
       "-[ row 12 ]\n"
       "#              | 12\n"
       "text, \"quoted\" | null next\n"
       "-[ row 13 ]\n"
       "#              | 13\n"
       "text, \"quoted\" | \n"
       "(13 rows)\n"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(name_of(c.mode));
    EXPECT_EQ(print(c.mode, number_columns(), {1, 1}), golden(c.numbers));
    EXPECT_EQ(print(c.mode, text_columns(), {2}), golden(c.texts));
    EXPECT_EQ(print(c.mode, awkward_columns(), {5, 8}), golden(c.awkward));
  }
}

// A sint and a text column, each null in one of the two rows.
std::vector<Col> two_nulls() {
  return {nulls({0, 1}), col<int32_t>("n", "sint", {5, 6}), nulls({1, 0}),
          strs("t", "varchar(3)", {"a", "b"})};
}

// The null text replaces every mode's own null, classic modes included; without the header the
// data formats start with the rows.
TEST(FormatOptions, NullTextAndNoHeader) {
  const PrintOptions null_text{"NULL", true};
  const PrintOptions bare{"", false};
  const struct {
    OutputMode mode;
    PrintOptions options;
    const char* expected;
  } cases[] = {
      {OutputMode::kCsv, null_text, "n,t\n5,NULL\nNULL,b\n"},
      {OutputMode::kCsv, bare, "5,\n,b\n"},
      {OutputMode::kTsv, null_text, "n\tt\n5\tNULL\nNULL\tb\n"},
      {OutputMode::kTsv, bare, "5\t\n\tb\n"},
      {OutputMode::kJson, null_text, "{\"n\":5,\"t\":\"NULL\"}\n{\"n\":\"NULL\",\"t\":\"b\"}\n"},
      {OutputMode::kJson, PrintOptions{"\"\n", true},
       "{\"n\":5,\"t\":\"\\\"\\n\"}\n{\"n\":\"\\\"\\n\",\"t\":\"b\"}\n"},
      {OutputMode::kMarkdown, null_text, "| n | t |\n| ---: | --- |\n| 5 | NULL |\n| NULL | b |\n"},
      {OutputMode::kMarkdown, bare, "| 5 |  |\n|  | b |\n"},
      {OutputMode::kVertical, null_text,
       "-[ row 1 ]\nn | 5\nt | NULL\n-[ row 2 ]\nn | NULL\nt | b\n(2 rows)\n"},
      {OutputMode::kRaw, null_text, "5|NULL\nNULL|b\n"},
      {OutputMode::kRaw, bare, "5|\n|b\n"},
      {OutputMode::kHtml, null_text,
       "<table class=\"znresult\"><thead><tr><th>n</th><th>t</th></tr><tr><th>sint</th>"
       "<th>varchar(3)</th></tr></thead><tr><td align=\"right\">5</td><td>NULL</td></tr>"
       "<tr><td align=\"right\">NULL</td><td>b</td></tr><tr><td colspan=\"0\">2 rows</td></tr>"
       "</table>\n"},
      {OutputMode::kAscii, null_text, R"(
+-----------+----------+
|n          |t         |
|sint       |varchar(3)|
+-----------+----------+
|          5|NULL      |
|       NULL|b         |
+-----------+----------+
(2 rows)
)"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << static_cast<int>(c.mode) << " " << c.options.null_text);
    EXPECT_EQ(print(c.mode, two_nulls(), {2}, c.options), golden(c.expected));
  }
}

// The classic modes cut a null text as they cut values.
TEST(FormatOptions, ClassicModesCutALongNullText) {
  const std::string text(2000, 'n');
  EXPECT_EQ(print(OutputMode::kRaw, two_nulls(), {1}, {text.c_str(), true}),
            "5|" + std::string(1023, 'n') + "\n");
}

TEST(FormatLayouts, ZeroColumnsAndPaddingByCharacters) {
  const struct {
    OutputMode mode;
    std::vector<Col> cols;
    const char* expected;
  } cases[] = {
      {OutputMode::kCsv, {}, "\n\n\n"},
      {OutputMode::kTsv, {}, "\n\n\n"},
      {OutputMode::kJson, {}, "{}\n{}\n"},
      {OutputMode::kMarkdown, {}, "|\n|\n|\n|\n"},
      {OutputMode::kVertical, {}, "-[ row 1 ]\n-[ row 2 ]\n(2 rows)\n"},
      // Names are padded by characters; each line after a line feed in a value lines up under it.
      {OutputMode::kVertical,
       {strs("\xC3\xA9t\xC3\xA9", "str", {"x", "l1\nl2\nl3"}), strs("long", "str", {"y", "z"})},
       "-[ row 1 ]\n\xC3\xA9t\xC3\xA9  | x\nlong | y\n-[ row 2 ]\n\xC3\xA9t\xC3\xA9  | l1\n       "
       "l2\n"
       "       l3\nlong | z\n(2 rows)\n"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(name_of(c.mode));
    EXPECT_EQ(print(c.mode, c.cols, {2}), c.expected);
  }
}

// One value, in every format, as the format writes it: a simple model of each escape applied to
// the whole value must give what the printer writes in pieces.
std::string replaced(std::string text,
                     const std::vector<std::pair<std::string, std::string>>& map) {
  std::string out;
  for (size_t i = 0; i < text.size();) {
    bool hit = false;
    for (const auto& [from, to] : map) {
      if (text.compare(i, from.size(), from) == 0) {
        out += to;
        i += from.size();
        hit = true;
        break;
      }
    }
    if (!hit) out += text[i++];
  }
  return out;
}

// 1 MiB and more, with every byte an escape or quote acts on, and multibyte characters and CR LF
// pairs falling across every boundary of the pieces the printer writes in.
TEST(FormatLongValues, AMegabyteValueArrivesWholeInEveryFormat) {
  std::string value;
  while (value.size() < (1u << 20)) value += "ab,\"|\\\t\xC3\xA9\r\n\xE2\x82\xACxyz";
  const std::vector<Col> cols = {strs("v", "str", {value})};
  const struct {
    OutputMode mode;
    std::string expected;
  } cases[] = {
      {OutputMode::kCsv, "v\n\"" + replaced(value, {{"\"", "\"\""}}) + "\"\n"},
      {OutputMode::kTsv,
       "v\n" + replaced(value, {{"\\", "\\\\"}, {"\t", "\\t"}, {"\n", "\\n"}, {"\r", "\\r"}}) +
           "\n"},
      {OutputMode::kJson,
       "{\"v\":\"" +
           replaced(value,
                    {{"\\", "\\\\"}, {"\"", "\\\""}, {"\t", "\\t"}, {"\n", "\\n"}, {"\r", "\\r"}}) +
           "\"}\n"},
      {OutputMode::kMarkdown,
       "| v |\n| --- |\n| " + replaced(value, {{"|", "\\|"}, {"\r\n", "<br>"}}) + " |\n"},
      {OutputMode::kVertical,
       "-[ row 1 ]\nv | " + replaced(value, {{"\n", "\n    "}}) + "\n(1 row)\n"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(name_of(c.mode));
    const std::string out = print(c.mode, cols, {1});
    EXPECT_EQ(out.size(), c.expected.size());
    EXPECT_TRUE(out == c.expected);  // not printed: a megabyte
  }
}

// JSON: what is no JSON number becomes one or null; floats read back to the same value.
TEST(FormatJson, NumbersAreJsonNumbersOrNull) {
  const struct {
    Col column;
    const char* value;
  } cases[] = {
      {col<double>("v", "dbl", {kNaN}), "null"},
      {col<double>("v", "dbl", {-kInf}), "null"},
      {col<double>("v", "dbl", {1e300}), "1e+300"},
      {col<double>("v", "dbl", {5e-324}), "5e-324"},
      {col<double>("v", "dbl", {0.1 + 0.2}), "0.30000000000000004"},
      {col<float>("v", "flt", {3.4028235e38f}), "3.4028235e+38"},
      {col<float>("v", "flt", {std::numeric_limits<float>::infinity()}), "null"},
      {col<float>("v", "dbl", {0.1f}, false, "flt"), "0.1"},  // the float's own shortest text
      {col<double>("v", "money", {kNaN}), "null"},
      {col<double>("v", "money", {-0.4}), "-0.00"},
      {col<double>("v", "decimal(30,2)", {kInf}, false, "dbl"), "null"},
      {col<double>("v", "decimal(38,25)", {-1e19}, false, "dbl"), "-0.0000010000000000000000000"},
      {col<double>("v", "decimal(12,2)", {-5.0}, false, "dbl"), "-0.05"},
      {col<uint8_t>("v", "bool", {2}), "true"},
      {col<int32_t>("v", "char(1)", {'"'}), "\"\\\"\""},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(print(OutputMode::kJson, {c.column}, {1}), "{\"v\":" + std::string(c.value) + "}\n")
        << c.value;
  }
}

TEST(FormatJson, DoublesReadBackBitForBit) {
  const unsigned seed = std::random_device{}();
  SCOPED_TRACE(testing::Message() << "seed " << seed);
  std::mt19937_64 random(seed);
  std::vector<double> values;
  while (values.size() < 2000) {
    const uint64_t bits = random();
    double v;
    std::memcpy(&v, &bits, sizeof v);
    if (std::isfinite(v)) values.push_back(v);
  }
  const std::string out = print(OutputMode::kJson, {col<double>("v", "dbl", values)},
                                {static_cast<int64_t>(values.size())});
  size_t at = 0;
  for (double v : values) {
    ASSERT_EQ(out.compare(at, 5, "{\"v\":"), 0);
    const size_t end = out.find('}', at);
    const std::string text = out.substr(at + 5, end - at - 5);
    ASSERT_TRUE(is_json_number(text)) << text;
    const double back = std::strtod(text.c_str(), nullptr);
    EXPECT_EQ(std::memcmp(&back, &v, sizeof v), 0) << text;
    at = end + 2;
  }
}

// Ill-formed UTF-8: each maximal ill-formed part is one U+FFFD; well-formed text stays.
TEST(FormatJson, InvalidUtf8BecomesReplacementCharacters) {
  const std::string r = "\xEF\xBF\xBD";
  const struct {
    std::string text;
    std::string expected;
  } cases[] = {
      {"\xC0\x80", r + r},                       // overlong two bytes: no such lead
      {"\xE0\x80\x80", r + r + r},               // overlong three bytes
      {"\xED\xA0\x80", r + r + r},               // a surrogate
      {"\xF4\x90\x80\x80", r + r + r + r},       // above U+10FFFF
      {"\xF4\x8F\xBF\xBF", "\xF4\x8F\xBF\xBF"},  // U+10FFFF
      {"\xF5\x80", r + r},
      {"\xE2\x82x", r + "x"},  // cut short: one replacement
      {"\xF0\x9F\x98", r},
      {"\x80\xBF", r + r},  // lone continuation bytes
      {"\xDF\xBF\xE0\xA0\x80", "\xDF\xBF\xE0\xA0\x80"},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(print(OutputMode::kJson, {strs("v", "str", {c.text})}, {1}),
              "{\"v\":\"" + c.expected + "\"}\n")
        << testing::PrintToString(c.text);
  }
}

TEST(FormatJson, NumberGrammar) {
  for (const char* yes :
       {"0", "-0", "7", "-12", "0.5", "-0.05", "1e5", "1E+5", "2.5e-07", "18446744073709551615"}) {
    EXPECT_TRUE(is_json_number(yes)) << yes;
  }
  for (const char* no : {"", "-", "01", ".5", "-.5", "5.", "1e", "1e+", "+1", "nan", "inf",
                         "$ 1.00", "1 ", "0x1", "1.5.2"}) {
    EXPECT_FALSE(is_json_number(no)) << no;
  }
}

// csv and tsv read back to the stored texts: random texts over an alphabet of the bytes that
// matter, in random messages, parsed by small readers written from the formats' rules.
std::vector<std::vector<std::string>> read_csv(const std::string& text) {
  std::vector<std::vector<std::string>> rows(1, std::vector<std::string>(1));
  for (size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    if (c == '"') {  // a quoted field runs to the lone quote
      for (++i; !(text[i] == '"' && (i + 1 == text.size() || text[i + 1] != '"')); ++i) {
        rows.back().back() += text[i];
        if (text[i] == '"') ++i;
      }
    } else if (c == ',') {
      rows.back().emplace_back();
    } else if (c == '\n') {
      rows.emplace_back(1);
    } else {
      rows.back().back() += c;
    }
  }
  rows.pop_back();  // after the last line feed
  return rows;
}

std::vector<std::vector<std::string>> read_tsv(const std::string& text) {
  std::vector<std::vector<std::string>> rows(1, std::vector<std::string>(1));
  for (size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    if (c == '\\') {
      const char e = text[++i];
      rows.back().back() += e == 't' ? '\t' : e == 'n' ? '\n' : e == 'r' ? '\r' : e;
    } else if (c == '\t') {
      rows.back().emplace_back();
    } else if (c == '\n') {
      rows.emplace_back(1);
    } else {
      rows.back().back() += c;
    }
  }
  rows.pop_back();
  return rows;
}

TEST(FormatReadBack, CsvAndTsvGiveBackTheStoredTexts) {
  const unsigned seed = std::random_device{}();
  SCOPED_TRACE(testing::Message() << "seed " << seed);
  std::mt19937 random(seed);
  const std::string alphabet = ",\"\r\n\t\\| a\xC3";
  std::vector<std::string> a, b;
  for (int i = 0; i < 3000; ++i) {
    for (auto* column : {&a, &b}) {
      std::string text(random() % 12, ' ');
      for (char& ch : text) ch = alphabet[random() % alphabet.size()];
      column->push_back(text);
    }
  }
  std::vector<int64_t> batches;
  for (int64_t left = 3000; left > 0;) {
    batches.push_back(std::min<int64_t>(left, 1 + random() % 700));
    left -= batches.back();
  }
  const auto cols = [&] { return std::vector<Col>{strs("a", "str", a), strs("b", "str", b)}; };
  for (OutputMode mode : {OutputMode::kCsv, OutputMode::kTsv}) {
    SCOPED_TRACE(name_of(mode));
    const std::string out = print(mode, cols(), batches);
    const auto rows = mode == OutputMode::kCsv ? read_csv(out) : read_tsv(out);
    ASSERT_EQ(rows.size(), 3001u);
    EXPECT_EQ(rows[0], (std::vector<std::string>{"a", "b"}));
    for (size_t i = 0; i < a.size(); ++i) {
      ASSERT_EQ(rows[i + 1], (std::vector<std::string>{a[i], b[i]})) << "row " << i;
    }
  }
}

TEST(FormatNames, EveryNameAndNothingElse) {
  const std::vector<std::string> names = mode_names();
  ASSERT_EQ(names.size(), 9u);
  for (size_t i = 0; i < names.size(); ++i)
    EXPECT_EQ(output_mode_by_name(names[i]), static_cast<OutputMode>(i)) << names[i];
  for (const char* no : {"CSV", "json ", "", "md"})
    EXPECT_EQ(output_mode_by_name(no), std::nullopt) << no;
}

}  // namespace
