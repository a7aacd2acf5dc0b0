#include "tools/standalone_client/split_query.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "utils/mem.h"
#include "utils/str_funcs.h"

namespace {

using Queries = std::vector<std::string>;

// A temporary file holding `bytes`, positioned at its start (closed by the caller).
FILE* temp_file(const std::string& bytes) {
  FILE* f = std::tmpfile();
  EXPECT_NE(f, nullptr);
  if (f) std::fwrite(bytes.data(), 1, bytes.size(), f);
  if (f) std::rewind(f);
  return f;
}

Queries drain(QuerySplitter* qs) {
  Queries out;
  while (const char* q = query_splitter_next(qs)) out.emplace_back(q);
  EXPECT_EQ(query_splitter_next(qs), nullptr);  // stays at the end
  query_splitter_free(qs);
  return out;
}

Queries split_string(const std::string& text) {
  QuerySplitter* qs = query_splitter_create_string(text.c_str());
  EXPECT_NE(qs, nullptr);
  return qs ? drain(qs) : Queries{};
}

Queries split_file(const std::string& bytes) {
  FILE* file = temp_file(bytes);
  QuerySplitter* qs = file ? query_splitter_create_file(file) : nullptr;
  EXPECT_NE(qs, nullptr);
  const Queries out = qs ? drain(qs) : Queries{};
  if (file) std::fclose(file);
  return out;
}

TEST(QuerySplitter, SplitsLikeThisInBothModes) {
  const struct {
    const char* input;
    Queries expected;
  } cases[] = {{"a; b", {"a", "b"}},
               {"a;\nb\n", {"a", "b\n"}},  // the last query keeps the rest of the input
               {";;; a;", {"a"}},
               {"a ; ; b ;", {"a ", "b "}},
               {"", {}},
               {" ;\n; # only comments ; here\n/* c; */ ; // x", {}},
               {"select('x;y');", {"select('x;y')"}},
               {"print(<<<END\na;b\nEND\n);q;", {"print(<<<END\na;b\nEND\n)", "q"}},
               {"'unterminated; still", {"'unterminated; still"}},
               {"<<<E\nno end; here\n", {"<<<E\nno end; here\n"}},
               {"'\xff;' x;y", {"'\xff;' x", "y"}}};  // bad UTF-8 is no error here
  for (const auto& c : cases) {
    EXPECT_EQ(split_string(c.input), c.expected) << "string mode: " << c.input;
    EXPECT_EQ(split_file(c.input), c.expected) << "file mode: " << c.input;
  }
}

TEST(QuerySplitter, CopiesTheCallersString) {
  char text[] = "a;b";
  QuerySplitter* qs = query_splitter_create_string(text);
  std::memset(text, 'z', 3);
  EXPECT_EQ(drain(qs), (Queries{"a", "b"}));
}

TEST(QuerySplitter, FileModeReadsOnlyOneCharacterPastTheSemicolon) {
  FILE* file = temp_file("ab;cd;ef");
  QuerySplitter* qs = query_splitter_create_file(file);
  EXPECT_STREQ(query_splitter_next(qs), "ab");
  EXPECT_EQ(std::ftell(file), 4);
  EXPECT_STREQ(query_splitter_next(qs), "cd");
  EXPECT_EQ(std::ftell(file), 7);
  query_splitter_free(qs);
  std::fclose(file);
}

TEST(QuerySplitter, FileModeKeepsNulBytesInsideStrings) {
  // The query text is a C string, so it ends at the NUL; the statement still ends at its ";".
  EXPECT_EQ(split_file(std::string("'a\0b';c", 7)), (Queries{"'a", "c"}));
}

TEST(QuerySplitter, UnclassifiableCharacterMidStatementEndsIt) {
  testing::internal::CaptureStdout();
  QuerySplitter* qs = query_splitter_create_string("a \x01 b;");
  EXPECT_STREQ(query_splitter_next(qs), "a \x01 b;");  // no NUL written: runs on to the end
  query_splitter_free(qs);
  FILE* file = temp_file("a \x01 b;");
  qs = query_splitter_create_file(file);
  EXPECT_STREQ(query_splitter_next(qs), "a \x01");  // what has been read so far
  query_splitter_free(qs);
  std::fclose(file);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "get_token() error?\nget_token() error?\n");
  // As the first character of a statement it ends the input.
  testing::internal::CaptureStdout();
  EXPECT_EQ(split_string("\x01 q;"), Queries{});
  EXPECT_EQ(split_string("'' \x02 q;"), Queries{"'' \x02 q;"});  // the empty string left "" behind
  testing::internal::GetCapturedStdout();
}

// File mode keeps only the statement being read: a long script needs no more room than its
// longest statement, and a statement longer than every buffer on the way still comes whole.
TEST(QuerySplitter, FileModeDropsWhatWasHandedOut) {
  const std::string big = "'" + std::string(3 << 20, 'x') + "'";  // past stdio's and sb's sizes
  std::string script;
  for (int i = 0; i < 20000; ++i) script += "Array([i=0]);\n";
  script += "  " + big + " ;";
  for (int i = 0; i < 1000; ++i) script += "q;";
  FILE* file = temp_file(script);
  QuerySplitter* qs = query_splitter_create_file(file);
  size_t peak = 0;
  for (int i = 0; i < 20000; ++i) {
    ASSERT_STREQ(query_splitter_next(qs), "Array([i=0])");  // the newline before: leading space
    peak = std::max(peak, qs->text->capacity);
  }
  EXPECT_EQ(peak, 64u);  // the builder's first size: it never grew
  EXPECT_EQ(query_splitter_next(qs), big + " ");
  for (int i = 0; i < 1000; ++i) ASSERT_STREQ(query_splitter_next(qs), "q");
  EXPECT_EQ(query_splitter_next(qs), nullptr);
  EXPECT_LE(qs->text->capacity, 2 * big.size() + 64);
  EXPECT_LE(qs->text->length, 1u);  // the big statement is gone
  EXPECT_FALSE(qs->read_failed);
  query_splitter_free(qs);
  std::fclose(file);
}

