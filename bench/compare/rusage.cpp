// Runs one command and reports what it alone cost, on one line of standard output:
//   "USER SYS MAXRSS_KIB WALL" (CPU seconds in user and system mode, peak resident memory,
//   wall seconds).
//
//   rusage [-i FILE] [-o FILE] [-e FILE] -- COMMAND [ARG...]
//
// Standard input, output and error of the command go to the files named (default /dev/null).
// The figures come from wait4() on the command's own process. This wrapper is a small native
// program on purpose: Linux carries the peak memory of the process that forks into the child's
// figure across exec, so an interpreter as the parent would put its own size under every result.
// A failing command is reported on standard error and its status is returned.
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstring>

namespace {

int usage() {
  std::fprintf(stderr, "usage: rusage [-i FILE] [-o FILE] [-e FILE] -- COMMAND [ARG...]\n");
  return 2;
}

}  // namespace

int main(int argc, char** argv) {
  const char* files[3] = {"/dev/null", "/dev/null", "/dev/null"};
  int k = 1;
  for (; k + 1 < argc && std::strcmp(argv[k], "--") != 0; k += 2) {
    const char* opt = argv[k];
    const int slot = !std::strcmp(opt, "-i")   ? 0
                     : !std::strcmp(opt, "-o") ? 1
                     : !std::strcmp(opt, "-e") ? 2
                                               : -1;
    if (slot < 0) return usage();
    files[slot] = argv[k + 1];
  }
  if (k + 1 >= argc || std::strcmp(argv[k], "--") != 0) return usage();
  char** command = argv + k + 1;

  const auto start = std::chrono::steady_clock::now();
  const pid_t pid = fork();
  if (pid < 0) return perror("fork"), 1;
  if (pid == 0) {
    const int fd0 = open(files[0], O_RDONLY);
    const int fd1 = open(files[1], O_WRONLY | O_CREAT | O_TRUNC, 0644);
    const int fd2 = open(files[2], O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (fd0 < 0 || fd1 < 0 || fd2 < 0) return perror("rusage: open"), 127;
    dup2(fd0, 0), dup2(fd1, 1), dup2(fd2, 2);
    execvp(command[0], command);
    perror(command[0]);
    _exit(127);
  }
  int status = 0;
  rusage ru{};
  if (wait4(pid, &status, 0, &ru) < 0) return perror("wait4"), 1;
  const double wall =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
    std::fprintf(stderr, "rusage: %s ended with %s %d\n", command[0],
                 WIFEXITED(status) ? "status" : "signal",
                 WIFEXITED(status) ? WEXITSTATUS(status) : WTERMSIG(status));
    return WIFEXITED(status) ? WEXITSTATUS(status) : 1;
  }
  auto secs = [](const timeval& t) { return static_cast<double>(t.tv_sec) + t.tv_usec / 1e6; };
  std::printf("%.3f %.3f %ld %.4f\n", secs(ru.ru_utime), secs(ru.ru_stime), ru.ru_maxrss, wall);
  return 0;
}
