#include "utils/str_funcs.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "utils/mem.h"

namespace {

class StrFuncsTest : public testing::Test {
 protected:
  void TearDown() override {
    mem_context_destroy(ctx_);
    mem_system_set_limits(0, 0);
  }
  MemContext* ctx_ = mem_context_create(nullptr, "strings");
};

// Growth takes max(2 x capacity, what the text needs); a text that fits is not moved.
TEST(SbTest, AppendGrowsOnlyWhenTheTextDoesNotFit) {
  sb* fresh = sb_create(0);
  EXPECT_EQ(fresh->capacity, 64u);
  EXPECT_STREQ(fresh->data, "");
  sb_free(fresh);
  const struct {
    size_t prefix, append, capacity;
  } cases[] = {
      {5, 10, 16},    // capacity - length - 1: fits with its NUL
      {5, 11, 32},    // one byte more: doubles
      {0, 100, 101},  // more than double: exactly what is needed
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << c.prefix << "+" << c.append);
    sb* b = sb_create(16);
    const std::string prefix(c.prefix, 'p'), text(c.append, 'a');
    sb_append(b, "%s", prefix.c_str());
    const char* before = b->data;
    EXPECT_EQ(sb_append(b, "%s", text.c_str()), static_cast<int>(c.append));
    EXPECT_EQ(b->capacity, c.capacity);
    EXPECT_EQ(b->data + 0, prefix + text);
    EXPECT_EQ(b->data == before, c.capacity == 16);
    sb_reset(b);
    EXPECT_EQ(b->length, 0u);
    EXPECT_STREQ(b->data, "");
    sb_free(b);
  }
}

// The rest moves to the front with its NUL; the capacity is kept, so appends after a drop reuse
// the room that was freed.
TEST(SbTest, DropFrontKeepsTheRestAndTheCapacity) {
  const struct {
    const char* text;
    size_t n;
    const char* rest;
  } cases[] = {{"abcdef", 0, "abcdef"}, {"abcdef", 4, "ef"}, {"abcdef", 6, ""}};
  for (const auto& c : cases) {
    sb* b = sb_create(16);
    sb_append(b, "%s", c.text);
    sb_drop_front(b, c.n);
    EXPECT_STREQ(b->data, c.rest) << c.n;
    EXPECT_EQ(b->length, std::strlen(c.rest));
    EXPECT_EQ(b->capacity, 16u);
    sb_append(b, "%s", "0123456789");  // fits again in the room the drop freed
    EXPECT_EQ(b->capacity, 16u + 16u * (c.n == 0));
    sb_free(b);
  }
}

TEST(SbDeathTest, DropFrontPastTheEndAborts) {
  sb* b = sb_create(0);
  sb_append(b, "%s", "ab");
  EXPECT_DEATH(sb_drop_front(b, 3), "assertion \"n <= b->length\" failed");
  sb_free(b);
}

TEST(SbDeathTest, NullBuilderAborts) { EXPECT_DEATH(sb_free(nullptr), "assertion \"sb\" failed"); }

TEST_F(StrFuncsTest, FormatGrowsPast256BytesAndDupCopies) {
  for (size_t n : {255u, 256u, 1000u}) {
    const std::string text(n, 'f');
    EXPECT_EQ(str_format(ctx_, 0, "%s", text.c_str()), text) << n;
  }
  const char* text = "copy me";
  EXPECT_NE(str_dup(ctx_, text), text);
  EXPECT_STREQ(str_dup(ctx_, text), text);
}

TEST_F(StrFuncsTest, FailuresGiveNullOrTheSharedEmptyText) {
  MemContext* full = mem_context_create(ctx_, "full");
  mem_system_set_limits(1, 0);  // the root's next area is refused
  ASSERT_EQ(mem_context_set_limits(ctx_, 1, 0), 0);
  const char* a = str_format(full, KEST_MEM_ALLOWFAILURE, "%s", "text");
  EXPECT_STREQ(a, "");
  EXPECT_EQ(str_format(full, KEST_MEM_ALLOWFAILURE, "%d", 1), a);  // one shared constant
  EXPECT_EQ(str_dup(full, "x", KEST_MEM_ALLOWFAILURE), nullptr);
}

TEST(BoundedFormatTest, WritesWhatFitsAndReportsTheRest) {
  char buf[8] = "#######";
  EXPECT_EQ(str_bprintf(buf, 6, "%s", "hello"), 5);  // size - 1 bytes: fits
  EXPECT_STREQ(buf, "hello");
  EXPECT_EQ(str_bprintf(buf, 6, "%s", "hello!"), -1);  // exactly size bytes: truncated
  EXPECT_STREQ(buf, "hello");
  EXPECT_EQ(buf[6], '#');  // nothing written past the buffer
}

TEST(Utf8LengthTest, ValidTextGivesItsBytesInvalidGivesMinusOne) {
  const std::pair<const char*, long> cases[] = {
      {"a\xC3\xA9z\xE2\x82\xAC", 7},    // 2- and 3-byte forms
      {"\xF0\x9F\x98\x80", 4},          // 4-byte form
      {"\xFF\x80\x80\x80\x80\x80", 6},  // any lead above 251 takes 5
      {"\x80", -1},                     // continuation byte as lead
      {"\xE2\x82", -1},                 // truncated at the end
  };
  for (const auto& [text, want] : cases) {
    EXPECT_EQ(utf8_length(text), want) << testing::PrintToString(std::string(text));
  }
  EXPECT_EQ(utf8_length_n("a\0b", 3), 3);  // counted, not terminated
}

TEST_F(StrFuncsTest, LowerCaseCopyOnlyWhenThereIsACapital) {
  const char* const cases[][2] = {
      {"", ""},
      {"already lower 123 _@[`{", "already lower 123 _@[`{"},
      {"\xC3\x89t\xC3\xA9", "\xC3\x89t\xC3\xA9"},  // no ASCII capital
      {"AZ@[", "az@["},
      {"mixedCase", "mixedcase"},
  };
  for (const auto& [in, want] : cases) {
    const char* out = str_tolower(ctx_, in);
    EXPECT_STREQ(out, want) << in;
    EXPECT_EQ(out == in, std::strcmp(in, want) == 0) << in;
  }
}

}  // namespace
