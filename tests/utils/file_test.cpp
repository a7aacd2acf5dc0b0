#include "utils/file.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <string>

#include "support/temp_dir.h"

namespace {

std::string Logged(const char* path, char* key, const char** got) {
  testing::internal::CaptureStderr();
  *got = read_auth_file(path, key);
  return testing::internal::GetCapturedStderr();
}

// 64 bytes or more give the first 64; a shorter file is refused with its bytes left in the key.
TEST(AuthFile, KeyIsTheFirst64BytesOfALongEnoughFile) {
  const kest_test::TempDir dir("kest_auth");
  const std::string path = (dir / "auth.key").string();
  for (size_t size : {0u, 63u, 64u, 100u}) {
    SCOPED_TRACE(size);
    std::FILE* f = std::fopen(path.c_str(), "wb");
    ASSERT_NE(f, nullptr);
    for (size_t i = 0; i < size; ++i) std::fputc(static_cast<int>('A' + i % 26), f);
    std::fclose(f);
    char key[kAuthKeySize + 1];
    std::fill(std::begin(key), std::end(key), 'z');
    const char* got = nullptr;
    const std::string log = Logged(path.c_str(), key, &got);
    EXPECT_EQ(got, size < 64 ? nullptr : key);
    EXPECT_EQ(log, size >= 64 ? ""
                              : "ERROR:read_auth_file: file '" + path + "' only contains " +
                                    std::to_string(size) + " bytes instead of 64\n");
    for (size_t i = 0; i < std::min<size_t>(size, 64); ++i) {
      ASSERT_EQ(key[i], static_cast<char>('A' + i % 26)) << i;
    }
    EXPECT_EQ(key[size == 0 ? 0 : 64], size == 0 ? '\0' : 'z');  // cleared first, not terminated
  }
}

TEST(AuthFile, MissingFileLogsTheOpenErrorAndNoPathIsSilent) {
  const kest_test::TempDir dir("kest_auth");
  const std::string path = (dir / "no_such.key").string();
  char key[kAuthKeySize] = {'x'};
  const char* got = key;
  const std::string log = Logged(path.c_str(), key, &got);
  EXPECT_EQ(got, nullptr);
  EXPECT_EQ(key[0], '\0');
  EXPECT_EQ(log.rfind("ERROR:read_auth_file: error ", 0), 0u) << log;
  EXPECT_EQ(log.find("error 0 "), std::string::npos) << "the system's error number: " << log;
  EXPECT_NE(log.find(" opening file '" + path + "'\n"), std::string::npos) << log;
  for (const char* none : {static_cast<const char*>(nullptr), ""}) {
    EXPECT_EQ(Logged(none, key, &got), "");
    EXPECT_EQ(got, nullptr);
  }
}

TEST(AuthFileDeathTest, NullKeyIsAnAssertion) {
  EXPECT_DEATH(read_auth_file("x", nullptr), "assertion \"empty_key\" failed");
}

TEST(PathAbsolute, BackslashRule) {
  const std::pair<const char*, int> cases[] = {
      {"C:log.txt", 0},        // a colon but no backslash
      {"\\logs\\x.log", 1},    // starts with a backslash
      {"C:\\logs\\x.log", 1},  // drive letter, colon right before the first backslash
      {"logs\\x.log", 0},      // relative with a backslash
      {"C:logs\\x.log", 0},    // colon not right before the first backslash
      {"a\\b:\\c", 0},         // the first backslash comes before the colon
  };
  for (const auto& [path, want] : cases) EXPECT_EQ(kest_path_absolute(path), want) << path;
}

}  // namespace
