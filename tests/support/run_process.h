// Runs a program as a child process for end-to-end tests: feeds its standard input, captures its
// standard output and standard error, and kills it when it outlives a time limit.
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <utility>
#include <vector>

struct ProcessOptions {
  // Written to the child's standard input, which is then closed (at once when nullopt).
  std::optional<std::string> stdin_text;
  // Changes to the inherited environment, in order: a value sets the variable, nullopt removes it.
  std::vector<std::pair<std::string, std::optional<std::string>>> env;
  // After this long the child is killed and the result says timed_out.
  std::chrono::milliseconds time_limit{std::chrono::seconds(60)};
};

struct ProcessResult {
  // What the child wrote; on Windows its text-mode "\r\n" line ends are read back as "\n".
  std::string out;
  std::string err;
  // True when the child ended by returning from main or calling exit (not by a signal, a crash or
  // the time limit). On Windows abort() is an exit with status 3, the C runtime's own.
  bool exited = false;
  // The exit status read as a signed byte on every platform: `return -1` from main gives -1.
  int status = 0;
  int raw_code = 0;        // the platform's own exit code (POSIX 0-255, or the signal number)
  bool timed_out = false;  // killed at the time limit
  std::string error;       // why the child could not be started, else empty
};

// Starts argv[0] (a path; no search of PATH) with the arguments argv[1..], waits until it ends or
// the time limit passes, and returns what it wrote and how it ended.
ProcessResult run_process(const std::vector<std::string>& argv, const ProcessOptions& options = {});
