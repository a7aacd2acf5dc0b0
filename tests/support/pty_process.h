// Runs a program on a pseudo-terminal, as a person at a terminal runs it, for end-to-end tests
// of the interactive shell: keys are written to the terminal, and every wait for output is
// bounded (no sleeps, no polling loops without a limit). POSIX only: on Windows start() fails
// and says why.
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "support/run_process.h"

namespace kest_test {

// Keys as a terminal sends them (emacs bindings, cursor keys in normal mode).
namespace keys {
inline constexpr std::string_view kEnter = "\r";
inline constexpr std::string_view kCtrlA = "\x01";
inline constexpr std::string_view kCtrlC = "\x03";
inline constexpr std::string_view kCtrlD = "\x04";
inline constexpr std::string_view kCtrlE = "\x05";
inline constexpr std::string_view kBackspace = "\x7f";
inline constexpr std::string_view kUp = "\x1b[A";
inline constexpr std::string_view kLeft = "\x1b[D";
}  // namespace keys

class PtyProcess {
 public:
  using Env = EnvChanges;

  // False where the platform has no pseudo-terminals (start() then fails).
  static bool supported();

  PtyProcess() = default;
  // Kills the program if it still runs.
  ~PtyProcess();
  PtyProcess(const PtyProcess&) = delete;
  PtyProcess& operator=(const PtyProcess&) = delete;

  // Starts argv[0] (a path) with the arguments argv[1..] on a new 24x80 terminal that is its
  // controlling terminal and its standard input, output and error. `env` changes the inherited
  // environment (a value sets, nullopt removes). False with `error()` set when it cannot start.
  bool start(const std::vector<std::string>& argv, const Env& env);
  const std::string& error() const { return error_; }

  // Writes keys to the terminal.
  void send(std::string_view keys);

  // Reads until `text` appears in the output after the previous match, for at most `limit`.
  // True when it appeared; the next expect looks after it. False at the limit or when the
  // program closed the terminal.
  bool expect(std::string_view text,
              std::chrono::milliseconds limit = std::chrono::milliseconds(10000));
  // The output between the previous match and the end of the last one (what an expect passed
  // over, the match included).
  const std::string& last() const { return last_; }
  // Everything the program wrote so far.
  const std::string& output() const { return output_; }

  // Waits at most `limit` for the program to end, reading its output meanwhile: its exit status
  // as a signed byte, or nullopt when it did not end (or ended by a signal).
  std::optional<int> wait(std::chrono::milliseconds limit = std::chrono::milliseconds(10000));

 private:
  // Reads what is there, waiting at most until `deadline`; false when the terminal closed.
  bool read_some(std::chrono::steady_clock::time_point deadline);

  int master_ = -1;
  int pid_ = -1;
  bool ended_ = false;
  std::string output_;
  size_t matched_ = 0;  // output_ up to here is behind the last match
  std::string last_;
  std::string error_;
};

}  // namespace kest_test
