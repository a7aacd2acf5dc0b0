#include "tools/standalone_client/scanner.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "kernel/ltype.h"
#include "utils/mem.h"

namespace {

struct Token {
  int32_t kind;
  std::string text;
  bool operator==(const Token&) const = default;
};

std::ostream& operator<<(std::ostream& os, const Token& t) {
  return os << "{" << t.kind << ", " << testing::PrintToString(t.text) << "}";
}

// A character source over bytes that may include NUL, counting its calls.
struct BytesSource {
  std::string bytes;
  size_t index = 0;
  int calls = 0;
  static int32_t get(void* arg) {
    auto* src = static_cast<BytesSource*>(arg);
    ++src->calls;
    if (src->index >= src->bytes.size()) return -1;
    return static_cast<unsigned char>(src->bytes[src->index++]);
  }
};

class ScannerTest : public testing::Test {
 protected:
  void TearDown() override { mem_context_destroy(ctx_); }

  Scanner* over(const char* text) {
    Scanner* s = scanner_create_string(ctx_, text);
    EXPECT_NE(s, nullptr);
    return s;
  }

  // Every token up to the end of input; a ";" shows as {TOK_END, ";"}.
  std::vector<Token> tokens(const std::string& text) {
    Scanner* s = over(text.c_str());
    std::vector<Token> out;
    for (int guard = 0; guard < 10000; ++guard) {
      const int32_t before = s->unclassified;
      const int32_t kind = scanner_get_token(s);
      if (kind == TOK_END && (*scanner_text(s) == 0 || s->unclassified != before)) break;
      out.push_back({kind, std::string(scanner_text(s), static_cast<size_t>(scanner_length(s)))});
    }
    scanner_free(s);
    return out;
  }

  Token first(const std::string& text) {
    std::vector<Token> all = tokens(text);
    return all.empty() ? Token{TOK_END, "<none>"} : all.front();
  }

