#include "utils/version.h"

#include <gtest/gtest.h>

#include "utils/kest_assert.h"

TEST(Version, TextIsTheBuildLineWithoutTheRevision) {
  EXPECT_STREQ(version_str(),
               "kest-vs9-OPTXPROF-64(branches/zn2.50) built on Oct 19 2012 01:09:04 with "
               "Microsoft Compiler version 1500");
}

TEST(AssertDeathTest, ReportsConditionTextAndVersionThenAborts) {
  int* buf = nullptr;
  EXPECT_DEATH(KEST_ASSERT("NETBUFFER", buf && *buf == 1),
               "ERROR:NETBUFFER:assertion \"buf && \\*buf == 1\" failed\n"
               ".*Kest Server version kest-vs9-OPTXPROF-64");
}
