#include "tools/standalone_client/out_buffer.h"

#include <gtest/gtest.h>

#include <string>

namespace {

// An unbuffered temporary file: its position counts exactly the bytes that reached it.
struct Sink {
  FILE* file = std::tmpfile();
  Sink() {
    if (file) std::setvbuf(file, nullptr, _IONBF, 0);
  }
  ~Sink() {
    if (file) std::fclose(file);
  }
  long written() const { return std::ftell(file); }
  std::string contents() const {
    std::string all(static_cast<size_t>(written()), '\0');
    std::rewind(file);
    all.resize(std::fread(all.data(), 1, all.size(), file));
    std::fseek(file, 0, SEEK_END);
    return all;
  }
};

TEST(OutBuffer, WritesWholeBlocksAndKeepsTheOrderOfEveryAppend) {
  constexpr size_t kCapacity = OutBuffer::kCapacity;
  Sink sink;
  ASSERT_NE(sink.file, nullptr);
  std::string expected = "ab   \xE2\x94\x80\xE2\x94\x80xyz";
  {
    OutBuffer out(sink.file);
    out.append("ab");
    out.append_fill(' ', 3);
    out.append_repeat("\xE2\x94\x80", 2);
    std::memcpy(out.reserve(4), "xyz!", 4);
    out.commit(3);
    EXPECT_EQ(out.pending(), expected.size());
    const std::string filler(kCapacity - 10 - expected.size(), 'c');
    out.append(filler);
    expected += filler;
    EXPECT_EQ(sink.written(), 0) << "appends stay pending until the buffer is full";
    out.append("eleven char");  // does not fit: what is pending goes out first, whole
    EXPECT_EQ(sink.written(), static_cast<long>(expected.size()));
    out.append(std::string(kCapacity + 10, 'L'));
    out.append_fill('f', 2 * kCapacity + 3);
    out.append(" tail");
  }  // destruction writes the rest
  expected += "eleven char" + std::string(kCapacity + 10, 'L') +
              std::string(2 * kCapacity + 3, 'f') + " tail";
  EXPECT_TRUE(sink.contents() == expected);
}

// Escaping is per stream, at the block level: the bytes are escaped however the appends and the
// blocks cut them, and a buffer that does not escape writes them as they are.
TEST(OutBuffer, EscapesControlsOnlyWhenAskedWhereverTheBlocksEnd) {
  constexpr size_t kCapacity = OutBuffer::kCapacity;
  // A C1 control whose lead byte ends the first block, an escape in the second.
  const std::string text = std::string(kCapacity - 1, 'a') + "\xC2\x9B" + "\x1b\n";
  for (const bool escape : {false, true}) {
    Sink sink;
    ASSERT_NE(sink.file, nullptr);
    {
      OutBuffer out(sink.file);
      if (escape) out.escape_controls();
      out.append(std::string_view(text).substr(0, kCapacity - 1));
      out.append(std::string_view(text).substr(kCapacity - 1, 1));
      out.append(std::string_view(text).substr(kCapacity));
      out.flush();
    }
    const std::string expected =
        escape ? std::string(kCapacity - 1, 'a') + "\xEF\xBF\xBD\xE2\x90\x9B\n" : text;
    EXPECT_TRUE(sink.contents() == expected) << escape;
  }
}

}  // namespace
