#include "utils/file.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>

#include "utils/kest_assert.h"
#include "utils/znlog.h"

namespace {
struct FileCloser {
  void operator()(std::FILE* f) const { std::fclose(f); }
};
}  // namespace

char* read_auth_file(const char* path, char* key) {
  KEST_ASSERT_TEXT(nullptr, key != nullptr, "empty_key");
  key[0] = '\0';
  if (!path || !*path) return nullptr;
  errno = 0;
  std::unique_ptr<std::FILE, FileCloser> file(std::fopen(path, "rb"));
  if (!file) {
    ZN_LOG(nullptr, ZN_ERROR, "read_auth_file: error %d opening file '%s'", errno, path);
    return nullptr;
  }
  errno = 0;
  const size_t got = std::fread(key, 1, kAuthKeySize, file.get());
  if (got < kAuthKeySize && std::ferror(file.get())) {
    ZN_LOG(nullptr, ZN_ERROR, "read_auth_file: error %d reading from file '%s'", errno, path);
    return nullptr;
  }
  if (got < kAuthKeySize) {
    ZN_LOG(nullptr, ZN_ERROR, "read_auth_file: file '%s' only contains %d bytes instead of %d",
           path, static_cast<int>(got), kAuthKeySize);
    return nullptr;
  }
  return key;
}

int kest_path_absolute(const char* path) {
  const char* backslash = std::strchr(path, '\\');
  if (!backslash) return 0;
  if (backslash == path) return 1;
  const char* colon = std::strchr(path, ':');
  return colon && colon + 1 == backslash ? 1 : 0;
}
