// Set-up shared by every fuzz harness and by the replay test: what the client's run driver does
// before its first query (the type registry, the socket library), done once per process.
#pragma once

#include <string>

#include "kernel/ltype.h"
#include "utils/netbuffer.h"

namespace kest_fuzz {

inline void fuzz_init() {
  static const bool done = [] {
    types_init();
    network_init();
    return true;
  }();
  (void)done;
}

// What every fuzz target calls with a check's verdict: an empty text passes, any other text is
// reported and ends the run as a crash (fuzz_main.cpp).
void fail_if(const std::string& why);

}  // namespace kest_fuzz
