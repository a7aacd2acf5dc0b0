#include "tools/standalone_client/printer.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "kernel/ltype.h"
#include "kernel/s128.h"

namespace {

// One result column, stored as the reception stores it: fixed-size values one after another,
// text values as one pointer per value.
struct Col {
  std::string name;
  uint32_t ltype;
  std::vector<unsigned char> bytes;
  std::vector<std::string> texts;
  bool isconst = false;
};

// Values stored as T, which must be the width of the physical type the logical type uses.
template <typename T>
Col col(std::string name, const char* type, std::vector<T> values, bool isconst = false) {
  Col c{std::move(name), ltype_parse(type), {}, {}, isconst};
  c.bytes.resize(values.size() * sizeof(T));
  if (!values.empty()) std::memcpy(c.bytes.data(), values.data(), c.bytes.size());
  return c;
}

Col strs(std::string name, const char* type, std::vector<std::string> values) {
  return Col{std::move(name), ltype_parse(type), {}, std::move(values)};
}

// A null indicator: empty name, one-byte values.
Col flags(std::vector<uint8_t> values, bool isconst = false) {
  return col<uint8_t>("", "bool", std::move(values), isconst);
}

// A file the printer writes to; contents() reads it through a second handle, so it sees only
// what the printer has flushed.
class Capture {
 public:
  Capture() {
    static int counter = 0;
    const auto stamp = std::chrono::steady_clock::now().time_since_epoch().count();
    path_ = std::filesystem::temp_directory_path() /
            ("kest_printer_" + std::to_string(stamp) + "_" + std::to_string(++counter));
    file_ = std::fopen(path_.string().c_str(), "wb");
  }
  ~Capture() {
    if (file_) std::fclose(file_);
    std::error_code ignored;
    std::filesystem::remove(path_, ignored);
  }
  Capture(const Capture&) = delete;
  Capture& operator=(const Capture&) = delete;

  FILE* stream() const { return file_; }
  std::string contents() const {
    std::ifstream in(path_, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
  }

 private:
  std::filesystem::path path_;
  FILE* file_ = nullptr;
};

// A printer over `cols`; rows() hands it the data areas advanced past the rows already printed.
class Render {
 public:
  explicit Render(std::vector<Col> cols) : cols_(std::move(cols)) {
    types_init();
    for (Col& c : cols_) {
      names_.push_back(c.name.data());
      types_.push_back(ltype_physical(c.ltype));
      ltypes_.push_back(c.ltype);
      isconst_.push_back(c.isconst);
      pointers_.emplace_back();
      for (const std::string& t : c.texts) pointers_.back().push_back(t.c_str());
    }
  }

  ResultPrinter* open(int mode) {
    EXPECT_NE(out_.stream(), nullptr);
    return printer_open(out_.stream(), static_cast<int32_t>(cols_.size()), names_.data(),
                        types_.data(), ltypes_.data(), isconst_.data(), mode);
  }

  void rows(ResultPrinter* p, int64_t start, int64_t count, const int32_t* selection = nullptr) {
    std::vector<void*> data;
    for (size_t i = 0; i < cols_.size(); ++i) {
      const int64_t skip = cols_[i].isconst ? 0 : start;
      if (cols_[i].texts.empty())
        data.push_back(cols_[i].bytes.data() + skip * ptype_width(types_[i]));
      else
        data.push_back(pointers_[i].data() + skip);
    }
    printer_rows(p, data.data(), selection, count);
  }

  // One printer_rows call per entry of `batches`, then the footer.
  std::string run(int mode, const std::vector<int64_t>& batches) {
    ResultPrinter* p = open(mode);
    EXPECT_NE(p, nullptr);
    int64_t start = 0;
    for (int64_t n : batches) {
      rows(p, start, n);
      start += n;
    }
    printer_close(p);
    return out_.contents();
  }

  const Capture& out() const { return out_; }

