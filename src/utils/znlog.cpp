// Minimal logger core: the built-in default rule (levels up to info, standard error, the
// standard-error style with "#" before non-error lines). The configurable logger replaces it.
#include "utils/znlog.h"

#include <cstdio>
#include <cstring>
#include <string>

namespace {
constexpr const char* kLevelNames[] = {"ERROR", " WARN", " INFO", "DEBUG", "TRACE"};
constexpr size_t kMaxText = 65536;
}  // namespace

void _zn_vlog(const char* /*file*/, int /*line*/, const char* facility, int level,
              const char* format, va_list args) {
  if (level > ZN_INFO || level < 0) return;
  std::string text(kMaxText + 1, '\0');
  int n = std::vsnprintf(text.data(), text.size(), format, args);
  if (n < 0) return;
  text.resize(std::min<size_t>(static_cast<size_t>(n), kMaxText));
  std::string prefix;
  if (level != ZN_ERROR) prefix += '#';
  if (level <= ZN_WARN) prefix += std::string(kLevelNames[level]) + ":";
  if (facility) prefix += std::string(facility) + ":";
  for (size_t i = 0; i + 1 < text.size(); ++i)
    if (text[i] == '\n' || text[i] == '\r') text[i] = ' ';
  const bool newline = !text.empty() && text.back() != '\n';
  std::fprintf(stderr, "%s%s%s", prefix.c_str(), text.c_str(), newline ? "\n" : "");
}

void __zn_log(const char* file, int line, const char* facility, int level, const char* format,
              ...) {
  va_list args;
  va_start(args, format);
  _zn_vlog(file, line, facility, level, format, args);
  va_end(args);
}

bool zn_log_enabled(const char* /*facility*/, int level) { return level >= 0 && level <= ZN_INFO; }

void __zn_backtrace(const char*, int, const char*) {}
