// Set-up shared by every fuzz harness and by the replay test: what the client's run driver does
// before its first query (the type registry, the socket library), done once per process.
#pragma once

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

}  // namespace kest_fuzz
