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

namespace {

// One result column, stored as the reception stores it: fixed-size values in the physical type
// that ltype_physical gives, text values as one pointer per value.
struct Col {
  std::string name;
  uint32_t ltype;
  std::vector<unsigned char> bytes;
  std::vector<std::string> texts;
  bool isconst = false;
};

uint32_t decimal(uint32_t p, uint32_t s) { return LTYPE_DECIMAL | p << 8 | s << 16; }
uint32_t with_length(uint32_t id, uint32_t n) { return id | n << 8; }
uint32_t with_fraction(uint32_t id, uint32_t f) { return id | f << 16; }

int value_width(uint32_t ltype) {
  types_init();
  return ptype_width(ltype_physical(ltype));
}

// Integers of any width; a 16-byte value is given as {low word, high word}.
Col ints(std::string name, uint32_t ltype, std::vector<int64_t> values, bool isconst = false) {
  Col c{std::move(name), ltype, {}, {}, isconst};
  const size_t width = static_cast<size_t>(value_width(ltype));
  for (int64_t v : values) {
    const int64_t high = v < 0 ? -1 : 0;
    const size_t at = c.bytes.size();
    c.bytes.resize(at + width);
    std::memcpy(&c.bytes[at], &v, std::min(width, sizeof v));
    if (width == 16) std::memcpy(&c.bytes[at + 8], &high, 8);
  }
  return c;
}

Col s128s(std::string name, uint32_t ltype, std::vector<std::pair<uint64_t, int64_t>> values) {
  Col c{std::move(name), ltype, {}, {}, false};
  for (auto [low, high] : values) {
    const size_t at = c.bytes.size();
    c.bytes.resize(at + 16);
    std::memcpy(&c.bytes[at], &low, 8);
    std::memcpy(&c.bytes[at + 8], &high, 8);
  }
  return c;
}

Col floats(std::string name, uint32_t ltype, std::vector<double> values) {
  Col c{std::move(name), ltype, {}, {}, false};
  const bool single = value_width(ltype) == 4;
  for (double v : values) {
    const float f = static_cast<float>(v);
    const size_t at = c.bytes.size();
    c.bytes.resize(at + (single ? 4 : 8));
    std::memcpy(&c.bytes[at], single ? static_cast<const void*>(&f) : &v, single ? 4 : 8);
  }
  return c;
}

Col strs(std::string name, uint32_t ltype, std::vector<std::string> values, bool isconst = false) {
  return Col{std::move(name), ltype, {}, std::move(values), isconst};
}

// A null indicator: empty name, one-byte values.
Col flags(std::vector<int64_t> values, bool isconst = false) {
  return ints("", LTYPE_BOOL, std::move(values), isconst);
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

// Opens a printer over `cols`; each entry of `batches` is one printer_rows call over the next
// rows, with every non-constant area advanced past the rows already printed.
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
    names_.push_back(nullptr);
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
      if (!cols_[i].texts.empty()) {
        data.push_back(pointers_[i].data() + skip);
      } else {
        data.push_back(cols_[i].bytes.data() + skip * ptype_width(types_[i]));
      }
    }
    printer_rows(p, data.data(), selection, count);
  }

  std::string run(int mode, std::vector<int64_t> batches) {
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

std::string render(int mode, std::vector<Col> cols, std::vector<int64_t> batches) {
  return Render(std::move(cols)).run(mode, std::move(batches));
}

// Goldens are raw literals that start on the line after the opening delimiter.
std::string golden(const char* text) { return text[0] == '\n' ? text + 1 : text; }

std::vector<Col> shape_columns() {
  return {ints("id", LTYPE_SINT, {7, -12, 300}), ints("k", LTYPE_SLNG, {42}, true),
          strs("name", with_length(LTYPE_VCHAR, 8), {"ab", "", "cdefgh"})};
}

struct ShapeCase {
  const char* label;
  int mode;
  std::vector<int64_t> batches;
  const char* expected;
};

void PrintTo(const ShapeCase& c, std::ostream* os) { *os << c.label; }

class PrinterShapes : public testing::TestWithParam<ShapeCase> {};

TEST_P(PrinterShapes, MatchGolden) {
  EXPECT_EQ(render(GetParam().mode, shape_columns(), GetParam().batches),
            golden(GetParam().expected));
}

const ShapeCase kShapeCases[] = {
    {"AsciiNoRows", OUTPUT_ASCII, {}, R"(
+-----------+--------------------+----------+
|id         |k                   |name      |
|sint       |slng                |varchar(8)|
+-----------+--------------------+----------+
+-----------+--------------------+----------+
(0 rows)
)"},
    {"AsciiOneRow", OUTPUT_ASCII, {1}, R"(
+-----------+--------------------+----------+
|id         |k                   |name      |
|sint       |slng                |varchar(8)|
+-----------+--------------------+----------+
|          7|                  42|ab        |
+-----------+--------------------+----------+
(1 row)
)"},
    {"AsciiTwoCalls", OUTPUT_ASCII, {2, 1}, R"(
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
    {"UnicodeNoRows", OUTPUT_UNICODE, {}, R"(
┌───────────┬────────────────────┬──────────┐
│id         │k                   │name      │
│sint       │slng                │varchar(8)│
├───────────┼────────────────────┼──────────┤
└───────────┴────────────────────┴──────────┘
(0 rows)
)"},
    {"UnicodeOneRow", OUTPUT_UNICODE, {1}, R"(
┌───────────┬────────────────────┬──────────┐
│id         │k                   │name      │
│sint       │slng                │varchar(8)│
├───────────┼────────────────────┼──────────┤
│          7│                  42│ab        │
└───────────┴────────────────────┴──────────┘
(1 row)
)"},
    {"UnicodeTwoCalls", OUTPUT_UNICODE, {2, 1}, R"(
┌───────────┬────────────────────┬──────────┐
│id         │k                   │name      │
│sint       │slng                │varchar(8)│
├───────────┼────────────────────┼──────────┤
│          7│                  42│ab        │
│        -12│                  42│          │
│        300│                  42│cdefgh    │
└───────────┴────────────────────┴──────────┘
(3 rows)
)"},
    {"RawNoRows", OUTPUT_RAW, {}, ""},
    {"RawOneRow", OUTPUT_RAW, {1}, "7|42|ab\n"},
    {"RawTwoCalls", OUTPUT_RAW, {2, 1}, R"(
7|42|ab
-12|42|
300|42|cdefgh
)"},
    {"HtmlNoRows",
     OUTPUT_HTML,
     {},
     "<table class=\"znresult\"><thead><tr><th>id</th><th>k</th><th>name</th></tr>"
     "<tr><th>sint</th><th>slng</th><th>varchar(8)</th></tr></thead>"
     "<tr><td colspan=\"0\">0 rows</td></tr></table>\n"},
    {"HtmlOneRow",
     OUTPUT_HTML,
     {1},
     "<table class=\"znresult\"><thead><tr><th>id</th><th>k</th><th>name</th></tr>"
     "<tr><th>sint</th><th>slng</th><th>varchar(8)</th></tr></thead>"
     "<tr><td align=\"right\">7</td><td align=\"right\">42</td><td>ab</td></tr>"
     "<tr><td colspan=\"0\">1 row</td></tr></table>\n"},
    {"HtmlTwoCalls",
     OUTPUT_HTML,
     {2, 1},
     "<table class=\"znresult\"><thead><tr><th>id</th><th>k</th><th>name</th></tr>"
     "<tr><th>sint</th><th>slng</th><th>varchar(8)</th></tr></thead>"
     "<tr><td align=\"right\">7</td><td align=\"right\">42</td><td>ab</td></tr>"
     "<tr><td align=\"right\">-12</td><td align=\"right\">42</td><td></td></tr>"
     "<tr><td align=\"right\">300</td><td align=\"right\">42</td><td>cdefgh</td></tr>"
     "<tr><td colspan=\"0\">3 rows</td></tr></table>\n"},
};

INSTANTIATE_TEST_SUITE_P(ModesByRowCount, PrinterShapes, testing::ValuesIn(kShapeCases),
                         [](const auto& info) { return std::string(info.param.label); });

// Every logical type, two rows each, in ascii: the width each type gets, the alignment, and that
// the second value is read at the physical type's stride.
struct TypeCase {
  const char* label;
  std::vector<Col> (*columns)();
  const char* expected;
};

void PrintTo(const TypeCase& c, std::ostream* os) { *os << c.label; }

class PrinterTypes : public testing::TestWithParam<TypeCase> {};

TEST_P(PrinterTypes, MatchGolden) {
  EXPECT_EQ(render(OUTPUT_ASCII, GetParam().columns(), {2}), golden(GetParam().expected));
}

const TypeCase kTypeCases[] = {
    {"NarrowIntegers",
     [] {
       return std::vector<Col>{ints("bool", LTYPE_BOOL, {0, 2}),
                               ints("schr", LTYPE_SCHR, {-128, 127}),
                               ints("uchr", LTYPE_UCHR, {0, 255}),
                               ints("ssht", LTYPE_SSHT, {-32768, 32767}),
                               ints("usht", LTYPE_USHT, {0, 65535}),
                               ints("sint", LTYPE_SINT, {-2147483647 - 1, 2147483647}),
                               ints("uint", LTYPE_UINT, {0, 4294967295})};
     },
     R"(
+-----+----+----+------+-----+-----------+----------+
|bool |schr|uchr|ssht  |usht |sint       |uint      |
|bool |schr|uchr|ssht  |usht |sint       |uint      |
+-----+----+----+------+-----+-----------+----------+
|false|-128|   0|-32768|    0|-2147483648|         0|
| true| 127| 255| 32767|65535| 2147483647|4294967295|
+-----+----+----+------+-----+-----------+----------+
(2 rows)
)"},
    // The unsigned 8-byte width is 19, so its largest value overruns the box.
    {"EightByteIntegers",
     [] {
       return std::vector<Col>{ints("slng", LTYPE_SLNG, {INT64_MIN, INT64_MAX}),
                               ints("ulng", LTYPE_ULNG, {0, -1}),
                               ints("uidx", LTYPE_UIDX, {1, -1})};
     },
     R"(
+--------------------+-------------------+-------------------+
|slng                |ulng               |uidx               |
|slng                |ulng               |uidx               |
+--------------------+-------------------+-------------------+
|-9223372036854775808|                  0|                  1|
| 9223372036854775807|18446744073709551615|18446744073709551615|
+--------------------+-------------------+-------------------+
(2 rows)
)"},
    {"SixteenByteValues",
     [] {
       return std::vector<Col>{s128s("s128", LTYPE_S128, {{5, 0}, {1, 1}}),
                               s128s("dec20", decimal(20, 3), {{5, 0}, {~4ull, -1}})};
     },
     R"(
+----------------------------------------+----------------------+
|s128                                    |dec20                 |
|s128                                    |decimal(20,3)         |
+----------------------------------------+----------------------+
|                                       5|                 0.005|
|                    18446744073709551617|                -0.005|
+----------------------------------------+----------------------+
(2 rows)
)"},
    {"DecimalsAndMoney",
     [] {
       return std::vector<Col>{
           ints("dec12", decimal(12, 2), {12345, -5}), ints("dec5", decimal(5, 5), {5, 0}),
           ints("dec2", decimal(2, 1), {-1, 99}), floats("money", LTYPE_MONEY, {12345.0, -1999.0})};
     },
     R"(
+--------------+------------+------------+-----------------+
|dec12         |dec5        |dec2        |money            |
|decimal(12,2) |decimal(5,5)|decimal(2,1)|money            |
+--------------+------------+------------+-----------------+
|        123.45|     0.00005|        -0.1|         $ 123.45|
|         -0.05|     0.00000|         9.9|         $ -19.99|
+--------------+------------+------------+-----------------+
(2 rows)
)"},
    {"Floats",
     [] {
       return std::vector<Col>{floats("flt", LTYPE_FLT4, {0.1, -3.5}),
                               floats("dbl", LTYPE_FLT8, {0.1, 1e300})};
     },
     R"(
+--------------+-----------------------+
|flt           |dbl                    |
|flt           |dbl                    |
+--------------+-----------------------+
|           0.1|                    0.1|
|          -3.5|                 1e+300|
+--------------+-----------------------+
(2 rows)
)"},
    // A char(1) holds a code point; longer chars and varchars hold strings. Padding counts
    // characters, so "€", "é" and "wörld" line up with their ASCII neighbours.
    {"Texts",
     [] {
       return std::vector<Col>{ints("c1", with_length(LTYPE_CHAR, 1), {'A', 0x20AC}),
                               strs("c3", with_length(LTYPE_CHAR, 3), {"xyz", "é"}),
                               strs("v8", with_length(LTYPE_VCHAR, 8), {"hello", "wörld"}),
                               strs("s", LTYPE_VCHAR, {"", "plain"})};
     },
     R"(
+-------+-------+----------+------------------------+
|c1     |c3     |v8        |s                       |
|char(1)|char(3)|varchar(8)|str                     |
+-------+-------+----------+------------------------+
|A      |xyz    |hello     |                        |
|€      |é      |wörld     |plain                   |
+-------+-------+----------+------------------------+
(2 rows)
)"},
    {"DatesAndTimes",
     [] {
       const int64_t epoch = 719528LL * 86400;
       return std::vector<Col>{
           ints("date", LTYPE_DATE, {719528, 3652424}), ints("time", LTYPE_TIME, {0, 90061}),
           ints("time3", with_fraction(LTYPE_TIME, 3), {45296789, 0}),
           ints("ts", LTYPE_TIMESTAMP, {epoch, epoch + 3661}),
           ints("ts6", with_fraction(LTYPE_TIMESTAMP, 6), {epoch * 1000000 + 5, 0})};
     },
     R"(
+----------+--------+------------+-------------------+--------------------------+
|date      |time    |time3       |ts                 |ts6                       |
|date      |time    |time(3)     |timestamp          |timestamp(6)              |
+----------+--------+------------+-------------------+--------------------------+
|1970-01-01|00:00:00|12:34:56.789|1970-01-01 00:00:00|1970-01-01 00:00:00.000005|
|9999-12-31|25:01:01|00:00:00.000|1970-01-01 01:01:01|-001-12-31 00:00:00.000000|
+----------+--------+------------+-------------------+--------------------------+
(2 rows)
)"},
    {"Intervals",
     [] {
       return std::vector<Col>{ints("ds", LTYPE_INTERVALDS, {-90061, 0}),
                               ints("ds2", with_fraction(LTYPE_INTERVALDS, 2), {12345, -1}),
                               ints("ym", LTYPE_INTERVALYM, {-14, 0})};
     },
     R"(
+-----------------+--------------------+----------+
|ds               |ds2                 |ym        |
|intervalds       |intervalds(2)       |intervalym|
+-----------------+--------------------+----------+
|      -1 01:01:01|       0 00:02:03.45|     -1-02|
|       0 00:00:00|      -0 00:00:00.01|      0-00|
+-----------------+--------------------+----------+
(2 rows)
)"},
};

INSTANTIATE_TEST_SUITE_P(EveryLogicalType, PrinterTypes, testing::ValuesIn(kTypeCases),
                         [](const auto& info) { return std::string(info.param.label); });

// Hidden indicators: column 0 for "v" (per row), column 2 for "w" (constant, always null),
// column 4 for column 5. Column 5 has an empty name too but follows a hidden column, so it is
// shown; the last column is shown although its name is empty and its values are one byte.
std::vector<Col> null_columns() {
  return {flags({0, 1, 0}),
          ints("v", LTYPE_SINT, {1, 2, 3}),
          flags({1}, true),
          strs("w", with_length(LTYPE_VCHAR, 4), {"a", "b", "c"}),
          flags({1, 0, 0}),
          ints("", LTYPE_BOOL, {1, 0, 1}),
          ints("x", LTYPE_SLNG, {10, 20, 30}),
          ints("", LTYPE_UCHR, {7, 8, 9})};
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
  EXPECT_EQ(render(OUTPUT_RAW, null_columns(), {2, 1}), golden(R"(
1|||10|7
||false|20|8
3||true|30|9
)"));
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
  EXPECT_EQ(render(OUTPUT_UNICODE, {}, {1}), golden(R"(
┌
│
│
├
│
└
(1 row)
)"));
  EXPECT_EQ(render(OUTPUT_RAW, {}, {2}), "\n\n");
  EXPECT_EQ(render(OUTPUT_HTML, {}, {2, 3}),
            "<table class=\"znresult\"><tr><td colspan=\"0\">5 rows</td></tr></table>\n");
}

TEST(PrinterRaw, ValuesJoinedByBarsWithoutHeadOrCount) {
  const uint32_t v = with_length(LTYPE_VCHAR, 1);
  EXPECT_EQ(
      render(OUTPUT_RAW,
             {strs("x", v, {"a", "d"}), strs("y", v, {"b", "e"}), strs("z", v, {"c", "f"})}, {2}),
      "a|b|c\nd|e|f\n");
}

TEST(PrinterWidths, LongNameIsCappedAt128AndOverrunsTheBox) {
  const std::string name(200, 'n');
  const std::string rule = "+" + std::string(128, '-') + "+\n";
  EXPECT_EQ(render(OUTPUT_ASCII, {ints(name, LTYPE_SINT, {5})}, {1}),
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
      {"abc", 3},
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
    const std::string out =
        render(OUTPUT_ASCII, {strs("t", with_length(LTYPE_VCHAR, 10), {c.text})}, {1});
    const std::string line =
        "|" + std::string(c.text) + std::string(c.chars < 11 ? 11 - c.chars : 0, ' ') + "|\n";
    EXPECT_NE(out.find("+\n" + line + "+"), std::string::npos) << c.text << "\n" << out;
  }
}

TEST(PrinterWidths, OverlongTextIsCutToTheValueBuffer) {
  const std::string text(2000, 'x');
  EXPECT_EQ(render(OUTPUT_RAW, {strs("t", LTYPE_VCHAR, {text})}, {1}),
            std::string(1023, 'x') + "\n");
}

TEST(PrinterStreaming, OutputLargerThanTheBufferArrivesWhole) {
  std::vector<std::string> values;
  std::string expected;
  for (int i = 0; i < 3000; ++i) {
    std::string v = std::to_string(i);
    v += std::string(100 - v.size(), '.');
    expected += "|" + v + "|\n";
    values.push_back(std::move(v));
  }
  const std::string out =
      render(OUTPUT_ASCII, {strs("t", with_length(LTYPE_VCHAR, 100), values)}, {1024, 1024, 952});
  const size_t body = out.find("|0.");
  ASSERT_NE(body, std::string::npos);
  EXPECT_EQ(out.substr(body, expected.size()), expected);
}

// Each call hands its text to the stream before it returns, so what the caller writes to the same
// stream afterwards (an error line) follows it; flushing is the caller's business.
TEST(PrinterStreaming, EachCallReachesTheStreamBeforeItReturns) {
  Render r({ints("n", LTYPE_SINT, {1, 2})});
  FILE* stream = r.out().stream();
  ResultPrinter* p = r.open(OUTPUT_UNICODE);
  std::fputs("<a>", stream);
  r.rows(p, 0, 1);
  std::fputs("<b>", stream);
  r.rows(p, 1, 1);
  std::fputs("<c>", stream);
  print_rule(p, 1);
  EXPECT_EQ(r.out().contents(), golden(R"(
┌───────────┐
│n          │
│sint       │
├───────────┤
<a>│          1│
<b>│          2│
<c>├───────────┤
)"));
  printer_close(p);
}

TEST(PrinterDeathTest, RuleLineOutOfRangeIsAnAssertion) {
  Render r({ints("n", LTYPE_SINT, {1})});
  ResultPrinter* p = r.open(OUTPUT_ASCII);
  EXPECT_DEATH(print_rule(p, 3), "assertion \"which >= 0 && which <= 2\" failed");
  printer_close(p);
}

}  // namespace
