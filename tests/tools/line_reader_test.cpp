#include "tools/standalone_client/line_reader.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "support/temp_dir.h"

namespace {

namespace fs = std::filesystem;
using Entries = std::vector<std::string>;

std::string read_all(FILE* file) {
  std::rewind(file);
  std::string text;
  char chunk[4096];
  for (size_t n; (n = std::fread(chunk, 1, sizeof chunk, file)) > 0;) text.append(chunk, n);
  return text;
}

class LineReaderTest : public testing::Test {
 protected:
  void TearDown() override {
    if (in_) std::fclose(in_);
    if (out_) std::fclose(out_);
  }
  // A plain reader over `input`, its prompts to a file of its own.
  LineReaderPtr plain(const std::string& input, const std::string& history = "",
                      size_t history_size = 1000) {
    in_ = std::tmpfile();
    out_ = std::tmpfile();
    std::fwrite(input.data(), 1, input.size(), in_);
    std::rewind(in_);
    LineReaderOptions options;
    options.in = in_;
    options.out = out_;
    options.edit = false;
    options.history_path = history;
    options.history_size = history_size;
    return line_reader_open(options);
  }
  kest_test::TempDir dir_{"kest_reader"};
  FILE* in_ = nullptr;
  FILE* out_ = nullptr;
};

// Line ends of either kind go; a line of any length comes whole; a last line without a line end
// still counts; then the end, for as long as one asks.
TEST_F(LineReaderTest, PlainLinesAfterTheirPrompts) {
  const std::string long_line(10000, 'x');
  LineReaderPtr reader = plain("one\ntwo\r\n\n" + long_line + "\nlast");
  ASSERT_FALSE(line_reader_edits(reader.get()));
  std::vector<std::string> lines;
  std::string line;
  int prompts = 0;
  while (line_reader_read(reader.get(), "p" + std::to_string(prompts++) + "> ", &line) ==
         ReadStatus::kLine)
    lines.push_back(line);
  EXPECT_EQ(lines, (Entries{"one", "two", "", long_line, "last"}));
  EXPECT_EQ(line_reader_read(reader.get(), "again> ", &line), ReadStatus::kEnd);
  EXPECT_EQ(read_all(out_), "p0> p1> p2> p3> p4> p5> again> ");
}

TEST_F(LineReaderTest, HistoryFileRoundTripsEntriesOfSeveralLines) {
  const std::string path = (dir_ / "history").string();
  EXPECT_EQ(history_load(path), Entries{});  // no file yet
  ASSERT_TRUE(history_append(path, "Array([i=1]);"));
  ASSERT_TRUE(history_append(path, "s(<<<END\na;\tb\nEND\n);"));
  ASSERT_TRUE(history_append(path, "\\timing on"));
  EXPECT_EQ(kest_test::read_file(path),
            "Array([i=1]);\ns(<<<END\x01"
            "a;\tb\x01"
            "END\x01);\n\\timing on\n");
  EXPECT_EQ(history_load(path),
            (Entries{"Array([i=1]);", "s(<<<END\na;\tb\nEND\n);", "\\timing on"}));
  ASSERT_TRUE(history_rewrite(path, {"b", "c"}));
  EXPECT_EQ(history_load(path), (Entries{"b", "c"}));
  EXPECT_FALSE(history_append((dir_ / "no" / "such" / "dir").string(), "x"));
}

// Opening cuts the file to the newest entries; each entry handed in is appended at once, but not
// an empty one or one equal to the entry before it (also across sessions).
TEST_F(LineReaderTest, TheFileKeepsTheNewestEntriesAndSkipsRepeats) {
  const fs::path path = dir_ / "history";
  ASSERT_TRUE(history_rewrite(path.string(), {"1", "2", "3", "4", "5"}));
  LineReaderPtr reader = plain("", path.string(), 3);
  EXPECT_EQ(history_load(path.string()), (Entries{"3", "4", "5"}));
  line_reader_remember(reader.get(), "5");
  line_reader_remember(reader.get(), "");
  line_reader_remember(reader.get(), "6");
  line_reader_remember(reader.get(), "6");
  line_reader_remember(reader.get(), "5");
  EXPECT_EQ(kest_test::read_file(path), "3\n4\n5\n6\n5\n");
}

TEST_F(LineReaderTest, NoHistoryFileWhenNoneIsNamed) {
  LineReaderPtr reader = plain("");
  line_reader_remember(reader.get(), "q;");
  EXPECT_TRUE(fs::is_empty(dir_.path()));
}

}  // namespace
