// Test support only: the one place in the tests that starts processes, so it speaks to each
// operating system directly.
#include "support/run_process.h"

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <cstring>
#include <thread>

#if defined(_WIN32)
#include <windows.h>
#else
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>
extern char** environ;
#endif

namespace {

#if defined(_WIN32)
using Handle = HANDLE;
long read_some(Handle h, char* buf, size_t len) {
  DWORD n = 0;
  return ReadFile(h, buf, static_cast<DWORD>(len), &n, nullptr) ? static_cast<long>(n) : -1;
}
long write_some(Handle h, const char* buf, size_t len) {
  DWORD n = 0;
  return WriteFile(h, buf, static_cast<DWORD>(len), &n, nullptr) ? static_cast<long>(n) : -1;
}
void close_handle(Handle h) { CloseHandle(h); }
#else
using Handle = int;
long read_some(Handle h, char* buf, size_t len) { return read(h, buf, len); }
long write_some(Handle h, const char* buf, size_t len) { return write(h, buf, len); }
void close_handle(Handle h) { close(h); }
#endif

// One thread feeds the child's standard input, one drains each output; each closes its handle.
std::vector<std::thread> start_streams(Handle in, Handle out, Handle err,
                                       const std::optional<std::string>& input, ProcessResult* r) {
  std::vector<std::thread> threads;
  threads.emplace_back([in, &input] {
    for (size_t done = 0; input && done < input->size();) {
      const long n = write_some(in, input->data() + done, input->size() - done);
      if (n <= 0) break;
      done += static_cast<size_t>(n);
    }
    close_handle(in);
  });
  for (const auto& [handle, text] : {std::pair{out, &r->out}, std::pair{err, &r->err}})
    threads.emplace_back([h = handle, sink = text] {
      char buf[4096];
      for (long n; (n = read_some(h, buf, sizeof buf)) > 0;) sink->append(buf, size_t(n));
      close_handle(h);
    });
  return threads;
}

void join(std::vector<std::thread>& threads) {
  for (std::thread& t : threads) t.join();
}

}  // namespace

std::vector<std::string> environment_with(const EnvChanges& changes) {
  std::vector<std::string> entries;
#if defined(_WIN32)
  char* block = GetEnvironmentStringsA();
  for (const char* p = block; p && *p; p += std::strlen(p) + 1) entries.emplace_back(p);
  if (block) FreeEnvironmentStringsA(block);
#else
  for (char** e = environ; *e; ++e) entries.emplace_back(*e);
#endif
  for (const auto& change : changes) {
    const std::string& name = change.first;
    std::erase_if(entries, [&name](const std::string& e) {
      const auto lower = [](char c) { return std::tolower(static_cast<unsigned char>(c)); };
      return e.size() > name.size() && e[name.size()] == '=' &&
             std::equal(name.begin(), name.end(), e.begin(),
                        [&](char a, char b) { return lower(a) == lower(b); });
    });
    if (change.second) entries.push_back(name + "=" + *change.second);
  }
  return entries;
}

#if defined(_WIN32)

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

// A pipe whose parent end is not inherited: ends[0] reads, ends[1] writes.
void make_pipe(HANDLE ends[2], bool parent_writes) {
  SECURITY_ATTRIBUTES sa{sizeof sa, nullptr, TRUE};
  CreatePipe(&ends[0], &ends[1], &sa, 0);
  SetHandleInformation(ends[parent_writes ? 1 : 0], HANDLE_FLAG_INHERIT, 0);
}

void fold_line_ends(std::string* text) {
  for (size_t at; (at = text->find("\r\n")) != std::string::npos;) text->erase(at, 1);
}

}  // namespace

