#include "utils/kest_error.h"

#include <gtest/gtest.h>

#include <cstring>
#include <initializer_list>
#include <memory>
#include <set>
#include <string>

#include "utils/mem.h"

namespace {

class KestErrorTest : public testing::Test {
 protected:
  void TearDown() override { mem_context_destroy(mem_); }

  KestError* make(int32_t code, std::initializer_list<const char*> params) {
    KestError* err = kest_error_create(mem_, code, static_cast<int32_t>(params.size()));
    int32_t i = 0;
    for (const char* p : params) kest_error_set_param(err, mem_, i++, p);
    return err;
  }

  // Formats into a buffer of exactly kest_error_msg_len bytes, so an overrun shows under ASan.
  std::string format(const KestError* err) {
    const size_t len = kest_error_msg_len(err);
    auto dest = std::make_unique<char[]>(len);
    EXPECT_EQ(kest_error_format(err, dest.get()), 1);
    EXPECT_LT(std::strlen(dest.get()), len);
    return dest.get();
  }

  MemContext* mem_ = mem_context_create(nullptr, "kest_error_test");
};
using KestErrorDeathTest = KestErrorTest;

TEST_F(KestErrorTest, FormatsTemplates) {
  const struct {
    int32_t code;
    std::initializer_list<const char*> params;
    const char* expected;
  } cases[] = {
      {10,
       {"q.txt", "3", "7", "unexpected token"},
       "Parse error in q.txt at line 3, column 7: unexpected token."},
      // A missing %2 leaves the quotes empty.
      {7, {"port", "client"}, "Invalid value for property port in group client: ''."},
      {26, {"x", nullptr, "sint"}, "Cannot convert 'x' from  to sint."},
      {68, {"97", "1024"}, "Memory limit reached: 97% of 1024 bytes in use."},
      {148, {"t", "5", "12"}, "t stores 12 records with 5 unique keys"},  // out of order
      {-1, {}, "Unknown error code -1 (no parameters)"},
      {KEST_ERROR_COUNT, {nullptr, "%0"}, "Unknown error code 184 (parameters: null, '%0')"},
  };
  for (const auto& c : cases) EXPECT_EQ(format(make(c.code, c.params)), c.expected) << c.code;
}

TEST_F(KestErrorTest, PercentFollowedByAnythingElseVanishesWithThatCharacter) {
  const char* const cases[][2] = {
      {"a%xb", "ab"}, {"%9 and %1", " and B"}, {"100%", "100"}, {"%%%0%%", "%A%"}};
  KestError* err = make(3, {"A", "B"});
  for (const auto& [tpl, expected] : cases) {
    char dest[32];
    kest_error_format_template(tpl, err, dest);
    EXPECT_STREQ(dest, expected) << tpl;
  }
}

// The pieces handed out join into the formatted text for every template and unknown codes, and
// a parameter is handed out by reference, never copied.
TEST_F(KestErrorTest, EmitHandsOutWhatFormatWrites) {
  const auto join = [](void* arg, const char* bytes, size_t len) {
    static_cast<std::string*>(arg)->append(bytes, len);
  };
  for (int32_t code = -1; code <= KEST_ERROR_COUNT; ++code) {
    const KestError* err = make(code, {"A", nullptr, "%1", "", "E", "F", "G", "H", "I", "J"});
    std::string joined;
    kest_error_emit(err, join, &joined);
    EXPECT_EQ(joined, format(err)) << code;
  }
  const char* const big = "a parameter";
  const KestError* err = make(1, {big});
  struct Seen {
    const char* param;
    bool by_reference = false;
  } seen{err->params[0]};
  kest_error_emit(
      err,
      [](void* arg, const char* bytes, size_t) {
        auto* s = static_cast<Seen*>(arg);
        s->by_reference = s->by_reference || bytes == s->param;
      },
      &seen);
  EXPECT_TRUE(seen.by_reference);
}

// The template, each parameter once whether the template uses it or not, and the terminator.
TEST_F(KestErrorTest, LengthCountsTemplateEachParameterOnceAndTerminator) {
  EXPECT_EQ(kest_error_msg_len(make(21, {"abc", nullptr})),
            std::strlen("Division by zero.") + 3 + 1);
  EXPECT_EQ(kest_error_msg_len(make(100000, {"a", "b"})),
            std::strlen("Unknown error code 100000 (parameters: 'a', 'b')") + 1);
}

TEST(KestErrorTable, EveryTemplateObeysThePlaceholderRules) {
  for (int32_t code = 0; code < KEST_ERROR_COUNT; ++code) {
    const char* tpl = kest_error_template(code);
    ASSERT_NE(tpl, nullptr) << code;
    std::set<char> used;
    for (const char* p = std::strchr(tpl, '%'); p; p = std::strchr(p + 2, '%')) {
      ASSERT_NE(p[1], '\0') << "trailing % in code " << code;
      if (p[1] == '%') continue;
      EXPECT_TRUE(p[1] >= '0' && p[1] <= '9') << "code " << code << ": %" << p[1];
      EXPECT_TRUE(used.insert(p[1]).second) << "code " << code << " uses %" << p[1] << " twice";
    }
  }
  // Texts the server shares word for word, slips included.
  EXPECT_STREQ(kest_error_template(48), kest_error_template(49));
  EXPECT_NE(std::strstr(kest_error_template(63), "Unexepected"), nullptr);
}

TEST_F(KestErrorDeathTest, AssertionsNameTheBrokenCondition) {
  KestError* err = kest_error_create(mem_, 10, 2);
  EXPECT_DEATH(kest_error_create(nullptr, 1, 0), "ERROR:ERROR:assertion \"mem\" failed");
  EXPECT_DEATH(kest_error_set_param(nullptr, mem_, 0, "x"), "assertion \"error\" failed");
  EXPECT_DEATH(kest_error_set_param(err, mem_, 2, "x"),
               "assertion \"num < error->num_err_params\" failed");
  EXPECT_DEATH(kest_error_msg_len(nullptr), "assertion \"err\" failed");
  EXPECT_DEATH(kest_error_emit(nullptr, nullptr, nullptr), "assertion \"err\" failed");
}

}  // namespace
