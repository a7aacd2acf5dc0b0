#include "utils/znlog_config.h"

#include <array>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <optional>
#include <vector>

#include "utils/file.h"
#include "utils/platform.h"
#include "utils/znlog.h"

namespace {

constexpr uint32_t kBuiltinOutputs = 1u << kLogStderr;

constexpr std::array<std::string_view, 5> kLevelWords = {"error", "warn", "info", "debug", "trace"};
constexpr std::array<std::string_view, 17> kColourWords = {
    "black",      "red",           "green",      "brown",     "blue",        "magenta",
    "cyan",       "lightgray",     "gray",       "brightred", "brightgreen", "yellow",
    "brightblue", "brightmagenta", "brightcyan", "white",     "defaultcolor"};
constexpr std::array<std::string_view, kLogOutputCount> kOutputWords = {"stdout", "stderr", "file"};

template <size_t N>
std::optional<uint32_t> index_of(const std::array<std::string_view, N>& words, std::string_view w) {
  for (size_t i = 0; i < N; ++i) {
    if (words[i] == w) return static_cast<uint32_t>(i);
  }
  return std::nullopt;
}

enum class Tok { Word, Equals, Colon, End, Eof };
struct Token {
  Tok kind;
  std::string_view word;
};

// Blanks, tabs (and carriage returns, so files with CR LF line ends read alike) separate; a line
// feed or a comma ends an entry; '#' comments run to the line feed.
class Tokenizer {
 public:
  explicit Tokenizer(std::string_view text) : text_(text) {}

  Token next() {
    while (pos_ < text_.size()) {
      const char c = text_[pos_];
      if (c == ' ' || c == '\t' || c == '\r') {
        ++pos_;
      } else if (c == '#') {
        while (pos_ < text_.size() && text_[pos_] != '\n') ++pos_;
      } else {
        break;
      }
    }
    if (pos_ >= text_.size()) return {Tok::Eof, {}};
    const char c = text_[pos_];
    if (c == '\n' || c == ',') return ++pos_, Token{Tok::End, {}};
    if (c == '=') return ++pos_, Token{Tok::Equals, {}};
    if (c == ':') return ++pos_, Token{Tok::Colon, {}};
    if (c == '"') return quoted();
    const size_t start = pos_;
    while (pos_ < text_.size() && !std::strchr("#:=,\n\t \r", text_[pos_])) ++pos_;
    return {Tok::Word, text_.substr(start, pos_ - start)};
  }

 private:
  Token quoted() {
    const size_t start = ++pos_;
    while (pos_ < text_.size() && text_[pos_] != '"') ++pos_;
    const std::string_view word = text_.substr(start, pos_ - start);
    if (pos_ < text_.size()) ++pos_;
    return {Tok::Word, word};
  }

  std::string_view text_;
  size_t pos_ = 0;
};

struct WordList {
  std::vector<std::string_view> words;
  bool at_eof = false;
};

// word (":" word)* then the end of the entry.
std::optional<WordList> parse_list(Tokenizer& tokens) {
  WordList list;
  for (;;) {
    const Token w = tokens.next();
    if (w.kind != Tok::Word) return std::nullopt;
    list.words.push_back(w.word);
    const Token sep = tokens.next();
    if (sep.kind == Tok::Colon) continue;
    if (sep.kind == Tok::End || sep.kind == Tok::Eof) {
      list.at_eof = sep.kind == Tok::Eof;
      return list;
    }
    return std::nullopt;
  }
}

bool apply_style_word(OutputStyle& style, std::string_view w) {
  if (w == "timestamp") {
    style.time_mode = 2;
  } else if (w == "timesec") {
    style.time_mode = 1;
  } else {
    struct Switch {
      std::string_view word;
      uint32_t OutputStyle::*field;
    };
    static constexpr Switch kSwitches[] = {
        {"color", &OutputStyle::color},     {"showlevel", &OutputStyle::showlevel},
        {"comment", &OutputStyle::comment}, {"fileline", &OutputStyle::fileline},
        {"pid", &OutputStyle::pid},         {"tid", &OutputStyle::tid},
        {"txid", &OutputStyle::txid},       {"flush", &OutputStyle::flush},
        {"usec", &OutputStyle::usec}};
    const Switch* hit = nullptr;
    for (const Switch& s : kSwitches) {
      if (s.word == w) hit = &s;
    }
    if (!hit) return false;
    style.*(hit->field) = 1;
  }
  return true;
}

FacilityRule builtin_rule(uint32_t level) {
  FacilityRule r{};
  std::memcpy(r.name, "default", 7);
  r.level = level;
  r.colour = kColourDefault;
  r.outputs = kBuiltinOutputs;
  return r;
}

class Parser {
 public:
  Parser(std::string_view text, LogConfig& config, uint32_t default_level)
      : tokens_(text), config_(config), default_level_(default_level) {}

  void run() {
    int entry = 1;
    for (;;) {
      const Token first = tokens_.next();
      if (first.kind == Tok::Eof) return;
      if (first.kind != Tok::End) {
        const std::optional<bool> at_eof = parse_entry(first);
        if (!at_eof) {
          config_.error_line = entry;
          return;
        }
        if (*at_eof) return;
      }
      ++entry;
    }
  }

 private:
  // Each entry is applied whole or not at all. Returns whether the entry ended the text, or
  // nothing on an error.
  std::optional<bool> parse_entry(const Token& first) {
    if (first.kind != Tok::Word) return std::nullopt;
    if (const auto out = index_of(kOutputWords, first.word)) return parse_style(*out);
    if (first.word == "filename") return parse_filename();
    std::string_view name = first.word;
    if (name == "facility") {
      const Token t = tokens_.next();
      if (t.kind != Tok::Word) return std::nullopt;
      name = t.word;
    }
    return parse_rule(name);
  }

