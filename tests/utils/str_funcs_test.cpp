#include "utils/str_funcs.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>

#include "utils/mem.h"

namespace {

class StrFuncsTest : public testing::Test {
 protected:
  void SetUp() override { ctx_ = mem_context_create(nullptr, "strings"); }
  void TearDown() override {
    mem_context_destroy(ctx_);
    mem_system_set_limits(0, 0);
  }
  // A root whose next area the system-wide account refuses.
  MemContext* ExhaustedContext() {
    MemContext* full = mem_context_create(ctx_, "full");
    mem_system_set_limits(1, 0);
    EXPECT_EQ(mem_context_set_limits(ctx_, 1, 0), 0);
    return full;
  }
  MemContext* ctx_ = nullptr;
};

// Growth takes max(2 x capacity, what the text needs); a text that fits is not moved.
TEST(SbTest, AppendGrowsOnlyWhenTheTextDoesNotFit) {
  sb* fresh = sb_create(0);
  EXPECT_EQ(fresh->capacity, 64u);
  EXPECT_STREQ(fresh->data, "");
  sb_free(fresh);
  struct Case {
    size_t prefix, append, capacity;
  };
  const Case cases[] = {
      {5, 10, 16},    // capacity - length - 1: fits with its NUL
      {5, 11, 32},    // one byte more: doubles
      {0, 100, 101},  // more than double: exactly what is needed
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << c.prefix << "+" << c.append);
    sb* b = sb_create(16);
    const std::string prefix(c.prefix, 'p'), text(c.append, 'a');
    sb_append(b, "%s", prefix.c_str());
    const char* before = b->data;
    EXPECT_EQ(sb_append(b, "%s", text.c_str()), static_cast<int>(c.append));
    EXPECT_EQ(b->capacity, c.capacity);
    EXPECT_EQ(b->length, c.prefix + c.append);
    EXPECT_EQ(b->data + 0, prefix + text);
    EXPECT_EQ(b->data == before, c.capacity == 16);
    sb_reset(b);
    EXPECT_EQ(b->length, 0u);
    EXPECT_STREQ(b->data, "");
    sb_free(b);
  }
}

TEST(SbDeathTest, NullBuilderAborts) { EXPECT_DEATH(sb_free(nullptr), "assertion \"sb\" failed"); }

TEST_F(StrFuncsTest, FormatGrowsPast256BytesAndDupCopies) {
  for (size_t n : {0u, 255u, 256u, 1000u}) {
    const std::string text(n, 'f');
    const char* out = str_format(ctx_, 0, "%s", text.c_str());
    EXPECT_EQ(out, text) << n;
  }
  EXPECT_STREQ(str_format(ctx_, 0, "%d-%s", 42, "x"), "42-x");
  const char* text = "copy me";
  EXPECT_NE(str_dup(ctx_, text), text);
  EXPECT_STREQ(str_dup(ctx_, text), text);
}

TEST_F(StrFuncsTest, FailuresGiveNullOrTheSharedEmptyText) {
  MemContext* full = ExhaustedContext();
  const char* a = str_format(full, KEST_MEM_ALLOWFAILURE, "%s", "text");
  EXPECT_STREQ(a, "");
  EXPECT_EQ(str_format(full, KEST_MEM_ALLOWFAILURE, "%d", 1), a);  // one shared constant
  EXPECT_EQ(str_dup(full, "x", KEST_MEM_ALLOWFAILURE), nullptr);
  EXPECT_EQ(str_tolower(full, "ABC"), nullptr);
  const char* lower = "abc";
  EXPECT_EQ(str_tolower(full, lower), lower);  // nothing to allocate
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

TEST_F(StrFuncsTest, ReallocZeroClearsTheNewBytes) {
  // Moving: the block is not last in its area.
  auto* p = static_cast<unsigned char*>(mem_malloc(ctx_, 10, 0));
  std::memset(p, 0xAA, 10);
  mem_malloc(ctx_, 1, 0);
  auto* q = static_cast<unsigned char*>(mem_realloc_zero(ctx_, p, 100));
  EXPECT_TRUE(std::all_of(q, q + 10, [](unsigned char c) { return c == 0xAA; }));
  EXPECT_TRUE(std::all_of(q + 10, q + 100, [](unsigned char c) { return c == 0; }));
  // In place, within the same aligned size: the slack the block already owned is cleared too.
  auto* r = static_cast<unsigned char*>(mem_malloc(ctx_, 10, 0));
  std::memset(r, 0xBB, 16);
  EXPECT_EQ(mem_realloc_zero(ctx_, r, 14), r);
  EXPECT_TRUE(std::all_of(r + 10, r + 14, [](unsigned char c) { return c == 0; }));
  // A null block allocates a zeroed one.
  auto* z = static_cast<unsigned char*>(mem_realloc_zero(ctx_, nullptr, 64));
  EXPECT_TRUE(std::all_of(z, z + 64, [](unsigned char c) { return c == 0; }));
}

TEST(BoundedFormatTest, WritesWhatFitsAndReportsTheRest) {
  struct Case {
    size_t size;
    const char* text;
    int ret;
    const char* stored;
  };
  const Case cases[] = {
      {6, "hello", 5, "hello"},    // size - 1 bytes: fits
      {6, "hello!", -1, "hello"},  // exactly size bytes: truncated
      {1, "", 0, ""},
  };
  for (const Case& c : cases) {
    char buf[16];
    std::memset(buf, '#', sizeof buf);
    EXPECT_EQ(str_bprintf(buf, c.size, "%s", c.text), c.ret) << c.text;
    EXPECT_STREQ(buf, c.stored) << c.text;
    EXPECT_EQ(buf[c.size], '#') << "wrote past the buffer: " << c.text;
  }
}

TEST(Utf8LengthTest, ValidTextGivesItsBytesInvalidGivesMinusOne) {
  struct Case {
    const char* text;
    long expect;
  };
  const Case cases[] = {
      {"plain ascii", 11},
      {"a\xC3\xA9z\xE2\x82\xAC", 7},    // 2- and 3-byte forms
      {"\xF0\x9F\x98\x80", 4},          // 4-byte form
      {"\xFC\x84\x80\x80\x80\x80", 6},  // 6-byte form
      {"\xFF\x80\x80\x80\x80\x80", 6},  // any lead above 251 takes 5
      {"\x80", -1},                     // continuation byte as lead
      {"\xE2\x82", -1},                 // truncated at the end
      {"\xC3(", -1},                    // continuation of the wrong form
      {"\xF0\x9F\x98\xC0", -1},         // a lead where a continuation belongs
      {"ok\xFC\x84\x80\x80\x80", -1},   // one continuation short
  };
  for (const Case& c : cases) {
    EXPECT_EQ(utf8_length(c.text), c.expect) << testing::PrintToString(std::string(c.text));
  }
  EXPECT_EQ(utf8_length_n("a\0b", 3), 3);  // counted, not terminated
}

}  // namespace
