// Command line of kest_refserver, in the client's style.
#pragma once

#include <cstdint>
#include <string>

#include "tools/refserver/faults.h"

struct ServerOptions {
  std::string host = "127.0.0.1";  // address to bind
  uint16_t port = 48130;           // 0 picks a free port
  std::string passfile;            // empty: every key is accepted
  std::string key;                 // the key read from passfile, up to its first zero byte
  int32_t vector_size = 1024;      // rows per data message, at most
  Fault fault = Fault::none;
};

constexpr int32_t kMaxVectorSize = 1 << 20;

enum class OptionsResult { run, exit_ok, exit_error };

// Reads argv into `options` (and the key from the passfile). Prints the usage text (--help), the
// version (-v, --version) or a message naming a bad option (on standard error), as the result
// says.
OptionsResult parse_options(int argc, char** argv, ServerOptions* options);
// The usage text.
std::string usage_text();
// "kest_refserver X.Y.Z\n": the project's release, not the client's build text.
std::string version_text();
