// Test support only: the one place in the tests that starts processes, so it speaks to each
// operating system directly.
#include "support/run_process.h"

#include <cctype>
#include <cstdint>
#include <cstring>

namespace {

using EnvEntries = std::vector<std::string>;

bool same_name(const std::string& entry, const std::string& name, bool fold_case) {
  if (entry.size() <= name.size() || entry[name.size()] != '=') return false;
  for (size_t i = 0; i < name.size(); ++i) {
    const unsigned char a = static_cast<unsigned char>(entry[i]);
    const unsigned char b = static_cast<unsigned char>(name[i]);
    if (fold_case ? std::tolower(a) != std::tolower(b) : a != b) return false;
  }
  return true;
}

// "NAME=value" entries of the inherited environment with the overrides applied.
EnvEntries apply_overrides(EnvEntries entries, const ProcessOptions& options, bool fold_case) {
  for (const auto& change : options.env) {
    const std::string& name = change.first;
    std::erase_if(entries, [&](const std::string& e) { return same_name(e, name, fold_case); });
    if (!change.second) continue;
    std::string entry = name;
    entry.append("=").append(*change.second);
    entries.push_back(std::move(entry));
  }
  return entries;
}

int signed_byte(unsigned code) { return static_cast<int8_t>(static_cast<uint8_t>(code & 0xFF)); }

}  // namespace

std::string normalize_newlines(std::string text) {
  size_t out = 0;
  for (size_t i = 0; i < text.size(); ++i)
    if (!(text[i] == '\r' && i + 1 < text.size() && text[i + 1] == '\n')) text[out++] = text[i];
  text.resize(out);
  return text;
}

#if defined(_WIN32)

#include <windows.h>

#include <thread>

namespace {

// Quoting that the C runtime's argument splitting undoes exactly.
std::string quote_arg(const std::string& arg) {
  if (!arg.empty() && arg.find_first_of(" \t\n\v\"") == std::string::npos) return arg;
  std::string q = "\"";
  size_t backslashes = 0;
  for (char c : arg) {
    if (c == '\\') {
      ++backslashes;
      continue;
    }
    q.append(c == '"' ? backslashes * 2 + 1 : backslashes, '\\');
    backslashes = 0;
    q += c;
  }
  q.append(backslashes * 2, '\\');
  q.push_back('"');
  return q;
}

EnvEntries current_environment() {
  EnvEntries entries;
  char* block = GetEnvironmentStringsA();
  for (const char* p = block; p && *p; p += std::strlen(p) + 1) entries.emplace_back(p);
  if (block) FreeEnvironmentStringsA(block);
  return entries;
}

struct Pipe {
  HANDLE read = nullptr;
  HANDLE write = nullptr;
};

bool make_pipe(Pipe* p, bool parent_writes) {
  SECURITY_ATTRIBUTES sa{sizeof sa, nullptr, TRUE};
  if (!CreatePipe(&p->read, &p->write, &sa, 0)) return false;
  SetHandleInformation(parent_writes ? p->write : p->read, HANDLE_FLAG_INHERIT, 0);
  return true;
}

void close_handle(HANDLE* h) {
  if (*h) CloseHandle(*h);
  *h = nullptr;
}

void drain(HANDLE h, std::string* sink) {
  char buf[4096];
  DWORD n = 0;
  while (ReadFile(h, buf, sizeof buf, &n, nullptr) && n > 0) sink->append(buf, n);
}

}  // namespace