  MemContext* ctx_ = mem_context_create(nullptr, "scanner");
};

TEST_F(ScannerTest, WordsAreClassifiedKeywordThenExtraNameThenIdentifier) {
  const char* const extra[] = {"Widget", "select"};
  scanner_set_extra_names(2, extra);
  const std::vector<std::pair<std::string, Token>> cases = {
      {"select", {TOK_SELECT, "select"}},      // a keyword wins over an extra name
      {"WIDGET", {TOK_EXTRA_NAME, "WIDGET"}},  // extra names match in any case
      {"_x1_", {TOK_IDENT, "_x1_"}},
      {"caf\xc3\xa9", {TOK_IDENT, "caf\xc3\xa9"}},  // bytes of 128 and more are letters
      {"caf\xe9", {TOK_BAD_TEXT, "wrong_utf8_val"}},
      {"As", {TOK_AS, "As"}},  // keywords match in any case, two for some kinds
      {"fullouter", {TOK_OUTER, "fullouter"}},
      {"AVG", {TOK_AGGR_FUNC, "AVG"}},
      {"vector_str", {TOK_VECTOR_STR, "vector_str"}}};
  for (const auto& [input, expected] : cases) EXPECT_EQ(first(input), expected) << input;
  scanner_set_extra_names(0, nullptr);
  EXPECT_EQ(first("widget"), (Token{TOK_IDENT, "widget"}));
}

// Token streams; a ";" shows as {TOK_END, ";"}.
TEST_F(ScannerTest, TokenStreams) {
  const std::vector<std::pair<std::string, std::vector<Token>>> cases = {
      // Numbers take one decimal point, and no sign or exponent.
      {"123", {{TOK_INTEGER, "123"}}},
      {"1.2.3", {{TOK_DECIMAL, "1.2"}, {'.', "."}, {TOK_INTEGER, "3"}}},
      {"-5", {{TOK_OPERATOR, "-"}, {TOK_INTEGER, "5"}}},
      // Operators: two characters where the pair is one.
      {"!= <= >= << >>", {{268, "!="}, {268, "<="}, {268, ">="}, {268, "<<"}, {268, ">>"}}},
      {"&& & || |", {{268, "&&"}, {268, "&"}, {268, "||"}, {268, "|"}}},
      {"== = ===", {{268, "=="}, {61, "="}, {268, "=="}, {61, "="}}},
      // Comments, also unterminated; a "/" alone is an operator.
      {"# x ; y\nselect", {{TOK_SELECT, "select"}}},
      {"/* a ** b **/5", {{TOK_INTEGER, "5"}}},
      {"6 /* never closed ; 7", {{TOK_INTEGER, "6"}}},
      {"a/b", {{TOK_IDENT, "a"}, {268, "/"}, {TOK_IDENT, "b"}}},
      {"# one\n# two\n; x", {{TOK_END, ";"}, {TOK_IDENT, "x"}}},
      // Here-documents.
      {"<=<END\nabc\nEND\nx", {{TOK_STRING, "abc\n"}, {TOK_IDENT, "x"}}},
      // The delimiter line right after the opening line does not close it.
      {"<<<END\nEND\nabc\nEND\n", {{TOK_STRING, "END\nabc\n"}}},
      // Without its newline at the very end, the delimiter is not recognised.
      {"<<<END\nabc\nEND", {{TOK_STRING, "abc\nEND"}}},
      // Matching starts only right after a newline.
      {"<<<END\nxEND\nEND\n", {{TOK_STRING, "xEND\n"}}},
      // A newline that breaks a partial match does not restart matching.
      {"<<<END\nx\nEN\nEND\nEND\n", {{TOK_STRING, "x\nEN\nEND\n"}}},
      // An empty opening line makes the delimiter a lone newline: an empty line closes.
      {"<<<\na\n\nb", {{TOK_STRING, "a\n"}, {TOK_IDENT, "b"}}},
      {"<<< END \na\n END \nz", {{TOK_STRING, "a\n"}, {TOK_IDENT, "z"}}},
      {"<<<E\n\\n 'q\nE\n", {{TOK_STRING, "\\n 'q\n"}}},  // no escapes, no quotes
      {"<<<END\n\xff\nEND\n", {{TOK_BAD_TEXT, "wrong_utf8_val"}}},
      {"<<<<X\na\n<X\n", {{TOK_STRING, "a\n"}}},
      {"x<<<E\n1\nE\ny", {{TOK_IDENT, "x"}, {TOK_STRING, "1\n"}, {TOK_IDENT, "y"}}},
      // Semicolons and whitespace.
      {" a ;\t;\n\v\f\rb;  \n",
       {{TOK_IDENT, "a"}, {TOK_END, ";"}, {TOK_END, ";"}, {TOK_IDENT, "b"}, {TOK_END, ";"}}},
      {" \n\t ", {}}};
  for (const auto& [input, expected] : cases) EXPECT_EQ(tokens(input), expected) << input;
  for (char c : std::string("([{,.:@\"?$%`\\]})~"))
    EXPECT_EQ(first(std::string(1, c)), (Token{c, std::string(1, c)})) << c;
}

TEST_F(ScannerTest, LongCommentRunsDoNotRecurse) {
  std::string text;
  for (int i = 0; i < 200000; ++i) text += "#c\n";
  text += "x";
  EXPECT_EQ(tokens(text), (std::vector<Token>{{TOK_IDENT, "x"}}));
}

// Quoted strings and their escapes; a string that is not UTF-8 becomes bad text.
TEST_F(ScannerTest, QuotedStrings) {
  using namespace std::string_literals;
  const std::string bad = "<not UTF-8>";  // stands for TOK_BAD_TEXT
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"'\\n\\r\\t\\a\\b\\f\\v'", "\n\r\t\a\b\f\v"},
      {"'\\q\\N\\X41'", "qNX41"},
      {"'\\0101'", "A"},
      {"'\\09'",
       "\0"
       "9"s},
      {"'\\x41'", "A"},
      {"'\\u00e9'", "\xc3\xa9"},
      {"'\\u7fffffff'", "\xfd\xbf\xbf\xbf\xbf\xbf"},
      {"'\\u123456789'",
       "\xfc\x92\x8d\x85\x99\xb8"
       "9"},
      {"'unterminated", "unterminated"},
      {"'\x01\x7f'", "\x01\x7f"},  // control characters are fine inside strings
      {"'ends in backslash\\", "ends in backslash"},
      {"'\\xc3\\xa9'", "\xc3\xa9"},
      {"'caf\xe9'", bad},
      {"'\\0777'", bad},
      {"'\xc3'", bad}};
  for (const auto& [input, expected] : cases) {
    const Token want =
        expected == bad ? Token{TOK_BAD_TEXT, "wrong_utf8_val"} : Token{TOK_STRING, expected};
    EXPECT_EQ(first(input), want) << input;
  }
}

