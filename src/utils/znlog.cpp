// The logger: state, initialisation, line building and the transaction registry. The
// configuration text is found and parsed in znlog_config.cpp.
#include "utils/znlog.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string_view>

#include "utils/hash_table.h"
#include "utils/platform.h"
#include "utils/znlog_config.h"

namespace {

constexpr const char* kLevelNames[] = {"ERROR", " WARN", " INFO", "DEBUG", "TRACE"};
constexpr size_t kPrefixMax = 256;
constexpr uint32_t kErrorColour = 9;     // brightred
constexpr uint32_t kWarningColour = 11;  // yellow

struct TxEntry {
  uint32_t thread_id;
  int64_t txid;
};

struct Logger {
  bool initialised = false;
  bool configured = false;  // a configuration text was found
  int default_level = -1;   // znlog_set_default_level's, or -1
  LogConfig config;
  std::FILE* file = nullptr;  // the opened log file, never closed but by a test reset
  Lock* output_lock = nullptr;
  Lock* registry_lock = nullptr;
  HashTable* registry = nullptr;
};

// Never destroyed: static destructors of other modules may still log at exit.
Logger& logger() {
  static Logger* instance = new Logger;
  return *instance;
}

void initialise(const char* config_text, std::FILE* out, std::FILE* err) {
  Logger& l = logger();
  l.config = builtin_log_config();
  l.config.styles[kLogStdout].stream = out;
  l.config.styles[kLogStderr].stream = err;
  l.output_lock = lock_create();
  l.registry_lock = lock_create();
  l.registry = hash_table_create_with_slng_keys(sizeof(TxEntry));  // 16 buckets
  // From here on a log call made while the configuration is read uses the built-in one.
  l.initialised = true;

  const std::string found = config_text ? config_text : find_log_config_text();
  l.configured = !found.empty();
  LogConfig parsed = parse_log_config(found);
  if (!l.configured && l.default_level >= 0) parsed.rules[0].level = l.default_level;
  if (parsed.error_line && out) {
    std::fprintf(out, "error parsing configuration logger at line %d\n", parsed.error_line);
  }
  const std::string path = log_file_path(parsed, std::getenv("ZNLOG_DIRECTORY"));
  l.file = path.empty() ? nullptr : std::fopen(path.c_str(), "a");
  parsed.styles[kLogStdout].stream = out;
  parsed.styles[kLogStderr].stream = err;
  parsed.styles[kLogFile].stream = l.file;
  l.config = std::move(parsed);
}

Logger& ready_logger() {
  Logger& l = logger();
  if (!l.initialised) initialise(nullptr, stdout, stderr);
  return l;
}

const FacilityRule& rule_for(const LogConfig& config, const char* facility) {
  if (facility) {
    for (int i = 1; i < config.rule_count; ++i) {
      if (std::strncmp(config.rules[i].name, facility, sizeof config.rules[i].name) == 0) {
        return config.rules[i];
      }
    }
  }
  return config.rules[0];
}

int normalised_level(int level) { return level < 0 ? ZN_ERROR : level; }

bool passes(const FacilityRule& rule, int level) {
  return static_cast<uint32_t>(level) <= rule.level;
}

int64_t txid_of(Logger& l, uint32_t thread_id) {
  LockGuard guard(l.registry_lock);
  if (!l.registry) return 0;
  const int64_t key = thread_id;
  const auto* e = static_cast<const TxEntry*>(hash_table_find(l.registry, &key));
  return e ? e->txid : 0;
}

// The line prefix, built in a fixed area: each element is added only while the prefix is shorter
// than kPrefixMax and clipped to the space left; an element that fails to format is dropped.
class Prefix {
 public:
  void add(const char* format, ...) KEST_PRINTF_LIKE(2, 3) {
    if (length_ >= kPrefixMax) return;
    va_list args;
    va_start(args, format);
    const int n = std::vsnprintf(text_ + length_, sizeof text_ - length_, format, args);
    va_end(args);
    if (n < 0) {
      text_[length_] = '\0';
      return;
    }
    length_ = std::min(length_ + static_cast<size_t>(n), kPrefixMax);
  }
  void add_colour(uint32_t colour) {
    if (colour != kColourDefault)
      add("\x1b[%d;3%dm", static_cast<int>(colour / 8), static_cast<int>(colour % 8));
  }
  std::string_view view() const { return {text_, length_}; }