ProcessResult run_process(const std::vector<std::string>& argv, const ProcessOptions& options) {
  ProcessResult r;
  if (argv.empty()) {
    r.error = "no program given";
    return r;
  }
  std::string cmdline;
  for (const std::string& a : argv) {
    if (!cmdline.empty()) cmdline.push_back(' ');
    cmdline.append(quote_arg(a));
  }
  std::string env_block;
  for (const std::string& e : apply_overrides(current_environment(), options, true)) {
    env_block.append(e);
    env_block.push_back('\0');
  }
  env_block.push_back('\0');

  Pipe in, out, err;
  if (!make_pipe(&in, true) || !make_pipe(&out, false) || !make_pipe(&err, false)) {
    r.error = "cannot create pipes";
    return r;
  }
  STARTUPINFOA si{};
  si.cb = sizeof si;
  si.dwFlags = STARTF_USESTDHANDLES;
  si.hStdInput = in.read;
  si.hStdOutput = out.write;
  si.hStdError = err.write;
  PROCESS_INFORMATION pi{};
  const BOOL started =
      CreateProcessA(argv[0].c_str(), cmdline.data(), nullptr, nullptr, TRUE, 0, env_block.data(),
                     options.working_dir.empty() ? nullptr : options.working_dir.c_str(), &si, &pi);
  close_handle(&in.read);
  close_handle(&out.write);
  close_handle(&err.write);
  if (!started) {
    r.error = "cannot start ";
    r.error.append(argv[0]).append(" (error ").append(std::to_string(GetLastError())).append(")");
    close_handle(&in.write);
    close_handle(&out.read);
    close_handle(&err.read);
    return r;
  }
  std::thread writer([&] {
    if (options.stdin_text) {
      const std::string& t = *options.stdin_text;
      size_t done = 0;
      DWORD n = 0;
      while (done < t.size() &&
             WriteFile(in.write, t.data() + done, static_cast<DWORD>(t.size() - done), &n, nullptr))
        done += n;
    }
    close_handle(&in.write);
  });
  std::thread out_reader(drain, out.read, &r.out);
  std::thread err_reader(drain, err.read, &r.err);
  const DWORD limit = static_cast<DWORD>(options.time_limit.count());
  if (WaitForSingleObject(pi.hProcess, limit) == WAIT_TIMEOUT) {
    TerminateProcess(pi.hProcess, 1);
    WaitForSingleObject(pi.hProcess, INFINITE);
    r.timed_out = true;
  }
  writer.join();
  out_reader.join();
  err_reader.join();
  close_handle(&out.read);
  close_handle(&err.read);
  DWORD code = 0;
  GetExitCodeProcess(pi.hProcess, &code);
  CloseHandle(pi.hProcess);
  CloseHandle(pi.hThread);
  r.raw_code = static_cast<int>(code);
  // 0xC0000000-0xCFFFFFFF are exception codes (an access violation, a stack overflow): a crash.
  // `return -1` gives 0xFFFFFFFF, outside that range.
  r.exited = !r.timed_out && (code & 0xF0000000u) != 0xC0000000u;
  r.status = signed_byte(code);
  return r;
}

#else  // POSIX

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>

extern char** environ;

namespace {

struct Fd {
  int fd = -1;
  Fd() = default;
  Fd(const Fd&) = delete;
  Fd& operator=(const Fd&) = delete;
  ~Fd() { close(); }
  void close() {
    if (fd >= 0) ::close(fd);
    fd = -1;
  }
};

bool make_pipe(Fd* read_end, Fd* write_end) {
  int fds[2];
  if (pipe2(fds, O_CLOEXEC) != 0) return false;
  read_end->fd = fds[0];
  write_end->fd = fds[1];
  return true;
}

std::vector<char*> c_strings(std::vector<std::string>& strings) {
  std::vector<char*> v;
  for (std::string& s : strings) v.push_back(s.data());
  v.push_back(nullptr);
  return v;
}

[[noreturn]] void exec_child(int in, int out, int err, int status, const ProcessOptions& options,
                             char* const* args, char* const* envp) {
  dup2(in, 0);
  dup2(out, 1);
  dup2(err, 2);
  if (!options.working_dir.empty() && chdir(options.working_dir.c_str()) != 0) {
    const int e = errno;
    (void)!write(status, &e, sizeof e);
    _exit(127);
  }
  execve(args[0], args, envp);
  const int e = errno;
  (void)!write(status, &e, sizeof e);
  _exit(127);
}

// Moves data between the parent and the child until both output pipes close or the deadline.
// False when the deadline passed.
// `written` counts the input bytes already written, across calls.
bool pump(Fd& in, Fd& out, Fd& err, const std::string& input, size_t& written, ProcessResult* r,
          std::chrono::steady_clock::time_point deadline) {
  while (out.fd >= 0 || err.fd >= 0) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0) return false;
    pollfd fds[3] = {{out.fd, POLLIN, 0}, {err.fd, POLLIN, 0}, {in.fd, POLLOUT, 0}};
    if (poll(fds, 3, static_cast<int>(left.count())) < 0 && errno != EINTR) return false;
    Fd* sources[2] = {&out, &err};
    std::string* sinks[2] = {&r->out, &r->err};
    for (int i = 0; i < 2; ++i) {
      if (sources[i]->fd < 0 || !(fds[i].revents & (POLLIN | POLLHUP | POLLERR))) continue;
      char buf[4096];
      const ssize_t n = read(sources[i]->fd, buf, sizeof buf);
      if (n > 0) {
        sinks[i]->append(buf, static_cast<size_t>(n));
      } else if (n == 0 || errno != EINTR) {
        sources[i]->close();
      }
    }
    if (in.fd >= 0 && (fds[2].revents & (POLLOUT | POLLERR | POLLHUP))) {
      const ssize_t n = write(in.fd, input.data() + written, input.size() - written);
      if (n > 0) written += static_cast<size_t>(n);
      if ((n < 0 && errno != EINTR && errno != EAGAIN) || written == input.size()) in.close();
    }
  }
  return true;
}

}  // namespace

