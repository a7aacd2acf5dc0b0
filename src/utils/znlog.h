// The logger: one-line messages tagged with a level and a facility, sent to standard output,
// standard error and a log file as the configuration (ZNLOG, ZNLOG_CONFIGFILE, ZNLOG_DIRECTORY,
// USERPROFILE) says. It configures itself at the first call of any entry point.
#pragma once

#include <cstdarg>
#include <cstdint>

#include "utils/compiler.h"

enum ZnLogLevel : int { ZN_ERROR = 0, ZN_WARN = 1, ZN_INFO = 2, ZN_DEBUG = 3, ZN_TRACE = 4 };


// The normal logging call. `file`/`line` are the caller's source position, `facility` a short
// upper-case word (or null for the default facility), `level` 0 (error) to 4 (trace).
void __zn_log(const char* file, int line, const char* facility, int level, const char* format, ...)
    KEST_PRINTF_LIKE(5, 6);
void _zn_vlog(const char* file, int line, const char* facility, int level, const char* format,
              va_list args) KEST_PRINTF_LIKE(5, 0);

// True when a message of `level` under `facility` would be written somewhere.
bool zn_log_enabled(const char* facility, int level);

// Called after an assertion report; prints nothing on this platform.
void __zn_backtrace(const char* file, int line, const char* facility);

#define ZN_LOG(facility, level, ...) __zn_log(__FILE__, __LINE__, (facility), (level), __VA_ARGS__)