// Positions count every character read, the end of input once; lines and columns follow newlines.
TEST_F(ScannerTest, CountsLinesColumnsAndCharacters) {
  Scanner* s = over("ab\ncd");
  EXPECT_EQ(scanner_get_token(s), TOK_IDENT);
  EXPECT_EQ(scanner_position(s), 2);
  EXPECT_TRUE(scanner_line(s) == 1 && scanner_column(s) == 0);
  EXPECT_EQ(scanner_get_token(s), TOK_IDENT);
  EXPECT_EQ(scanner_lookahead(s), -1);
  EXPECT_EQ(scanner_chars_read(s), 6);
  EXPECT_EQ(scanner_column(s), 3);
  EXPECT_EQ(scanner_get_token(s), TOK_END);
  EXPECT_EQ(scanner_chars_read(s), 6);  // nothing is read past an end already seen
  // An unterminated string reads its closing end of input and then once more.
  BytesSource src{"'x\ny"};
  s = scanner_create(ctx_, "custom", BytesSource::get, &src);
  EXPECT_EQ(scanner_get_token(s), TOK_STRING);
  EXPECT_TRUE(src.calls == 6 && scanner_chars_read(s) == 6);
}

// An owner that drops consumed text moves the origin: positions count from there, reading goes on.
TEST_F(ScannerTest, RebaseMovesTheOriginOfPositions) {
  Scanner* s = over("abc def;");
  EXPECT_EQ(scanner_get_token(s), TOK_IDENT);
  EXPECT_EQ(scanner_position(s), 3);
  scanner_rebase(s, 3);
  EXPECT_EQ(scanner_position(s), 0);
  EXPECT_EQ(scanner_get_token(s), TOK_IDENT);
  EXPECT_STREQ(scanner_text(s), "def");
  EXPECT_EQ(scanner_position(s), 4);
  EXPECT_EQ(scanner_column(s), 8);  // lines and columns are not moved
  EXPECT_DEATH(scanner_rebase(s, 5), "assertion \"n >= 0 && n <= scanner_position\\(s\\)\" failed");
}

TEST_F(ScannerTest, UnclassifiableCharacterIsReportedAndNotConsumed) {
  for (const std::string& bad :
       {std::string(1, '\x01'), std::string(1, '\x7f'), std::string(1, '\0')}) {
    BytesSource src{"a " + bad + "b"};
    Scanner* s = scanner_create(ctx_, "custom", BytesSource::get, &src);
    ASSERT_EQ(scanner_get_token(s), TOK_IDENT);
    testing::internal::CaptureStdout();
    EXPECT_EQ(scanner_get_token(s), TOK_END);
    EXPECT_EQ(scanner_get_token(s), TOK_END);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "get_token() error?\nget_token() error?\n");
    EXPECT_STREQ(scanner_text(s), "a");  // left as it was
    EXPECT_EQ(scanner_lookahead(s), static_cast<unsigned char>(bad[0]));
    EXPECT_EQ(s->unclassified, 2);
    scanner_free(s);
  }
}

TEST_F(ScannerTest, KeepsItsOwnCopyAndGrowsItsTokenText) {
  std::string text = "'" + std::string(1000, 'x') + "' tail";
  Scanner* s = over(text.c_str());
  text.assign(text.size(), '#');
  EXPECT_EQ(scanner_get_token(s), TOK_STRING);
  EXPECT_EQ(std::string(scanner_text(s)), std::string(1000, 'x'));
  EXPECT_EQ(scanner_get_token(s), TOK_IDENT);
  EXPECT_STREQ(scanner_text(s), "tail");
}

}  // namespace