ProcessResult run_process(const std::vector<std::string>& argv, const ProcessOptions& options) {
  ProcessResult r;
  if (argv.empty()) {
    r.error = "no program given";
    return r;
  }
  signal(SIGPIPE, SIG_IGN);  // a child that stops reading must not kill the test
  std::vector<std::string> args = argv;
  EnvEntries inherited;
  for (char** e = environ; *e; ++e) inherited.emplace_back(*e);
  std::vector<std::string> env = apply_overrides(inherited, options, false);
  std::vector<char*> c_args = c_strings(args);
  std::vector<char*> c_env = c_strings(env);

  Fd in_r, in_w, out_r, out_w, err_r, err_w, st_r, st_w;
  if (!make_pipe(&in_r, &in_w) || !make_pipe(&out_r, &out_w) || !make_pipe(&err_r, &err_w) ||
      !make_pipe(&st_r, &st_w)) {
    r.error = "cannot create pipes";
    return r;
  }
  const pid_t pid = fork();
  if (pid < 0) {
    r.error = "cannot fork";
    return r;
  }
  if (pid == 0)
    exec_child(in_r.fd, out_w.fd, err_w.fd, st_w.fd, options, c_args.data(), c_env.data());
  in_r.close();
  out_w.close();
  err_w.close();
  st_w.close();
  int exec_errno = 0;
  if (read(st_r.fd, &exec_errno, sizeof exec_errno) == sizeof exec_errno)
    r.error = "cannot start " + argv[0] + ": " + std::strerror(exec_errno);
  fcntl(in_w.fd, F_SETFL, fcntl(in_w.fd, F_GETFL) | O_NONBLOCK);
  const std::string input = options.stdin_text.value_or("");
  if (input.empty()) in_w.close();
  size_t written = 0;
  const auto start = std::chrono::steady_clock::now();
  const auto deadline = start + options.time_limit;
  if (options.interrupt_after.count() > 0 && options.interrupt_after < options.time_limit &&
      !pump(in_w, out_r, err_r, input, written, &r, start + options.interrupt_after)) {
    kill(pid, SIGINT);
    r.interrupted = true;
  }
  if (!pump(in_w, out_r, err_r, input, written, &r, deadline)) {
    kill(pid, SIGKILL);
    r.timed_out = true;
  }
  int st = 0;
  while (waitpid(pid, &st, 0) < 0 && errno == EINTR) {
  }
  if (WIFEXITED(st)) {
    r.raw_code = WEXITSTATUS(st);
    r.exited = !r.timed_out && r.error.empty();
    r.status = signed_byte(static_cast<unsigned>(WEXITSTATUS(st)));
  } else if (WIFSIGNALED(st)) {
    r.raw_code = WTERMSIG(st);
  }
  return r;
}

#endif
