#include "tools/standalone_client/statement_buffer.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "kernel/ltype.h"

namespace {

using Lines = std::vector<std::string>;
using Statements = std::vector<std::string>;

class StatementBufferTest : public testing::Test {
 protected:
  void SetUp() override { types_init(); }  // the scanner looks words up among the type names
};

// Lines typed one after the other: the statements that ran (all lines together), where the
// input stands after the last line, and the open text left.
TEST_F(StatementBufferTest, LinesCompleteStatementsAndTellWhatIsOpen) {
  const struct {
    const char* name;
    Lines lines;
    Statements statements;
    InputState state;
    std::string pending;
  } cases[] = {
      {"OneStatement", {"Array([i=1]);"}, {"Array([i=1])"}, InputState::kEmpty, ""},
      {"NoSemicolonYet", {"Array([i=1])"}, {}, InputState::kStatement, "Array([i=1])\n"},
      {"SemicolonOnTheNextLine",
       {"Array(", "[i=1])", ";"},
       {"Array(\n[i=1])\n"},
       InputState::kEmpty,
       ""},
      {"TwoOnOneLine", {"a; b;"}, {"a", "b"}, InputState::kEmpty, ""},
      {"TheRestStaysOpen", {"a; b"}, {"a"}, InputState::kStatement, " b\n"},
      {"RestCompletedLater", {"a; b", "c;"}, {"a", "b\nc"}, InputState::kEmpty, ""},
      {"EmptyStatementsSkipped", {";;", " ; a ;"}, {"a "}, InputState::kEmpty, ""},
      {"BlankLines", {"", "   ", "\t"}, {}, InputState::kEmpty, ""},
      // A ";" inside a string, a here-document or a comment ends nothing.
      {"SemicolonInAString", {"select('x;y');"}, {"select('x;y')"}, InputState::kEmpty, ""},
      {"OpenString", {"select('x;"}, {}, InputState::kLiteral, "select('x;\n"},
      {"StringClosedOnTheNextLine",
       {"select('x;", "y');"},
       {"select('x;\ny')"},
       InputState::kEmpty,
       ""},
      {"EscapedQuoteKeepsTheStringOpen", {"s('it\\';"}, {}, InputState::kLiteral, "s('it\\';\n"},
      {"HereDocument",
       {"s(<<<END", "a;b", "END", ");"},
       {"s(<<<END\na;b\nEND\n)"},
       InputState::kEmpty,
       ""},
      {"HereDocumentOpen", {"s(<<<END", "a;b"}, {}, InputState::kLiteral, "s(<<<END\na;b\n"},
      {"OpenBlockComment", {"/* a;"}, {}, InputState::kLiteral, "/* a;\n"},
      {"ClosedBlockComment", {"/* a; */"}, {}, InputState::kEmpty, ""},
      // A comment alone on its line is dropped with the line; before a statement it stays.
      {"CommentLineThenStatement", {"# note;", "q;"}, {"q"}, InputState::kEmpty, ""},
      {"CommentBeforeStatement", {"/* c; */ q;"}, {"/* c; */ q"}, InputState::kEmpty, ""},
      {"CommentInsideStatement", {"a(# x;", "1);"}, {"a(# x;\n1)"}, InputState::kEmpty, ""},
      {"LineCommentAlone", {"// x;"}, {}, InputState::kEmpty, ""},
      {"StatementWithTrailingComment", {"q; # after"}, {"q"}, InputState::kEmpty, ""},
      {"Utf8Words",
       {"s('\xC3\xA9'); \xC3\xA9t\xC3\xA9"},
       {"s('\xC3\xA9')"},
       InputState::kStatement,
       " \xC3\xA9t\xC3\xA9\n"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    StatementBuffer buffer;
    Statements ran;
    for (const std::string& line : c.lines) {
      Statements now = buffer.add_line(line);
      ran.insert(ran.end(), now.begin(), now.end());
    }
    EXPECT_EQ(ran, c.statements);
    EXPECT_EQ(buffer.state(), c.state);
    EXPECT_EQ(buffer.pending(), c.pending);
  }
}

// A statement runs with the line that holds its ";", not before: the statements come out of
// the line that completes them.
TEST_F(StatementBufferTest, StatementsComeOutOfTheLineThatEndsThem) {
  StatementBuffer buffer;
  EXPECT_EQ(buffer.add_line("Array("), Statements{});
  EXPECT_EQ(buffer.add_line("[i=1]); Array([i=2]"), Statements{"Array(\n[i=1])"});
  EXPECT_EQ(buffer.add_line("); x"), Statements{"Array([i=2]\n)"});
  EXPECT_EQ(buffer.pending(), " x\n");
  buffer.clear();
  EXPECT_EQ(buffer.state(), InputState::kEmpty);
  EXPECT_EQ(buffer.pending(), "");
  EXPECT_EQ(buffer.add_line("y;"), Statements{"y"});
}

TEST(ScannableLine, OnlyTheTabAmongControlCharacters) {
  const struct {
    std::string line;
    bool scannable;
  } cases[] = {
      {"Array([i=1]);", true}, {"\ta\t;", true},
      {"caf\xC3\xA9", true},   {"", true},
      {"Arr\x1b[Day", false},  {std::string("a\0b", 3), false},
      {"a\rb", false},         {"a\nb", false},
      {"a\x7f", false},        {"\x01", false},
  };
  for (const auto& c : cases) EXPECT_EQ(is_scannable_line(c.line), c.scannable) << c.line;
}

}  // namespace
