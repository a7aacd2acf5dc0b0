// Process set-up and the failure report of every fuzz program.
#include <cstdio>
#include <cstdlib>
#include <string>

#include "fuzz/support/fuzz_common.h"

// Keeps the logger to errors unless the caller configured it, so the run is not drowned in the
// informational lines each hostile input provokes (assertion reports are errors and still show).
extern "C" int LLVMFuzzerInitialize(int*, char***) {
  setenv("ZNLOG", "default = error", 0);
  kest_fuzz::fuzz_init();
  return 0;
}

namespace kest_fuzz {

void fail_if(const std::string& why) {
  if (why.empty()) return;
  std::fprintf(stderr, "fuzz check failed: %s\n", why.c_str());
  std::fflush(stderr);
  std::abort();
}

}  // namespace kest_fuzz