 private:
  std::vector<Col> cols_;
  std::vector<char*> names_;
  std::vector<const PhysicalType*> types_;
  std::vector<uint32_t> ltypes_;
  std::vector<int32_t> isconst_;
  std::vector<std::vector<const char*>> pointers_;
  Capture out_;
};

std::string render(int mode, std::vector<Col> cols, const std::vector<int64_t>& batches) {
  return Render(std::move(cols)).run(mode, batches);
}

// Goldens are raw literals that start on the line after the opening delimiter.
std::string golden(const char* text) { return text[0] == '\n' ? text + 1 : text; }

// Each mode once, with no rows, one row and rows in two calls; a constant column repeats its one
// value.
TEST(PrinterShapes, EveryModeMatchesItsGolden) {
  const auto columns = [] {
    return std::vector<Col>{col<int32_t>("id", "sint", {7, -12, 300}),
                            col<int64_t>("k", "slng", {42}, true),
                            strs("name", "varchar(8)", {"ab", "", "cdefgh"})};
  };
  const struct {
    int mode;
    std::vector<int64_t> batches;
    const char* expected;
  } cases[] = {{OUTPUT_ASCII, {}, R"(
+-----------+--------------------+----------+
|id         |k                   |name      |
|sint       |slng                |varchar(8)|
+-----------+--------------------+----------+
+-----------+--------------------+----------+
(0 rows)
)"},
               {OUTPUT_ASCII, {2, 1}, R"(
+-----------+--------------------+----------+
|id         |k                   |name      |
|sint       |slng                |varchar(8)|
+-----------+--------------------+----------+
|          7|                  42|ab        |
|        -12|                  42|          |
|        300|                  42|cdefgh    |
+-----------+--------------------+----------+
(3 rows)
)"},
               {OUTPUT_UNICODE, {1}, R"(
┌───────────┬────────────────────┬──────────┐
│id         │k                   │name      │
│sint       │slng                │varchar(8)│
├───────────┼────────────────────┼──────────┤
│          7│                  42│ab        │
└───────────┴────────────────────┴──────────┘
(1 row)
)"},
               {OUTPUT_RAW, {}, ""},
               {OUTPUT_RAW, {2, 1}, "7|42|ab\n-12|42|\n300|42|cdefgh\n"},
               {OUTPUT_HTML,
                {2, 1},
                "<table class=\"znresult\"><thead><tr><th>id</th><th>k</th><th>name</th></tr>"
                "<tr><th>sint</th><th>slng</th><th>varchar(8)</th></tr></thead>"
                "<tr><td align=\"right\">7</td><td align=\"right\">42</td><td>ab</td></tr>"
                "<tr><td align=\"right\">-12</td><td align=\"right\">42</td><td></td></tr>"
                "<tr><td align=\"right\">300</td><td align=\"right\">42</td><td>cdefgh</td></tr>"
                "<tr><td colspan=\"0\">3 rows</td></tr></table>\n"}};
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << "mode " << c.mode << ", " << c.batches.size() << " calls");
    EXPECT_EQ(render(c.mode, columns(), c.batches), golden(c.expected));
  }
}