 private:
  char text_[kPrefixMax + 1] = {};
  size_t length_ = 0;
};

void add_time(Prefix& p, const OutputStyle& style) {
  if (style.time_mode == 1) {
    TimeVal tv;
    gettimeofday(&tv, nullptr);
    if (style.usec) {
      p.add("%010u.%06ld:", static_cast<unsigned>(tv.tv_sec), static_cast<long>(tv.tv_usec));
    } else {
      p.add("%010u.%03ld:", static_cast<unsigned>(tv.tv_sec), static_cast<long>(tv.tv_usec / 1000));
    }
  } else if (style.time_mode == 2) {
    const LocalTime t = local_time_now();
    if (style.usec) {
      p.add("%04d-%02d-%02d %02d:%02d:%02d.%06lld ", t.year, t.month, t.day, t.hour, t.minute,
            t.second, static_cast<long long>(t.usec));
    } else {
      p.add("%04d-%02d-%02d %02d:%02d:%02d ", t.year, t.month, t.day, t.hour, t.minute, t.second);
    }
  }
}

struct Message {
  int level;
  const char* facility;
  const char* file;
  int line;
  const char* text;  // line feeds and carriage returns already folded
  size_t length;
};

void build_prefix(Prefix& p, Logger& l, const OutputStyle& style, const FacilityRule& rule,
                  const Message& m) {
  if (style.comment && m.level != ZN_ERROR) p.add("#");
  if (style.color) {
    p.add_colour(m.level == ZN_ERROR  ? kErrorColour
                 : m.level == ZN_WARN ? kWarningColour
                                      : kColourDefault);
  }
  add_time(p, style);
  if (style.pid) p.add("PID%6d:", current_process_id());
  if (style.tid) p.add("TID %llu:", static_cast<unsigned long long>(current_thread_id()));
  if (style.txid) {
    if (const int64_t txid = txid_of(l, current_thread_id())) {
      p.add("TXID %lld:", static_cast<long long>(txid));
    }
  }
  if (style.showlevel || m.level <= ZN_WARN) p.add("%s:", kLevelNames[m.level]);
  if (m.facility) p.add("%s:", m.facility);
  if (style.fileline) p.add("%s:%d:", m.file ? m.file : "", m.line);
  if (style.color) p.add_colour(rule.colour);
}

void write_line(Logger& l, const OutputStyle& style, const FacilityRule& rule, const Message& m) {
  Prefix p;
  build_prefix(p, l, style, rule, m);
  const bool newline = m.length > 0 && m.text[m.length - 1] != '\n';
  // Written as "%s%s%s" would write it, but with fwrite: some C runtimes push every formatted
  // write through to the file, which would defeat the stream's buffering. A line that fits is
  // put together first and written with one call, so an unbuffered stream (standard error)
  // gets one write per line rather than one per piece.
  const std::string_view pieces[] = {p.view(), std::string_view(m.text),
                                     style.color ? "\x1b[m" : "", newline ? "\n" : ""};
  char line[1024];
  size_t used = 0;
  for (std::string_view piece : pieces) {
    if (used + piece.size() > sizeof line) {
      used = SIZE_MAX;
      break;
    }
    std::memcpy(line + used, piece.data(), piece.size());
    used += piece.size();
  }
  LockGuard guard(l.output_lock);
  if (used != SIZE_MAX) {
    std::fwrite(line, 1, used, style.stream);
  } else {
    for (std::string_view piece : pieces) std::fwrite(piece.data(), 1, piece.size(), style.stream);
  }
  if (style.flush) std::fflush(style.stream);
}

// One message is one line: every line feed and carriage return but a final one becomes a blank.
void fold_lines(char* text, size_t length) {
  for (size_t i = 0; i + 1 < length; ++i) {
    if (text[i] == '\n' || text[i] == '\r') text[i] = ' ';
  }
}

void emit(Logger& l, const FacilityRule& rule, const Message& m) {
  for (int out = 0; out < kLogOutputCount; ++out) {
    const OutputStyle& style = l.config.styles[out];
    if ((rule.outputs & (1u << out)) && style.stream) write_line(l, style, rule, m);
  }
}

struct FreeDeleter {
  void operator()(char* p) const { std::free(p); }
};

}  // namespace

