// kest_refserver: a small server that speaks the client's protocol and evaluates a small subset
// of the algebra, for trying the client, for end-to-end and fault tests and for benchmarks.
#include <atomic>
#include <csignal>

#include "kernel/ltype.h"
#include "tools/refserver/options.h"
#include "tools/refserver/server.h"

namespace {

std::atomic<bool> g_stop{false};
static_assert(std::atomic<bool>::is_always_lock_free, "set from a signal handler");

// SIGINT is also what Ctrl-C raises in a Windows console.
extern "C" void on_signal(int) { g_stop.store(true); }

}  // namespace

int main(int argc, char** argv) {
  ServerOptions options;
  switch (parse_options(argc, argv, &options)) {
    case OptionsResult::exit_ok:
      return 0;
    case OptionsResult::exit_error:
      return 2;
    case OptionsResult::run:
      break;
  }
  std::signal(SIGINT, on_signal);
  std::signal(SIGTERM, on_signal);
  types_init();
  return run_server(options, g_stop);
}