ProcessResult run_process(const std::vector<std::string>& argv, const ProcessOptions& options) {
  ProcessResult r;
  std::string cmdline, env_block;
  for (const std::string& a : argv) cmdline.append(cmdline.empty() ? "" : " ").append(quote_arg(a));
  for (const std::string& e : environment_with(options.env)) env_block.append(e).push_back('\0');
  env_block.push_back('\0');
  HANDLE in[2], out[2], err[2];
  make_pipe(in, true);
  make_pipe(out, false);
  make_pipe(err, false);
  STARTUPINFOA si{};
  si.cb = sizeof si;
  si.dwFlags = STARTF_USESTDHANDLES;
  si.hStdInput = in[0];
  si.hStdOutput = out[1];
  si.hStdError = err[1];
  PROCESS_INFORMATION pi{};
  const BOOL started = CreateProcessA(argv[0].c_str(), cmdline.data(), nullptr, nullptr, TRUE, 0,
                                      env_block.data(), nullptr, &si, &pi);
  for (HANDLE h : {in[0], out[1], err[1]}) CloseHandle(h);
  std::vector<std::thread> streams = start_streams(in[1], out[0], err[0], options.stdin_text, &r);
  if (!started) {
    r.error = "cannot start " + argv[0] + " (error " + std::to_string(GetLastError()) + ")";
    join(streams);
    return r;
  }
  if (WaitForSingleObject(pi.hProcess, DWORD(options.time_limit.count())) == WAIT_TIMEOUT) {
    TerminateProcess(pi.hProcess, 1);
    WaitForSingleObject(pi.hProcess, INFINITE);
    r.timed_out = true;
  }
  join(streams);
  DWORD code = 0;
  GetExitCodeProcess(pi.hProcess, &code);
  CloseHandle(pi.hProcess);
  CloseHandle(pi.hThread);
  fold_line_ends(&r.out);
  fold_line_ends(&r.err);
  r.raw_code = static_cast<int>(code);
  // 0xC0000000-0xCFFFFFFF are exception codes (an access violation, a stack overflow): a crash.
  r.exited = !r.timed_out && (code & 0xF0000000u) != 0xC0000000u;
  r.status = static_cast<int8_t>(code & 0xFF);
  return r;
}

#else  // POSIX

ProcessResult run_process(const std::vector<std::string>& argv, const ProcessOptions& options) {
  ProcessResult r;
  signal(SIGPIPE, SIG_IGN);  // a child that stops reading must not kill the test
  std::vector<std::string> args = argv, env = environment_with(options.env);
  const std::vector<char*> c_args = c_strings(args), c_env = c_strings(env);
  int in[2], out[2], err[2];
  if (pipe2(in, O_CLOEXEC) != 0 || pipe2(out, O_CLOEXEC) != 0 || pipe2(err, O_CLOEXEC) != 0) {
    r.error = "cannot create pipes";
    return r;
  }
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, in[0], 0);
  posix_spawn_file_actions_adddup2(&actions, out[1], 1);
  posix_spawn_file_actions_adddup2(&actions, err[1], 2);
  pid_t pid = 0;
  const int failed =
      posix_spawn(&pid, args[0].c_str(), &actions, nullptr, c_args.data(), c_env.data());
  posix_spawn_file_actions_destroy(&actions);
  for (int fd : {in[0], out[1], err[1]}) close(fd);
  std::vector<std::thread> streams = start_streams(in[1], out[0], err[0], options.stdin_text, &r);
  if (failed != 0) {
    r.error = "cannot start " + argv[0] + ": " + std::strerror(failed);
    join(streams);
    return r;
  }
  const auto deadline = std::chrono::steady_clock::now() + options.time_limit;
  int st = 0;
  while (waitpid(pid, &st, WNOHANG) != pid) {
    if (std::chrono::steady_clock::now() >= deadline) {
      kill(pid, SIGKILL);
      waitpid(pid, &st, 0);
      r.timed_out = true;
      break;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  join(streams);
  r.exited = !r.timed_out && WIFEXITED(st);
  r.raw_code = WIFEXITED(st) ? WEXITSTATUS(st) : WTERMSIG(st);
  r.status = static_cast<int8_t>(WEXITSTATUS(st));
  return r;
}

#endif
