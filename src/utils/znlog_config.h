// The logger's configuration: the search for its text and the parser that turns the text into
// facility rules, output styles and a log file name. Pure apart from the search, which reads the
// environment and files; the logger (znlog.cpp) applies the result.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>
#include <string_view>

// Outputs: index into LogConfig::styles; a rule's `outputs` mask holds bit (1 << index).
enum LogOutput : int { kLogStdout = 0, kLogStderr = 1, kLogFile = 2, kLogOutputCount = 3 };
constexpr uint32_t kColourDefault = 16;  // writes no escape
constexpr int kMaxFacilityRules = 128;   // entry 0 is the default rule
constexpr size_t kFacilityNameMax = 15;

struct FacilityRule {
  char name[kFacilityNameMax + 1];  // NUL-padded
  uint32_t level;
  uint32_t colour;   // 0-16
  uint32_t outputs;  // mask of (1 << LogOutput)
};

struct OutputStyle {
  std::FILE* stream;   // null when closed; the parser leaves it null
  uint32_t time_mode;  // 0 none, 1 "timesec", 2 "timestamp"
  uint32_t color, fileline, showlevel, comment, pid, tid, txid, flush, usec;
};

struct LogConfig {
  FacilityRule rules[kMaxFacilityRules];
  int rule_count;  // at least 1
  OutputStyle styles[kLogOutputCount];
  std::string filename;  // empty: no log file
  int error_line;        // the entry where parsing stopped, 0 when the whole text parsed
};

// The level of the built-in default rule unless the program chooses another
// (zn_log_set_default_level).
constexpr uint32_t kBuiltinLogLevel = 2;  // info

// The built-in configuration: the default rule (`default_level`, colour 16, standard error) and
// the built-in styles (standard output: color, comment; standard error: comment; file: timestamp,
// showlevel, pid).
LogConfig builtin_log_config(uint32_t default_level = kBuiltinLogLevel);

// Parses `text` over the built-in configuration. Stops at the first error, keeping the entries
// before it and recording the entry's number (from 1; each line feed or comma ends an entry) in
// `error_line`. Never reads outside `text`. Afterwards, when a rule sends to the file output and
// no name was given, the name is "quillmarke.log". A "default" entry starts from the built-in
// default rule at `default_level`; so do the facility rules that come before one.
LogConfig parse_log_config(std::string_view text, uint32_t default_level = kBuiltinLogLevel);

// Where the log file goes: `filename` as it stands, or inside `directory` (when it is non-null
// and non-empty) when the name is not absolute. Empty when there is no log file.
std::string log_file_path(const LogConfig& config, const char* directory);

// The configuration text found by the environment search (see znlog.h), or empty.
std::string find_log_config_text();
