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
  void SetUp() override { mem_ = mem_context_create(nullptr, "kest_error_test"); }
  void TearDown() override { mem_context_destroy(mem_); }

  KestError* make(int32_t code, std::initializer_list<const char*> params) {
    KestError* err = kest_error_create(mem_, code, static_cast<int32_t>(params.size()));
    EXPECT_NE(err, nullptr);
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

  MemContext* mem_ = nullptr;
};

struct FormatCase {
  const char* name;
  int32_t code;
  std::initializer_list<const char*> params;
  const char* expected;
};

TEST_F(KestErrorTest, FormatsTemplates) {
  const FormatCase cases[] = {
      {"parse error, all four parameters",
       10,
       {"q.txt", "3", "7", "unexpected token"},
       "Parse error in q.txt at line 3, column 7: unexpected token."},
      {"missing %2 leaves the quotes empty",
       7,
       {"port", "client"},
       "Invalid value for property port in group client: ''."},
      {"null parameter copies nothing",
       26,
       {"x", nullptr, "sint"},
       "Cannot convert 'x' from  to sint."},
      {"%% is one percent sign",
       68,
       {"97", "1024"},
       "Memory limit reached: 97% of 1024 bytes in use."},
      {"parameters out of order", 148, {"t", "5", "12"}, "t stores 12 records with 5 unique keys"},
      {"unknown code below the table", -1, {}, "Unknown error code -1 (no parameters)"},
      {"first code past the table",
       KEST_ERROR_COUNT,
       {nullptr, "%0"},
       "Unknown error code 184 (parameters: null, '%0')"},
  };
  for (const FormatCase& c : cases) {
    EXPECT_EQ(format(make(c.code, c.params)), c.expected) << c.name;
  }
}

TEST_F(KestErrorTest, PercentFollowedByAnythingElseVanishesWithThatCharacter) {
  const struct {
    const char* tpl;
    const char* expected;
  } cases[] = {
      {"a%xb", "ab"},    {"%9 and %1", " and B"}, {"100%", "100"},
      {"%0%1%0", "ABA"}, {"%%%0%%", "%A%"},       {"% %", ""},
      {"%!%0", "A"},
  };
  KestError* err = make(3, {"A", "B"});
  for (const auto& c : cases) {
    char dest[32];
    kest_error_format_template(c.tpl, err, dest);
    EXPECT_STREQ(dest, c.expected) << c.tpl;
  }
}

TEST_F(KestErrorTest, LengthCountsTemplateEachParameterOnceAndTerminator) {
  // The template is "Parse error in %0 at line %1, column %2: %3." (44 bytes).
  EXPECT_EQ(kest_error_msg_len(make(10, {"q.txt", "3", "7", "unexpected token"})),
            std::strlen(kest_error_template(10)) + 5 + 1 + 1 + 16 + 1);
  // Parameters the template does not use still count; null ones count nothing.
  EXPECT_EQ(kest_error_msg_len(make(21, {"abc", nullptr})),
            std::strlen("Division by zero.") + 3 + 1);
  EXPECT_EQ(kest_error_msg_len(make(100000, {"a", "b"})),
            std::strlen("Unknown error code 100000 (parameters: 'a', 'b')") + 1);
}

TEST_F(KestErrorTest, ParametersAndTextAreCopiedIntoTheContext) {
  char column[] = "k";
  KestError* err = make(11, {column});
  column[0] = 'X';
  EXPECT_EQ(err->code, 11);
  char* text = kest_error_text(mem_, err);
  EXPECT_STREQ(text, "Unknown column k.");
  EXPECT_NE(text, KEST_ERROR_NO_MEMORY_TEXT);
  for (int32_t code : {-1, KEST_ERROR_COUNT, INT32_MIN, INT32_MAX}) {
    EXPECT_EQ(kest_error_template(code), nullptr) << code;
  }
}

TEST(KestErrorTable, EveryTemplateObeysThePlaceholderRules) {
  int percent_literals = 0;
  for (int32_t code = 0; code < KEST_ERROR_COUNT; ++code) {
    const char* tpl = kest_error_template(code);
    ASSERT_NE(tpl, nullptr) << code;
    EXPECT_GT(std::strlen(tpl), 0u) << code;
    std::set<char> used;
    for (const char* p = tpl; *p; ++p) {
      if (*p != '%') continue;
      ++p;
      ASSERT_NE(*p, '\0') << "trailing % in code " << code;
      if (*p == '%') {
        ++percent_literals;
        continue;
      }
      EXPECT_TRUE(*p >= '0' && *p <= '9') << "code " << code << ": %" << *p;
      EXPECT_TRUE(used.insert(*p).second) << "code " << code << " uses %" << *p << " twice";
    }
  }
  EXPECT_GE(percent_literals, 1);
  // Texts the server shares word for word, slips included.
  EXPECT_STREQ(kest_error_template(48), kest_error_template(49));
  EXPECT_NE(std::strstr(kest_error_template(63), "Unexepected"), nullptr);
}

TEST(KestErrorHelpers, NegativeStatusAndNegation) {
  EXPECT_EQ(kest_error_is_negative(-1), 1);
  EXPECT_EQ(kest_error_is_negative(INT64_MIN), 1);
  EXPECT_EQ(kest_error_is_negative(0), 0);
  EXPECT_EQ(kest_error_negate(5), -5);
  EXPECT_EQ(kest_error_negate(-7), 7);
  EXPECT_EQ(kest_error_negate(INT32_MIN), INT32_MIN);
}

TEST(KestErrorDeathTest, AssertionsNameTheBrokenCondition) {
  MemContext* mem = mem_context_create(nullptr, "death");
  KestError* err = kest_error_create(mem, 10, 2);
  EXPECT_DEATH(kest_error_create(nullptr, 1, 0), "ERROR:ERROR:assertion \"mem\" failed");
  EXPECT_DEATH(kest_error_set_param(nullptr, mem, 0, "x"), "assertion \"error\" failed");
  EXPECT_DEATH(kest_error_set_param(err, mem, 2, "x"),
               "assertion \"num < error->num_err_params\" failed");
  EXPECT_DEATH(kest_error_msg_len(nullptr), "assertion \"err\" failed");
  mem_context_destroy(mem);
}

}  // namespace
