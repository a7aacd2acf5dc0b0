// The logger: one-line messages tagged with a level and a facility, sent to standard output,
// standard error and a log file as the configuration (ZNLOG, ZNLOG_CONFIGFILE, ZNLOG_DIRECTORY,
// USERPROFILE) says. It configures itself at the first call of any entry point; that first call
// should happen before other threads start. Afterwards any thread may log: each line is written
// (and flushed, when the output says so) under one output lock, so lines never interleave.
//
// Configuration text (first found wins): the value of ZNLOG; the file named by ZNLOG_CONFIGFILE;
// <ZNLOG_DIRECTORY>/znlog.conf, or when that variable is unset <USERPROFILE>/.znlog (the separator
// is '\' on Windows and '/' elsewhere); else nothing, which means: error, warning and info to
// standard error. An empty variable counts as unset.
//
//   # comment                     entries end at a line feed or a comma
//   stdout = color:comment        output styles: color timestamp timesec showlevel comment
//   stderr = showlevel:pid        fileline pid tid txid flush usec
//   file = timestamp:showlevel
//   filename = run.log            relative names go into ZNLOG_DIRECTORY when it is set
//   default = debug:stdout        the rule for every facility without its own
//   NETBUFFER = trace:red:file    levels, colours, outputs; unset fields come from the default
//
// A parse error stops parsing (earlier entries stay in force) and prints
// "error parsing configuration logger at line N" on standard output.
#pragma once

#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstdio>

#include "utils/compiler.h"

enum ZnLogLevel : int { ZN_ERROR = 0, ZN_WARN = 1, ZN_INFO = 2, ZN_DEBUG = 3, ZN_TRACE = 4 };

// The longest message text; longer texts are clipped.
constexpr size_t kZnLogMaxText = 65536;

// The normal logging call. `file`/`line` are the caller's source position, `facility` a short
// upper-case word (or null for the default facility), `level` 0 (error) to 4 (trace); a negative
// level counts as an error. A filtered message costs one rule lookup: no formatting, no
// allocation.
void __zn_log(const char* file, int line, const char* facility, int level, const char* format, ...)
    KEST_PRINTF_LIKE(5, 6);
void _zn_vlog(const char* file, int line, const char* facility, int level, const char* format,
              va_list args) KEST_PRINTF_LIKE(5, 0);

// True when a message of `level` under `facility` passes its rule's level; lets a caller skip
// building expensive arguments.
bool zn_log_enabled(const char* facility, int level);

// Called after an assertion report; prints nothing on this platform.
void __zn_backtrace(const char* file, int line, const char* facility);

// A message written in pieces: begin, any number of appends, end. `file` and `facility` must
// outlive the message. `text` is null when the level is filtered out (or its buffer could not be
// allocated); append and end then do nothing. End writes the message and frees the buffer.
struct LogMessage {
  int level;
  const char* facility;
  const char* file;
  int line;
  char* text;     // kZnLogMaxText + 1 bytes, or null
  size_t length;  // at most kZnLogMaxText
};
void zn_log_begin(const char* file, int line, LogMessage* message, const char* facility, int level);
void zn_log_append(LogMessage* message, const char* format, ...) KEST_PRINTF_LIKE(2, 3);
void zn_log_end(LogMessage* message);

// The configuration text the search above finds, in a fresh heap string that the caller releases
// with free(); an empty string when there is none. Null only when even that cannot be allocated.
char* logger_get_config();

// The transaction registry: lines of outputs with the `txid` style show "TXID n:" for a thread
// registered here with a non-zero transaction id. Create copies the calling thread's transaction
// id (or 0); set for an unregistered thread is ignored; get answers 0 for one.
void zn_log_thread_create(uint32_t thread_id);
void zn_log_thread_destroy(uint32_t thread_id);
void zn_log_thread_set_txid(uint32_t thread_id, int64_t txid);
int64_t zn_log_thread_get_txid(uint32_t thread_id);

// The level of the default rule when no configuration text is found (ZNLOG, the files above):
// a program that wants fewer lines than the built-in info level asks for them here. It applies
// whether the logger configured itself before this call or does so at its first message later;
// a configuration that was found always wins. Call it before other threads log.
void znlog_set_default_level(int level);

// For tests only: forgets the current configuration and transaction registry and initialises the
// logger again from `config_text` (null: the environment search above), writing the standard
// output and standard error outputs to `out` and `err` (null: the process's streams). The caller
// keeps ownership of `out` and `err`, which must stay open until the next reset. Not thread-safe.
void zn_log_reset_for_tests(const char* config_text, std::FILE* out, std::FILE* err);

#define ZN_LOG(facility, level, ...) __zn_log(__FILE__, __LINE__, (facility), (level), __VA_ARGS__)
