// Runs a program as a child process for end-to-end tests: feeds its standard input, captures its
// standard output and standard error, and kills it when it outlives a time limit.
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <utility>
#include <vector>

// Changes to the inherited environment, in order: a value sets the variable, nullopt removes it.
using EnvChanges = std::vector<std::pair<std::string, std::optional<std::string>>>;

// The inherited "NAME=value" entries with `changes` applied; names compare without case, as
// Windows compares them.
std::vector<std::string> environment_with(const EnvChanges& changes);

// The texts of `strings`, then a null pointer, as exec and main take them; valid while `strings`
// lives unchanged.
inline std::vector<char*> c_strings(std::vector<std::string>& strings) {
  std::vector<char*> out;
  for (std::string& s : strings) out.push_back(s.data());
  out.push_back(nullptr);
  return out;
}

namespace kest_test {

// An argument vector as main receives it, owning its strings: the program name, the arguments,
// then a null pointer.
class Argv {
 public:
  Argv(const std::string& program, std::vector<std::string> args) : strings_(std::move(args)) {
    strings_.insert(strings_.begin(), program);
    pointers_ = c_strings(strings_);
  }
  Argv(const Argv&) = delete;
  Argv& operator=(const Argv&) = delete;
  int argc() const { return static_cast<int>(strings_.size()); }
  char** argv() { return pointers_.data(); }

 private:
  std::vector<std::string> strings_;
  std::vector<char*> pointers_;
};

}  // namespace kest_test

struct ProcessOptions {
  // Written to the child's standard input, which is then closed (at once when nullopt).
  std::optional<std::string> stdin_text;
  EnvChanges env;
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