// A stream that fails to read ends the input; a statement it cut short is not handed out, and the
// caller learns of it from read_failed.
TEST(QuerySplitter, ReadErrorEndsTheInputWithoutTheCutStatement) {
  const std::string path = testing::TempDir() + "kest_split_read_error";
  std::FILE* out = std::fopen(path.c_str(), "wb");
  ASSERT_NE(out, nullptr);
  const std::string statement = "q" + std::string(1000, ' ') + ";";
  for (int i = 0; i < 200; ++i) std::fputs(statement.c_str(), out);
  std::fclose(out);

  // A stream whose descriptor cannot be read at all (one open for writing only put under it):
  // no query, and the error.
  std::FILE* in = std::fopen(path.c_str(), "rb");
  const int write_only = open(path.c_str(), O_WRONLY);
  ASSERT_TRUE(in && write_only >= 0);
  dup2(write_only, fileno(in));
  close(write_only);
  QuerySplitter* qs = query_splitter_create_file(in);
  EXPECT_EQ(query_splitter_next(qs), nullptr);
  EXPECT_TRUE(qs->read_failed);
  query_splitter_free(qs);
  std::fclose(in);

  // The descriptor under the stream closed after the first queries: the stream's buffer ends in
  // the middle of a statement, which must not come out cut.
  in = std::fopen(path.c_str(), "rb");
  qs = query_splitter_create_file(in);
  ASSERT_STREQ(query_splitter_next(qs), statement.substr(0, statement.size() - 1).c_str());
  close(fileno(in));
  int whole = 1;
  while (const char* q = query_splitter_next(qs)) {
    ASSERT_EQ(q, statement.substr(0, statement.size() - 1));
    ++whole;
  }
  EXPECT_LT(whole, 200);
  EXPECT_TRUE(qs->read_failed);
  query_splitter_free(qs);
  std::fclose(in);
  std::remove(path.c_str());
}

TEST(QuerySplitterDeathTest, AssertionsCarryTheirTexts) {
  EXPECT_DEATH(query_splitter_create_file(nullptr), "assertion \"qs->file && !qs->s\" failed");
  EXPECT_DEATH(query_splitter_create_string(nullptr), "assertion \"qs->s\" failed");
  // Two sites share this text: an unclassifiable character in a statement, and one after a string
  // whose text is ";" (which would otherwise loop for ever).
  for (const char* input : {"a \x01 b;", "';' \x01"}) {
    EXPECT_DEATH(
        {
          QuerySplitter* qs = query_splitter_create_string(input);
          for (int i = 0; i < 3; ++i) query_splitter_next(qs);
        },
        "assertion \"\\*qs->lss->yytext == 0\" failed")
        << input;
  }
}

// Text made of the pieces the scanner treats specially and random bytes; no character that the
// scanner cannot classify (the splitter stops or asserts there, as the tests above show).
std::string random_script(std::mt19937& rng) {
  static const std::vector<std::string> pieces = {
      ";",   " ",   "\n",  "\t", "'",  "\\",   "\\0",  "\\x4", "\\u00e", "<<<",
      "<=<", "END", "E\n", "#",  "//", "/*",   "*/",   "a",    "select", "1.2",
      "(",   ")",   "=",   "<",  "!",  "\xc3", "\xa9", "\xff", "x",      "\r\n",
      "'a'", "9",   ".",   "*",  "/",  "&&",   "|"};
  std::uniform_int_distribution<int> length(0, 60);
  std::uniform_int_distribution<size_t> pick(0, pieces.size() - 1);
  std::uniform_int_distribution<int> byte(32, 255);
  std::string out;
  for (int n = length(rng); n > 0; --n) {
    const int b = byte(rng);
    out +=
        rng() % 4 == 0 ? std::string(1, static_cast<char>(b == 127 ? ' ' : b)) : pieces[pick(rng)];
  }
  return out;
}

TEST(QuerySplitterRandom, ModesAgreeAndNothingBreaksOnRandomInput) {
  const unsigned seed = std::random_device{}();
  std::printf("seed %u\n", seed);
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937 rng(seed);
  for (int i = 0; i < 3000; ++i) {
    const std::string input = random_script(rng);
    const Queries from_file = split_file(input);
    for (const std::string& q : from_file) {  // text of the input, without leading whitespace
      ASSERT_TRUE(!q.empty() && !std::strchr(" \t\n\v\f\r", q[0])) << testing::PrintToString(q);
      ASSERT_NE(input.find(q), std::string::npos) << testing::PrintToString(q);
    }
    ASSERT_EQ(split_string(input), from_file) << testing::PrintToString(input);
  }
}

}  // namespace
