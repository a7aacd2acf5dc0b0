#include "support/pty_process.h"

#include <algorithm>
#include <cstring>
#include <thread>

#if defined(_WIN32)

namespace kest_test {

bool PtyProcess::supported() { return false; }
PtyProcess::~PtyProcess() = default;

bool PtyProcess::start(const std::vector<std::string>&, const Env&) {
  error_ = "no pseudo-terminals on this platform";
  return false;
}
void PtyProcess::send(std::string_view) {}
bool PtyProcess::expect(std::string_view, std::chrono::milliseconds) { return false; }
std::optional<int> PtyProcess::wait(std::chrono::milliseconds) { return std::nullopt; }
bool PtyProcess::read_some(std::chrono::steady_clock::time_point) { return false; }

}  // namespace kest_test

#else

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

namespace kest_test {

namespace {

using Clock = std::chrono::steady_clock;

[[noreturn]] void run_child(const char* slave, char* const* argv, char* const* envp) {
  setsid();
  const int fd = open(slave, O_RDWR);
  if (fd < 0) _exit(127);
  ioctl(fd, TIOCSCTTY, 0);
  dup2(fd, 0);
  dup2(fd, 1);
  dup2(fd, 2);
  if (fd > 2) close(fd);
  execve(argv[0], argv, envp);
  _exit(127);
}

}  // namespace

bool PtyProcess::supported() { return true; }

PtyProcess::~PtyProcess() {
  if (pid_ > 0 && !ended_) {
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }
  if (master_ >= 0) close(master_);
}

bool PtyProcess::start(const std::vector<std::string>& argv, const Env& env) {
  master_ = posix_openpt(O_RDWR | O_NOCTTY);
  if (master_ < 0 || grantpt(master_) != 0 || unlockpt(master_) != 0) {
    error_ = std::string("no pseudo-terminal: ") + std::strerror(errno);
    return false;
  }
  const std::string slave = ptsname(master_);
  winsize size{};
  size.ws_row = 24;
  size.ws_col = 80;
  ioctl(master_, TIOCSWINSZ, &size);
  // Built before fork: the child of a threaded test may only call async-signal-safe functions.
  std::vector<std::string> args = argv, environment = environment_with(env);
  const std::vector<char*> arg_pointers = c_strings(args), env_pointers = c_strings(environment);
  pid_ = fork();
  if (pid_ < 0) {
    error_ = std::string("fork: ") + std::strerror(errno);
    return false;
  }
  if (pid_ == 0) {
    close(master_);
    run_child(slave.c_str(), arg_pointers.data(), env_pointers.data());
  }
  return true;
}

void PtyProcess::send(std::string_view keys) {
  while (!keys.empty()) {
    const ssize_t n = write(master_, keys.data(), keys.size());
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return;
    keys.remove_prefix(static_cast<size_t>(n));
  }
}

bool PtyProcess::read_some(Clock::time_point deadline) {
  const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
  pollfd pfd{master_, POLLIN, 0};
  const int ready = poll(&pfd, 1, static_cast<int>(std::max<int64_t>(left.count(), 0)));
  if (ready < 0) return errno == EINTR;
  if (ready == 0) return true;
  char chunk[4096];
  const ssize_t n = read(master_, chunk, sizeof chunk);
  if (n < 0 && errno == EINTR) return true;
  if (n <= 0) return false;  // EIO once every holder of the terminal closed it
  output_.append(chunk, static_cast<size_t>(n));
  return true;
}

bool PtyProcess::expect(std::string_view text, std::chrono::milliseconds limit) {
  const Clock::time_point deadline = Clock::now() + limit;
  for (;;) {
    const size_t at = output_.find(text, matched_);
    if (at != std::string::npos) {
      const size_t end = at + text.size();
      last_ = output_.substr(matched_, end - matched_);
      matched_ = end;
      return true;
    }
    if (Clock::now() >= deadline || !read_some(deadline)) return false;
  }
}

std::optional<int> PtyProcess::wait(std::chrono::milliseconds limit) {
  const Clock::time_point deadline = Clock::now() + limit;
  while (Clock::now() < deadline && read_some(deadline)) {
  }
  // The terminal is closed (or the time is up): the program is ending, if it ends at all.
  int status = 0;
  for (;;) {
    const pid_t done = waitpid(pid_, &status, WNOHANG);
    if (done == pid_) break;
    if (done < 0 || Clock::now() >= deadline) return std::nullopt;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  ended_ = true;
  if (!WIFEXITED(status)) return std::nullopt;
  return static_cast<signed char>(WEXITSTATUS(status));
}

}  // namespace kest_test

#endif
