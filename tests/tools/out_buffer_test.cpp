#include "tools/standalone_client/out_buffer.h"

#include <gtest/gtest.h>

#include <string>

namespace {

// An unbuffered temporary file: its position counts exactly the bytes that reached it.
class Sink {
 public:
  Sink() : file_(std::tmpfile()) {
    if (file_) std::setvbuf(file_, nullptr, _IONBF, 0);
  }
  ~Sink() {
    if (file_) std::fclose(file_);
  }
  Sink(const Sink&) = delete;
  Sink& operator=(const Sink&) = delete;

  FILE* stream() const { return file_; }
  long written() const { return std::ftell(file_); }
  std::string contents() const {
    std::string all(static_cast<size_t>(written()), '\0');
    std::rewind(file_);
    all.resize(std::fread(all.data(), 1, all.size(), file_));
    std::fseek(file_, 0, SEEK_END);
    return all;
  }

 private:
  FILE* file_;
};

TEST(OutBuffer, SmallAppendsStayPendingUntilDrained) {
  Sink sink;
  ASSERT_NE(sink.stream(), nullptr);
  OutBuffer out(sink.stream());
  out.append("ab");
  out.append_fill(' ', 3);
  out.append_repeat("\xE2\x94\x80", 2);
  char* tail = out.reserve(4);
  std::memcpy(tail, "xyz!", 4);
  out.commit(3);
  EXPECT_EQ(sink.written(), 0);
  EXPECT_EQ(out.pending(), 14u);
  out.drain();
  EXPECT_EQ(sink.contents(), "ab   \xE2\x94\x80\xE2\x94\x80xyz");
  EXPECT_EQ(out.pending(), 0u);
}

TEST(OutBuffer, ReachingCapacityWritesOneFullBlock) {
  Sink sink;
  ASSERT_NE(sink.stream(), nullptr);
  OutBuffer out(sink.stream());
  const std::string chunk(1000, 'c');
  std::string expected;
  while (expected.size() + chunk.size() <= OutBuffer::kCapacity) {
    out.append(chunk);
    expected += chunk;
  }
  EXPECT_EQ(sink.written(), 0);
  out.append(chunk);  // does not fit: what is pending goes out first
  EXPECT_EQ(sink.written(), static_cast<long>(expected.size()));
  expected += chunk;
  out.reserve(OutBuffer::kCapacity);  // needs an empty buffer
  EXPECT_EQ(sink.contents(), expected);
}

TEST(OutBuffer, TextsLargerThanTheBufferKeepTheirOrder) {
  Sink sink;
  ASSERT_NE(sink.stream(), nullptr);
  {
    OutBuffer out(sink.stream());
    out.append("head ");
    out.append(std::string(OutBuffer::kCapacity + 10, 'L'));
    out.append_fill('f', 2 * OutBuffer::kCapacity + 3);
    out.append(" tail");
  }  // destruction writes the rest
  EXPECT_EQ(sink.contents(), "head " + std::string(OutBuffer::kCapacity + 10, 'L') +
                                 std::string(2 * OutBuffer::kCapacity + 3, 'f') + " tail");
}

}  // namespace
