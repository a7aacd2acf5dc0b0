#include "utils/file.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <string>

namespace {

class AuthFileTest : public testing::Test {
 protected:
  void SetUp() override {
    const auto* info = testing::UnitTest::GetInstance()->current_test_info();
    path_ = (std::filesystem::temp_directory_path() /
             (std::string("kest_auth_") + info->name() + ".key"))
                .string();
  }
  void TearDown() override { std::remove(path_.c_str()); }

  void write_bytes(size_t n) {
    std::FILE* f = std::fopen(path_.c_str(), "wb");
    ASSERT_NE(f, nullptr);
    for (size_t i = 0; i < n; ++i) std::fputc(static_cast<int>('A' + i % 26), f);
    std::fclose(f);
  }

  std::string path_;
  char key_[kAuthKeySize + 1] = {};
};

// 64 bytes or more give the first 64; a shorter file is refused with its bytes left in the key.
TEST_F(AuthFileTest, KeyIsTheFirst64BytesOfALongEnoughFile) {
  for (size_t size : {0u, 63u, 64u, 100u}) {
    SCOPED_TRACE(size);
    write_bytes(size);
    std::fill(std::begin(key_), std::end(key_), 'z');
    testing::internal::CaptureStderr();
    const char* got = read_auth_file(path_.c_str(), key_);
    const std::string log = testing::internal::GetCapturedStderr();
    if (size < 64) {
      EXPECT_EQ(got, nullptr);
      EXPECT_EQ(log, "ERROR:read_auth_file: file '" + path_ + "' only contains " +
                         std::to_string(size) + " bytes instead of 64\n");
    } else {
      EXPECT_EQ(got, key_);
      EXPECT_EQ(log, "");
    }
    for (size_t i = 0; i < std::min<size_t>(size, 64); ++i) {
      ASSERT_EQ(key_[i], static_cast<char>('A' + i % 26)) << i;
    }
    EXPECT_EQ(key_[size == 0 ? 0 : 64], size == 0 ? '\0' : 'z');  // cleared first, not terminated
  }
}

TEST_F(AuthFileTest, MissingFileLogsTheOpenErrorAndNoPathIsSilent) {
  key_[0] = 'x';
  testing::internal::CaptureStderr();
  EXPECT_EQ(read_auth_file(path_.c_str(), key_), nullptr);
  const std::string log = testing::internal::GetCapturedStderr();
  EXPECT_EQ(key_[0], '\0');
  EXPECT_EQ(log.rfind("ERROR:read_auth_file: error ", 0), 0u) << log;
  EXPECT_NE(log.find(" opening file '" + path_ + "'\n"), std::string::npos) << log;
  EXPECT_EQ(log.find("error 0 "), std::string::npos) << "the system's error number: " << log;
  testing::internal::CaptureStderr();
  for (const char* none : {static_cast<const char*>(nullptr), ""}) {
    key_[0] = 'x';
    EXPECT_EQ(read_auth_file(none, key_), nullptr);
    EXPECT_EQ(key_[0], '\0');
  }
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

TEST(AuthFileDeathTest, NullKeyIsAnAssertion) {
  EXPECT_DEATH(read_auth_file("x", nullptr), "assertion \"empty_key\" failed");
}

TEST(PathAbsolute, BackslashRule) {
  struct Case {
    const char* path;
    int want;
  };
  const Case cases[] = {
      {"", 0},
      {"C:log.txt", 0},       // a colon but no backslash
      {"/var/log/x.log", 0},  // only backslashes count
      {"\\logs\\x.log", 1},   // starts with a backslash
      {"\\\\server\\share", 1},
      {"C:\\logs\\x.log", 1},  // drive letter, colon right before the first backslash
      {"logs\\x.log", 0},      // relative with a backslash
      {"C:logs\\x.log", 0},    // colon not right before the first backslash
      {"a\\b:\\c", 0},         // the first backslash comes before the colon
  };
  for (const Case& c : cases) EXPECT_EQ(kest_path_absolute(c.path), c.want) << c.path;
}

}  // namespace