void _zn_vlog(const char* file, int line, const char* facility, int level, const char* format,
              va_list args) {
  Logger& l = ready_logger();
  level = normalised_level(level);
  const FacilityRule& rule = rule_for(l.config, facility);
  if (!passes(rule, level)) return;
  std::unique_ptr<char, FreeDeleter> text(static_cast<char*>(std::malloc(kZnLogMaxText + 1)));
  if (!text) return;
  const int n = std::vsnprintf(text.get(), kZnLogMaxText + 1, format, args);
  if (n < 0) return;
  const size_t length = std::min(static_cast<size_t>(n), kZnLogMaxText);
  fold_lines(text.get(), length);
  emit(l, rule, Message{level, facility, file, line, text.get(), length});
}

void __zn_log(const char* file, int line, const char* facility, int level, const char* format,
              ...) {
  va_list args;
  va_start(args, format);
  _zn_vlog(file, line, facility, level, format, args);
  va_end(args);
}

bool zn_log_enabled(const char* facility, int level) {
  const Logger& l = ready_logger();
  return passes(rule_for(l.config, facility), normalised_level(level));
}

void __zn_backtrace(const char*, int, const char*) {}

void zn_log_begin(const char* file, int line, LogMessage* message, const char* facility,
                  int level) {
  const Logger& l = ready_logger();
  level = normalised_level(level);
  *message = LogMessage{level, facility, file, line, nullptr, 0};
  if (!passes(rule_for(l.config, facility), level)) return;
  message->text = static_cast<char*>(std::malloc(kZnLogMaxText + 1));
  if (message->text) message->text[0] = '\0';
}

void zn_log_append(LogMessage* message, const char* format, ...) {
  if (!message->text || message->length >= kZnLogMaxText) return;
  va_list args;
  va_start(args, format);
  const size_t room = kZnLogMaxText + 1 - message->length;
  const int n = std::vsnprintf(message->text + message->length, room, format, args);
  va_end(args);
  if (n < 0) {
    message->text[message->length] = '\0';
    return;
  }
  message->length = std::min(message->length + static_cast<size_t>(n), kZnLogMaxText);
}

void zn_log_end(LogMessage* message) {
  if (!message->text) return;
  Logger& l = ready_logger();
  fold_lines(message->text, message->length);
  emit(l, rule_for(l.config, message->facility),
       Message{message->level, message->facility, message->file, message->line, message->text,
               message->length});
  std::free(message->text);
  message->text = nullptr;
}

void zn_log_thread_create(uint32_t thread_id) {
  Logger& l = ready_logger();
  LockGuard guard(l.registry_lock);
  if (!l.registry) return;
  const int64_t caller = current_thread_id();
  const auto* own = static_cast<const TxEntry*>(hash_table_find(l.registry, &caller));
  const TxEntry entry{thread_id, own ? own->txid : 0};
  const int64_t key = thread_id;
  if (auto* existing = static_cast<TxEntry*>(hash_table_find(l.registry, &key))) {
    *existing = entry;
  } else {
    hash_table_insert(l.registry, &key, &entry);
  }
}

void zn_log_thread_destroy(uint32_t thread_id) {
  Logger& l = ready_logger();
  LockGuard guard(l.registry_lock);
  const int64_t key = thread_id;
  if (l.registry) hash_table_delete(l.registry, &key);
}

void zn_log_thread_set_txid(uint32_t thread_id, int64_t txid) {
  Logger& l = ready_logger();
  LockGuard guard(l.registry_lock);
  if (!l.registry) return;
  const int64_t key = thread_id;
  if (auto* e = static_cast<TxEntry*>(hash_table_find(l.registry, &key))) e->txid = txid;
}

int64_t zn_log_thread_get_txid(uint32_t thread_id) { return txid_of(ready_logger(), thread_id); }

void znlog_set_default_level(int level) {
  Logger& l = logger();
  l.default_level = level;
  if (l.initialised && !l.configured) l.config.rules[0].level = static_cast<uint32_t>(level);
}

void zn_log_reset_for_tests(const char* config_text, std::FILE* out, std::FILE* err) {
  Logger& l = logger();
  if (l.file) std::fclose(l.file);
  hash_table_destroy(l.registry);
  lock_destroy(l.registry_lock);
  lock_destroy(l.output_lock);
  l = Logger{};
  initialise(config_text, out ? out : stdout, err ? err : stderr);
}