// Logical types, two rows each, in ascii: the width each type gets, the alignment, and that the
// second value is read at the physical type's stride.
TEST(PrinterTypes, IntegersOfEveryWidth) {
  EXPECT_EQ(render(OUTPUT_ASCII,
                   {col<uint8_t>("bool", "bool", {0, 2}), col<int8_t>("schr", "schr", {-128, 127}),
                    col<uint16_t>("usht", "usht", {0, 65535}),
                    col<uint32_t>("uint", "uint", {0, 4294967295})},
                   {2}),
            golden(R"(
+-----+----+-----+----------+
|bool |schr|usht |uint      |
|bool |schr|usht |uint      |
+-----+----+-----+----------+
|false|-128|    0|         0|
| true| 127|65535|4294967295|
+-----+----+-----+----------+
(2 rows)
)"));
  // The unsigned 8-byte width is 19, so its largest value overruns the box.
  EXPECT_EQ(render(OUTPUT_ASCII,
                   {col<int64_t>("slng", "slng", {INT64_MIN, INT64_MAX}),
                    col<uint64_t>("ulng", "ulng", {0, UINT64_MAX}),
                    col<uint64_t>("uidx", "uidx", {1, UINT64_MAX})},
                   {2}),
            golden(R"(
+--------------------+-------------------+-------------------+
|slng                |ulng               |uidx               |
|slng                |ulng               |uidx               |
+--------------------+-------------------+-------------------+
|-9223372036854775808|                  0|                  1|
| 9223372036854775807|18446744073709551615|18446744073709551615|
+--------------------+-------------------+-------------------+
(2 rows)
)"));
}

TEST(PrinterTypes, DecimalsFloatsAndMoney) {
  EXPECT_EQ(render(OUTPUT_ASCII,
                   {col<s128>("s128", "s128", {{5, 0}, {1, 1}}),
                    col<s128>("dec20", "decimal(20,3)", {{5, 0}, {~4ull, -1}}),
                    col<int64_t>("dec12", "decimal(12,2)", {12345, -5}),
                    col<int32_t>("dec5", "decimal(5,5)", {5, 0})},
                   {2}),
            golden(R"(
+----------------------------------------+----------------------+--------------+------------+
|s128                                    |dec20                 |dec12         |dec5        |
|s128                                    |decimal(20,3)         |decimal(12,2) |decimal(5,5)|
+----------------------------------------+----------------------+--------------+------------+
|                                       5|                 0.005|        123.45|     0.00005|
|                    18446744073709551617|                -0.005|         -0.05|     0.00000|
+----------------------------------------+----------------------+--------------+------------+
(2 rows)
)"));
  EXPECT_EQ(
      render(OUTPUT_ASCII,
             {col<int8_t>("dec2", "decimal(2,1)", {-1, 99}),
              col<double>("money", "money", {12345.0, -1999.0}),
              col<float>("flt", "flt", {0.1f, -3.5f}), col<double>("dbl", "dbl", {0.1, 1e300})},
             {2}),
      golden(R"(
+------------+-----------------+--------------+-----------------------+
|dec2        |money            |flt           |dbl                    |
|decimal(2,1)|money            |flt           |dbl                    |
+------------+-----------------+--------------+-----------------------+
|        -0.1|         $ 123.45|           0.1|                    0.1|
|         9.9|         $ -19.99|          -3.5|                 1e+300|
+------------+-----------------+--------------+-----------------------+
(2 rows)
)"));
}

// A char(1) holds a code point; longer chars and varchars hold strings. Padding counts
// characters, so "€", "é" and "wörld" line up with their ASCII neighbours.
TEST(PrinterTypes, TextsDatesAndIntervals) {
  EXPECT_EQ(
      render(OUTPUT_ASCII,
             {col<int32_t>("c1", "char(1)", {'A', 0x20AC}), strs("c3", "char(3)", {"xyz", "é"}),
              strs("v8", "varchar(8)", {"hello", "wörld"}), strs("s", "str", {"", "plain"})},
             {2}),
      golden(R"(
+-------+-------+----------+------------------------+
|c1     |c3     |v8        |s                       |
|char(1)|char(3)|varchar(8)|str                     |
+-------+-------+----------+------------------------+
|A      |xyz    |hello     |                        |
|€      |é      |wörld     |plain                   |
+-------+-------+----------+------------------------+
(2 rows)
)"));
  const int64_t epoch = 719528LL * 86400;
  EXPECT_EQ(render(OUTPUT_ASCII,
                   {col<int32_t>("date", "date", {719528, 3652424}),
                    col<int32_t>("time3", "time(3)", {45296789, 0}),
                    col<int64_t>("ts6", "timestamp(6)", {epoch * 1000000 + 5, 0}),
                    col<int64_t>("ds2", "intervalds(2)", {12345, -1}),
                    col<int32_t>("ym", "intervalym", {-14, 0})},
                   {2}),
            golden(R"(
+----------+------------+--------------------------+--------------------+----------+
|date      |time3       |ts6                       |ds2                 |ym        |
|date      |time(3)     |timestamp(6)              |intervalds(2)       |intervalym|
+----------+------------+--------------------------+--------------------+----------+
|1970-01-01|12:34:56.789|1970-01-01 00:00:00.000005|       0 00:02:03.45|     -1-02|
|9999-12-31|00:00:00.000|-001-12-31 00:00:00.000000|      -0 00:00:00.01|      0-00|
+----------+------------+--------------------------+--------------------+----------+
(2 rows)
)"));
}

// Hidden indicators: column 0 for "v" (per row), column 2 for "w" (constant, always null),
// column 4 for column 5. Column 5 has an empty name too but follows a hidden column, so it is
// shown; the last column is shown although its name is empty and its values are one byte.
std::vector<Col> null_columns() {
  return {flags({0, 1, 0}),
          col<int32_t>("v", "sint", {1, 2, 3}),
          flags({1}, true),
          strs("w", "varchar(4)", {"a", "b", "c"}),
          flags({1, 0, 0}),
          col<uint8_t>("", "bool", {1, 0, 1}),
          col<int64_t>("x", "slng", {10, 20, 30}),
          col<uint8_t>("", "uchr", {7, 8, 9})};
}

TEST(PrinterNulls, HiddenIndicatorsBlankTheNextColumnInEveryMode) {
  EXPECT_EQ(render(OUTPUT_ASCII, null_columns(), {2, 1}), golden(R"(
+-----------+----------+-----+--------------------+----+
|v          |w         |     |x                   |    |
|sint       |varchar(4)|bool |slng                |uchr|
+-----------+----------+-----+--------------------+----+
|          1|          |     |                  10|   7|
|           |          |false|                  20|   8|
|          3|          | true|                  30|   9|
+-----------+----------+-----+--------------------+----+
(3 rows)
)"));
  EXPECT_EQ(render(OUTPUT_RAW, null_columns(), {2, 1}), "1|||10|7\n||false|20|8\n3||true|30|9\n");
  EXPECT_EQ(render(OUTPUT_HTML, null_columns(), {1}),
            "<table class=\"znresult\"><thead><tr><th>v</th><th>w</th><th></th><th>x</th>"
            "<th></th></tr><tr><th>sint</th><th>varchar(4)</th><th>bool</th><th>slng</th>"
            "<th>uchr</th></tr></thead><tr><td align=\"right\">1</td><td></td>"
            "<td align=\"right\"></td><td align=\"right\">10</td><td align=\"right\">7</td></tr>"
            "<tr><td colspan=\"0\">1 row</td></tr></table>\n");
}

TEST(PrinterNulls, SelectionPicksRowsAndTheirIndicatorBytes) {
  Render r(null_columns());
  ResultPrinter* p = r.open(OUTPUT_RAW);
  const int32_t selection[] = {2, 1, 2};
  r.rows(p, 0, 3, selection);
  printer_close(p);
  EXPECT_EQ(r.out().contents(), "3||true|30|9\n||false|20|8\n3||true|30|9\n");
}

TEST(PrinterZeroColumns, EveryModePrintsOnlyTheFrame) {
  EXPECT_EQ(render(OUTPUT_ASCII, {}, {2}), "+\n|\n|\n+\n|\n|\n+\n(2 rows)\n");
  EXPECT_EQ(render(OUTPUT_UNICODE, {}, {1}), "┌\n│\n│\n├\n│\n└\n(1 row)\n");
  EXPECT_EQ(render(OUTPUT_RAW, {}, {2}), "\n\n");
  EXPECT_EQ(render(OUTPUT_HTML, {}, {2, 3}),
            "<table class=\"znresult\"><tr><td colspan=\"0\">5 rows</td></tr></table>\n");
}

TEST(PrinterWidths, LongNameIsCappedAt128AndOverrunsTheBox) {
  const std::string name(200, 'n');
  const std::string rule = "+" + std::string(128, '-') + "+\n";
  EXPECT_EQ(render(OUTPUT_ASCII, {col<int32_t>(name, "sint", {5})}, {1}),
            rule + "|" + name + "|\n" + "|sint" + std::string(124, ' ') + "|\n" + rule + "|" +
                std::string(127, ' ') + "5|\n" + rule + "(1 row)\n");
}

// Left-aligned texts are padded to the width (11, from "varchar(10)") by characters as the table
// counts them; malformed sequences follow the same counting rule and never read past the text.
TEST(PrinterWidths, TextsArePaddedByCountedCharacters) {
  const struct {
    const char* text;
    size_t chars;
  } cases[] = {
      {"\xC3\xA4\xC3\xB6\xC3\xBC", 3},  // two-byte sequences
      {"\xE2\x82\xAC", 1},              // three bytes
      {"\xF0\x9F\x98\x80", 1},          // four bytes
      {"\xF8\x88\x80\x80\x80", 1},      // five bytes
      {"\xFC\x84\x80\x80\x80\x80", 1},  // six bytes
      {"\xE2\x41\x42", 2},              // the second byte is taken whatever it is
      {"\xF0\x9F\x41", 2},              // a third byte below 128 ends it
      {"\xC3\xA4\xA4", 2},              // a stray continuation byte at the end
      {"\xC3", 1},                      // a lead byte at the end
      {"abcdefgh\xC3\xA4", 9},          // eight plain bytes, then a sequence
      {"abcdefg\xC3\xA4xy", 10},        // a sequence across the eighth byte
      {"abcdefghijklmnop", 16},         // longer than the width: printed whole
  };
  for (const auto& c : cases) {
    const std::string out = render(OUTPUT_ASCII, {strs("t", "varchar(10)", {c.text})}, {1});
    const std::string line =
        "|" + std::string(c.text) + std::string(c.chars < 11 ? 11 - c.chars : 0, ' ') + "|\n";
    EXPECT_NE(out.find("+\n" + line + "+"), std::string::npos) << c.text << "\n" << out;
  }
}

TEST(PrinterWidths, OverlongTextIsCutToTheValueBuffer) {
  EXPECT_EQ(render(OUTPUT_RAW, {strs("t", "str", {std::string(2000, 'x')})}, {1}),
            std::string(1023, 'x') + "\n");
}

TEST(PrinterStreaming, OutputLargerThanTheBufferArrivesWhole) {
  std::vector<std::string> values;
  std::string expected;
  for (int i = 0; i < 3000; ++i) {
    std::string v = std::to_string(i);
    v.append(100 - v.size(), '.');
    expected += "|" + v + "|\n";
    values.push_back(std::move(v));
  }
  const std::string out =
      render(OUTPUT_ASCII, {strs("t", "varchar(100)", values)}, {1024, 1024, 952});
  const size_t body = out.find("|0.");
  ASSERT_NE(body, std::string::npos);
  EXPECT_EQ(out.substr(body, expected.size()), expected);
}

// The printer's text reaches the stream at printer_flush and printer_close, in one piece with
// everything printed since the last flush; what the caller writes after a flush follows it.
TEST(PrinterStreaming, TextReachesTheStreamAtEachFlush) {
  Render r({col<int32_t>("n", "sint", {1, 2})});
  FILE* stream = r.out().stream();
  ResultPrinter* p = r.open(OUTPUT_UNICODE);
  r.rows(p, 0, 1);
  EXPECT_EQ(r.out().contents(), "") << "nothing before a flush";
  printer_flush(p);
  std::fputs("<a>", stream);
  r.rows(p, 1, 1);
  printer_flush(p);
  std::fputs("<b>", stream);
  printer_close(p);
  EXPECT_EQ(r.out().contents(), golden(R"(
┌───────────┐
│n          │
│sint       │
├───────────┤
│          1│
<a>│          2│
<b>└───────────┘
(2 rows)
)"));
}

TEST(PrinterDeathTest, RuleLineOutOfRangeIsAnAssertion) {
  Render r({col<int32_t>("n", "sint", {1})});
  ResultPrinter* p = r.open(OUTPUT_ASCII);
  EXPECT_DEATH(print_rule(p, 3), "assertion \"which >= 0 && which <= 2\" failed");
  printer_close(p);
}

}  // namespace
