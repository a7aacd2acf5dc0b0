#include "utils/version.h"

#include <gtest/gtest.h>

#include <string>

#include "utils/kest_assert.h"

TEST(AssertDeathTest, ReportsConditionTextAndVersionThenAborts) {
  int* buf = nullptr;
  EXPECT_DEATH(KEST_ASSERT("NETBUFFER", buf && *buf == 1),
               "ERROR:NETBUFFER:assertion \"buf && \\*buf == 1\" failed\n"
               ".*Kest Server version kest-vs9-OPTXPROF-64");
}

namespace {
struct Asserted {
  std::string facility, condition;
};
[[noreturn]] void throw_asserted(const char* facility, const char* condition) {
  throw Asserted{facility, condition};
}
}  // namespace

// The harnesses' hook: the same log lines, then the handler instead of the abort.
TEST(AssertHandler, InstalledHandlerRunsAfterTheLogInsteadOfTheAbort) {
  kest_assert_set_handler(throw_asserted);
  testing::internal::CaptureStderr();
  std::string facility, condition;
  try {
    KEST_ASSERT_TEXT("NETBUFFER", false, "pos + len <= buf->used");
  } catch (const Asserted& a) {
    facility = a.facility;
    condition = a.condition;
  }
  const std::string log = testing::internal::GetCapturedStderr();
  kest_assert_set_handler(nullptr);
  EXPECT_EQ(facility, "NETBUFFER");
  EXPECT_EQ(condition, "pos + len <= buf->used");
  EXPECT_NE(log.find("ERROR:NETBUFFER:assertion \"pos + len <= buf->used\" failed"),
            std::string::npos);
  EXPECT_NE(log.find("Kest Server version"), std::string::npos);
}

TEST(AssertDeathTest, HandlerThatReturnsStillAborts) {
  EXPECT_DEATH(
      {
        kest_assert_set_handler([](const char*, const char*) {});
        KEST_ASSERT("NETBUFFER", 1 == 2);
      },
      "assertion \"1 == 2\" failed");
}