  std::optional<bool> parse_style(uint32_t output) {
    if (tokens_.next().kind != Tok::Equals) return std::nullopt;
    const auto list = parse_list(tokens_);
    if (!list) return std::nullopt;
    OutputStyle style{};
    for (std::string_view w : list->words) {
      if (!apply_style_word(style, w)) return std::nullopt;
    }
    config_.styles[output] = style;
    return list->at_eof;
  }

  std::optional<bool> parse_filename() {
    if (tokens_.next().kind != Tok::Equals) return std::nullopt;
    const Token name = tokens_.next();
    if (name.kind != Tok::Word) return std::nullopt;
    const Token end = tokens_.next();
    if (end.kind != Tok::End && end.kind != Tok::Eof) return std::nullopt;
    config_.filename.assign(name.word);
    return end.kind == Tok::Eof;
  }

  std::optional<bool> parse_rule(std::string_view name) {
    if (tokens_.next().kind != Tok::Equals) return std::nullopt;
    const auto list = parse_list(tokens_);
    if (!list) return std::nullopt;
    const bool is_default = name == "default";
    FacilityRule rule = is_default ? builtin_rule(default_level_) : config_.rules[0];
    uint32_t outputs = 0;
    for (std::string_view w : list->words) {
      if (const auto level = index_of(kLevelWords, w)) {
        rule.level = *level;
      } else if (const auto colour = index_of(kColourWords, w)) {
        rule.colour = *colour;
      } else if (const auto out = index_of(kOutputWords, w)) {
        outputs |= 1u << *out;
      } else {
        return std::nullopt;
      }
    }
    if (outputs) rule.outputs = outputs;
    if (is_default) {
      config_.rules[0] = rule;
    } else {
      if (config_.rule_count == kMaxFacilityRules) return std::nullopt;
      std::memset(rule.name, 0, sizeof rule.name);
      std::memcpy(rule.name, name.data(), std::min(name.size(), kFacilityNameMax));
      config_.rules[config_.rule_count++] = rule;
    }
    return list->at_eof;
  }

  Tokenizer tokens_;
  LogConfig& config_;
  uint32_t default_level_;
};

std::string read_whole_file(const char* path) {
  std::string text;
  std::FILE* f = std::fopen(path, "rb");
  if (!f) return text;
  char chunk[4096];
  size_t n;
  while ((n = std::fread(chunk, 1, sizeof chunk, f)) > 0) text.append(chunk, n);
  std::fclose(f);
  return text;
}

const char* env_value(const char* name) {
  const char* v = std::getenv(name);
  return v && *v ? v : nullptr;
}

// The text of `directory` + separator + `name`, or empty.
std::string read_config_in(const char* directory, const char* name) {
  const size_t size = std::strlen(directory) + std::strlen(name) + 2;
  std::unique_ptr<char, decltype(&std::free)> path(static_cast<char*>(std::malloc(size)),
                                                   &std::free);
  if (!path) {
    ZN_LOG(nullptr, ZN_WARN, "logger_get_config: unable to allocate %d bytes  for config filename.",
           static_cast<int>(size));
    return {};
  }
  std::snprintf(path.get(), size, "%s%c%s", directory, kPathSeparator, name);
  return read_whole_file(path.get());
}

}  // namespace

LogConfig builtin_log_config(uint32_t default_level) {
  LogConfig c{};
  c.rules[0] = builtin_rule(default_level);
  c.rule_count = 1;
  c.styles[kLogStdout].color = 1;
  c.styles[kLogStdout].comment = 1;
  c.styles[kLogStderr].comment = 1;
  c.styles[kLogFile].time_mode = 2;
  c.styles[kLogFile].showlevel = 1;
  c.styles[kLogFile].pid = 1;
  return c;
}

LogConfig parse_log_config(std::string_view text, uint32_t default_level) {
  LogConfig config = builtin_log_config(default_level);
  Parser(text, config, default_level).run();
  if (config.filename.empty()) {
    for (int i = 0; i < config.rule_count; ++i) {
      if (config.rules[i].outputs & (1u << kLogFile)) {
        config.filename = "quillmarke.log";
        break;
      }
    }
  }
  return config;
}

std::string log_file_path(const LogConfig& config, const char* directory) {
  const std::string& name = config.filename;
  if (name.empty() || !directory || !*directory) return name;
  // A name starting with the platform's own separator is absolute too (a POSIX root path).
  if (kest_path_absolute(name.c_str()) || name.front() == kPathSeparator) return name;
  return std::string(directory) + kPathSeparator + name;
}

std::string find_log_config_text() {
  if (const char* text = env_value("ZNLOG")) return text;
  if (const char* file = env_value("ZNLOG_CONFIGFILE")) {
    std::string text = read_whole_file(file);
    if (!text.empty()) return text;
  }
  if (const char* dir = env_value("ZNLOG_DIRECTORY")) return read_config_in(dir, "znlog.conf");
  if (const char* home = env_value("USERPROFILE")) return read_config_in(home, ".znlog");
  return {};
}

char* logger_get_config() {
  const std::string text = find_log_config_text();
  auto* copy = static_cast<char*>(std::malloc(text.size() + 1));
  if (copy) std::memcpy(copy, text.c_str(), text.size() + 1);
  return copy;
}
