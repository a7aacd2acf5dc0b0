// What the client's run driver sets up before its first query (the type registry, the socket
// library), once per process, for every fuzz harness and the replay test.
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

// An empty verdict of a check passes; any other is reported and ends the run as a crash.
void fail_if(const std::string& why);

}  // namespace kest_fuzz
