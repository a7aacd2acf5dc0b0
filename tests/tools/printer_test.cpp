#include "tools/standalone_client/printer.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

#include "kernel/s128.h"
#include "support/printed_result.h"

namespace {

using namespace kest_test;

// Each mode once, with no rows and rows in two calls; a constant column repeats its one value.
// (The unicode glyphs show in the streaming test below.)
TEST(PrinterShapes, EveryModeMatchesItsGolden) {
  const auto columns = [] {
    return std::vector<Col>{col<int32_t>("id", "sint", {7, -12, 300}),
                            col<int64_t>("k", "slng", {42}, true),
                            strs("name", "varchar(8)", {"ab", "", "cdefgh"})};
  };
  const struct {
    OutputMode mode;
    std::vector<int64_t> batches;
    const char* expected;
  } cases[] = {{OutputMode::kAscii, {}, R"(
+-----------+--------------------+----------+
|id         |k                   |name      |
|sint       |slng                |varchar(8)|
+-----------+--------------------+----------+
+-----------+--------------------+----------+
(0 rows)
)"},
               {OutputMode::kAscii, {2, 1}, R"(
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
               {OutputMode::kRaw, {2, 1}, "7|42|ab\n-12|42|\n300|42|cdefgh\n"},
               {OutputMode::kHtml,
                {2, 1},
                "<table class=\"znresult\"><thead><tr><th>id</th><th>k</th><th>name</th></tr>"
                "<tr><th>sint</th><th>slng</th><th>varchar(8)</th></tr></thead>"
                "<tr><td align=\"right\">7</td><td align=\"right\">42</td><td>ab</td></tr>"
                "<tr><td align=\"right\">-12</td><td align=\"right\">42</td><td></td></tr>"
                "<tr><td align=\"right\">300</td><td align=\"right\">42</td><td>cdefgh</td></tr>"
                "<tr><td colspan=\"0\">3 rows</td></tr></table>\n"}};
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message()
                 << "mode " << static_cast<int>(c.mode) << ", " << c.batches.size() << " calls");
    EXPECT_EQ(print(c.mode, columns(), c.batches), golden(c.expected));
  }
}

// Cells in ascii, two values each: numbers are right-aligned to the type's width (or its type
// text, when longer), texts left-aligned and padded by characters; the second value is read at the
// physical type's stride. (The value texts of every type are the value printer's concern.)
TEST(PrinterTypes, WidthAndAlignmentOfCells) {
  const struct {
    Col column;
    const char* lines;
  } cases[] = {
      {col<uint8_t>("v", "bool", {0, 2}), "|false|\n| true|"},
      {col<int16_t>("v", "ssht", {-32768, 32767}), "|-32768|\n| 32767|"},
      // The unsigned 8-byte width is 19, so its largest value overruns the box.
      {col<uint64_t>("v", "ulng", {0, UINT64_MAX}),
       "|                  0|\n|18446744073709551615|"},
      {col<s128>("v", "decimal(20,3)", {{5, 0}, {~4ull, -1}}),
       "|                 0.005|\n|                -0.005|"},
      {col<int8_t>("v", "decimal(2,1)", {-1, 99}), "|        -0.1|\n|         9.9|"},
      {col<int32_t>("v", "char(1)", {'A', 0x20AC}), "|A      |\n|€      |"},
      {strs("v", "varchar(8)", {"hello", "wörld"}), "|hello     |\n|wörld     |"},
      {strs("v", "str", {"", "plain"}), "|                        |\n|plain                   |"},
      {col<int64_t>("v", "intervalds(2)", {12345, -1}),
       "|       0 00:02:03.45|\n|      -0 00:00:00.01|"}};
  for (const auto& c : cases) {
    const std::string out = print(OutputMode::kAscii, {c.column}, {2});
    EXPECT_NE(out.find("+\n" + std::string(c.lines) + "\n+"), std::string::npos) << out;
  }
}

// Hidden null indicators (an empty name, one-byte values): column 0 for "v" (per row), column 2 for
// "w" (constant, always null), column 4 for column 5. Column 5 has an empty name too but follows a
// hidden column, so it is shown; the last column is shown although its name is empty and its values
// are one byte.
std::vector<Col> null_columns() {
  return {col<uint8_t>("", "bool", {0, 1, 0}),     col<int32_t>("v", "sint", {1, 2, 3}),
          col<uint8_t>("", "bool", {1}, true),     strs("w", "varchar(4)", {"a", "b", "c"}),
          col<uint8_t>("", "bool", {1, 0, 0}),     col<uint8_t>("", "bool", {1, 0, 1}),
          col<int64_t>("x", "slng", {10, 20, 30}), col<uint8_t>("", "uchr", {7, 8, 9})};
}

