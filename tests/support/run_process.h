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
  // The child returned from main or called exit (on Windows abort() too: an exit with status 3).
  bool exited = false;
  // The exit status read as a signed byte on every platform: `return -1` from main gives -1.
  int status = 0;
  int raw_code = 0;        // the platform's own exit code (POSIX 0-255, or the signal number)
  bool timed_out = false;  // killed at the time limit
  std::string error;       // why the child could not be started, else empty
};

// Starts argv[0] (a path, not searched for) with the arguments argv[1..] and waits for its end.
ProcessResult run_process(const std::vector<std::string>& argv, const ProcessOptions& options = {});
