#include "utils/version.h"

#include <cstdio>

namespace {

constexpr const char* kBuildTag = "kest-vs9-OPTXPROF-64";
constexpr const char* kRevision = "7887";
constexpr const char* kBranch = "branches/zn2.50";
constexpr const char* kBuildDate = "Oct 19 2012";
constexpr const char* kBuildTime = "01:09:04";
constexpr int kCompilerVersion = 1500;

// Writes at `at` without passing the end of buf; false when the text did not fit.
template <typename... Args>
bool put(char* buf, size_t size, size_t at, size_t* end, const char* fmt, Args... args) {
  if (at >= size) return false;
  int n = std::snprintf(buf + at, size - at, fmt, args...);
  if (n < 0 || static_cast<size_t>(n) >= size - at) return false;
  *end = at + static_cast<size_t>(n);
  return true;
}

const char* compute(char* buf, size_t size) {
  size_t end = 0;
  if (!put(buf, size, 0, &end, "%s", kBuildTag)) return buf;
  const size_t tag_end = end;
  // The revision is written at the end of the tag and then overwritten by the branch, which is
  // written at the same position: the revision never shows. Kept as the build text has it.
  put(buf, size, tag_end, &end, "-r%s ", kRevision);
  if (!put(buf, size, tag_end, &end, "(%s) ", kBranch)) return buf;
  put(buf, size, end, &end, "built on %s %s with Microsoft Compiler version %d", kBuildDate,
      kBuildTime, kCompilerVersion);
  return buf;
}

}  // namespace

const char* version_str() {
  static char buffer[128];
  static const char* text = compute(buffer, sizeof buffer);
  return text;
}

void version(const char* progname) {
  std::printf("%s\n%s\n", progname, version_str());
}