TEST(PrinterNulls, HiddenIndicatorsBlankTheNextColumnInEveryMode) {
  EXPECT_EQ(print(OutputMode::kAscii, null_columns(), {2, 1}), golden(R"(
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
  EXPECT_EQ(print(OutputMode::kRaw, null_columns(), {2, 1}),
            "1|||10|7\n||false|20|8\n3||true|30|9\n");
  EXPECT_EQ(print(OutputMode::kHtml, null_columns(), {1}),
            "<table class=\"znresult\"><thead><tr><th>v</th><th>w</th><th></th><th>x</th>"
            "<th></th></tr><tr><th>sint</th><th>varchar(4)</th><th>bool</th><th>slng</th>"
            "<th>uchr</th></tr></thead><tr><td align=\"right\">1</td><td></td>"
            "<td align=\"right\"></td><td align=\"right\">10</td><td align=\"right\">7</td></tr>"
            "<tr><td colspan=\"0\">1 row</td></tr></table>\n");
  // A selection picks the rows and their indicator bytes.
  PrintedResult r(null_columns());
  ResultPrinter* p = r.open(OutputMode::kRaw);
  const int32_t selection[] = {2, 1, 2};
  r.rows(p, 0, 3, selection);
  printer_close(p);
  EXPECT_EQ(r.contents(), "3||true|30|9\n||false|20|8\n3||true|30|9\n");
}

TEST(PrinterZeroColumns, EveryModePrintsOnlyTheFrame) {
  EXPECT_EQ(print(OutputMode::kAscii, {}, {2}), "+\n|\n|\n+\n|\n|\n+\n(2 rows)\n");
  EXPECT_EQ(print(OutputMode::kUnicode, {}, {1}), "┌\n│\n│\n├\n│\n└\n(1 row)\n");
  EXPECT_EQ(print(OutputMode::kRaw, {}, {2}), "\n\n");
  EXPECT_EQ(print(OutputMode::kHtml, {}, {2, 3}),
            "<table class=\"znresult\"><tr><td colspan=\"0\">5 rows</td></tr></table>\n");
}

TEST(PrinterWidths, LongNameIsCappedAt128AndOverrunsTheBox) {
  const std::string name(200, 'n');
  std::string rule = "+";
  rule.append(128, '-').append("+\n");
  EXPECT_EQ(print(OutputMode::kAscii, {col<int32_t>(name, "sint", {5})}, {1}),
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
      {"\xFC\x84\x80\x80\x80\x80", 1},  // six bytes
      {"\xE2\x41\x42", 2},              // the second byte is taken whatever it is
      {"\xF0\x9F\x41", 2},              // a third byte below 128 ends it
      {"\xC3", 1},                      // a lead byte at the end
      {"abcdefgh\xC3\xA4", 9},          // eight plain bytes, then a sequence
      {"abcdefghijklmnop", 16},         // longer than the width: printed whole
  };
  for (const auto& c : cases) {
    const std::string out = print(OutputMode::kAscii, {strs("t", "varchar(10)", {c.text})}, {1});
    std::string line = "|";
    line.append(c.text).append(c.chars < 11 ? 11 - c.chars : 0, ' ').append("|\n");
    EXPECT_NE(out.find("+\n" + line + "+"), std::string::npos) << c.text << "\n" << out;
  }
}

TEST(PrinterWidths, OverlongTextIsCutToTheValueBuffer) {
  EXPECT_EQ(print(OutputMode::kRaw, {strs("t", "str", {std::string(2000, 'x')})}, {1}),
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
      print(OutputMode::kAscii, {strs("t", "varchar(100)", values)}, {1024, 1024, 952});
  const size_t body = out.find("|0.");
  ASSERT_NE(body, std::string::npos);
  EXPECT_EQ(out.substr(body, expected.size()), expected);
}

// The printer's text reaches the stream at printer_flush and printer_close, in one piece with
// everything printed since the last flush; what the caller writes after a flush follows it.
TEST(PrinterStreaming, TextReachesTheStreamAtEachFlush) {
  PrintedResult r({col<int32_t>("n", "sint", {1, 2}), col<int8_t>("c", "schr", {3, 4})});
  ResultPrinter* p = r.open(OutputMode::kUnicode);
  r.rows(p, 0, 1);
  EXPECT_EQ(r.contents(), "") << "nothing before a flush";
  printer_flush(p);
  std::fputs("<a>", r.file());
  r.rows(p, 1, 1);
  printer_flush(p);
  std::fputs("<b>", r.file());
  printer_close(p);
  EXPECT_EQ(r.contents(), golden(R"(
┌───────────┬────┐
│n          │c   │
│sint       │schr│
├───────────┼────┤
│          1│   3│
<a>│          2│   4│
<b>└───────────┴────┘
(2 rows)
)"));
}

TEST(PrinterDeathTest, RuleLineOutOfRangeIsAnAssertion) {
  PrintedResult r({col<int32_t>("n", "sint", {1})});
  ResultPrinter* p = r.open(OutputMode::kAscii);
  EXPECT_DEATH(print_rule(p, 3), "assertion \"which >= 0 && which <= 2\" failed");
  printer_close(p);
}

}  // namespace
