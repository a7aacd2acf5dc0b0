#include "tools/refserver/options.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "utils/file.h"

// The project's release, from the build (the packages carry the same number).
#ifndef KEST_PROJECT_VERSION
#error "KEST_PROJECT_VERSION must be defined by the build"
#endif

namespace {

bool read_number(const char* text, long lo, long hi, long* out) {
  char* end = nullptr;
  const long v = std::strtol(text, &end, 10);
  if (!*text || *end || v < lo || v > hi) return false;
  *out = v;
  return true;
}

// Splits "--name=value" and "--name value" / "-x value" forms; null when the value is missing.
const char* option_value(int argc, char** argv, int* i, const char* arg) {
  if (const char* eq = std::strchr(arg, '='); eq && arg[1] == '-') return eq + 1;
  if (*i + 1 >= argc) return nullptr;
  return argv[++*i];
}

bool is(const char* arg, const char* short_name, const char* long_name) {
  const size_t n = std::strlen(long_name);
  return (short_name && std::strcmp(arg, short_name) == 0) ||
         (std::strncmp(arg, long_name, n) == 0 && (arg[n] == '\0' || arg[n] == '='));
}

bool read_key(ServerOptions* o) {
  char key[kAuthKeySize + 1] = {};
  if (!read_auth_file(o->passfile.c_str(), key) && key[0] == '\0') return false;
  o->key.assign(key, strnlen(key, kAuthKeySize));
  return true;
}

bool apply(ServerOptions* o, const char* arg, const char* value) {
  long n = 0;
  if (is(arg, "-P", "--port")) {
    if (!read_number(value, 0, 65535, &n)) return false;
    o->port = static_cast<uint16_t>(n);
  } else if (is(arg, "-h", "--host")) {
    o->host = value;
  } else if (is(arg, "-a", "--passfile")) {
    o->passfile = value;
    return read_key(o);
  } else if (is(arg, nullptr, "--vectorsize")) {
    if (!read_number(value, 1, kMaxVectorSize, &n)) return false;
    o->vector_size = static_cast<int32_t>(n);
  } else {
    return fault_from_name(value, &o->fault);
  }
  return true;
}

}  // namespace

std::string usage_text() {
  return "Usage: kest_refserver [options]\n"
         "  -P, --port PORT         port to listen on (default 48130; 0 picks a free port)\n"
         "  -h, --host ADDRESS      address to bind (default 127.0.0.1)\n"
         "  -a, --passfile FILE     answer queries whose key differs from the file's first 64\n"
         "                          bytes with an authentication error\n"
         "      --vectorsize N      rows per data message, at most (default 1024)\n"
         "      --fault NAME        misbehave on purpose, for tests: " +
         fault_names() +
         "\n"
         "  -v, --version           print the version and exit\n"
         "      --help              print this text and exit\n";
}

std::string version_text() { return "kest_refserver " KEST_PROJECT_VERSION "\n"; }

OptionsResult parse_options(int argc, char** argv, ServerOptions* options) {
  for (int i = 1; i < argc; ++i) {
    const char* arg = argv[i];
    if (std::strcmp(arg, "--help") == 0) {
      std::fputs(usage_text().c_str(), stdout);
      return OptionsResult::exit_ok;
    }
    if (std::strcmp(arg, "-v") == 0 || std::strcmp(arg, "--version") == 0) {
      std::fputs(version_text().c_str(), stdout);
      return OptionsResult::exit_ok;
    }
    const bool known = is(arg, "-P", "--port") || is(arg, "-h", "--host") ||
                       is(arg, "-a", "--passfile") || is(arg, nullptr, "--vectorsize") ||
                       is(arg, nullptr, "--fault");
    const char* value = known ? option_value(argc, argv, &i, arg) : nullptr;
    if (!known || !value || !apply(options, arg, value)) {
      std::fprintf(stderr, "kest_refserver: bad option or value: %s\n%s", arg,
                   usage_text().c_str());
      return OptionsResult::exit_error;
    }
  }
  return OptionsResult::run;
}
