#include "tools/standalone_client/options.h"

#include <cinttypes>
#include <cstdio>
#include <cstring>

#include "utils/znconfig.h"

const LongOption kest_client_options[] = {
    {"config", 1, 'c'},     {"execute", 1, 'e'}, {"host", 1, 'h'},    {"port", 1, 'P'},
    {"ping", 0, 'p'},       {"tries", 1, 't'},   {"unicode", 0, 'u'}, {"nounicode", 0, 'n'},
    {"raw-output", 0, 'r'}, {"output", 1, 'o'},  {"file", 1, 'f'},    {"passfile", 1, 'a'},
    {"ignore-err", 0, 'i'}, {"version", 0, 'v'}, {"help", 0, '?'},    {nullptr, 0, '\0'},
};

namespace {

// True when `text` starts with the whole of `name`, followed by its end or "=".
bool names(const char* text, const char* name) {
  const size_t n = std::strlen(name);
  return std::strncmp(text, name, n) == 0 && (text[n] == '\0' || text[n] == '=');
}

// The entry named at the start of `text`, or null.
template <typename Option>
const Option* find_long(const Option* table, const char* text) {
  for (const Option* o = table; o->name; ++o)
    if (names(text, o->name)) return o;
  return nullptr;
}

// Takes the value of a long option `o` named by the argument at the cursor, advancing past what
// it consumes; false when the value is missing or unwanted ("--ping=1").
template <typename Option>
bool take_long(OptionCursor* c, int argc, char** argv, const Option* o, const char** optarg) {
  const char* rest = argv[c->next_index] + 2 + std::strlen(o->name);
  if (!o->has_arg) {
    if (*rest) return false;
    ++c->next_index;
    return true;
  }
  if (*rest == '=') {
    *optarg = rest + 1;
    ++c->next_index;
    return true;
  }
  if (c->next_index + 1 >= argc) return false;
  *optarg = argv[c->next_index + 1];
  c->next_index += 2;
  return true;
}

const LongOption* find_short(const LongOption* table, char letter) {
  for (const LongOption* o = table; o->name; ++o)
    if (o->letter == letter) return o;
  return nullptr;
}

int long_option(OptionCursor* c, int argc, char** argv, const LongOption* table,
                const char** optarg) {
  const LongOption* o = find_long(table, argv[c->next_index] + 2);
  if (!o || !take_long(c, argc, argv, o, optarg)) return GET_OPTION_REFUSED;
  return o->letter;
}

int short_option(OptionCursor* c, int argc, char** argv, const LongOption* table,
                 const char** optarg) {
  const LongOption* o = find_short(table, *c->cluster);
  if (!o) return GET_OPTION_REFUSED;
  const char* rest = c->cluster + 1;
  if (!o->has_arg) {
    if (*rest) {
      c->cluster = rest;  // "-pi": the cluster stays open at "i"
    } else {
      c->cluster = nullptr;
      ++c->next_index;
    }
    return o->letter;
  }
  c->cluster = nullptr;
  if (*rest) {  // "-P5000"
    *optarg = rest;
    ++c->next_index;
    return o->letter;
  }
  if (c->next_index + 1 >= argc) return GET_OPTION_REFUSED;
  *optarg = argv[c->next_index + 1];
  c->next_index += 2;
  return o->letter;
}

}  // namespace

int get_option(OptionCursor* c, int argc, char** argv, const LongOption* table,
               const char** optarg) {
  *optarg = nullptr;
  if (c->next_index >= argc) return GET_OPTION_END;
  if (!c->cluster) {
    const char* arg = argv[c->next_index];
    if (arg[0] != '-' || arg[1] == '\0') return GET_OPTION_REFUSED;
    if (arg[1] == '-') return long_option(c, argc, argv, table, optarg);
    c->cluster = arg + 1;
  }
  return short_option(c, argc, argv, table, optarg);
}

int get_extended_option(OptionCursor* c, int argc, char** argv, const ExtendedOption* table,
                        const char** optarg) {
  *optarg = nullptr;
  if (c->cluster || c->next_index >= argc) return 0;
  const char* arg = argv[c->next_index];
  if (arg[0] != '-' || arg[1] != '-') return 0;
  const ExtendedOption* o = find_long(table, arg + 2);
  if (!o) return 0;
  return take_long(c, argc, argv, o, optarg) ? o->id : GET_OPTION_REFUSED;
}

void print_usage(int argc, char** argv, ConfigLayer* config) {
  const char* progname = argc > 0 ? argv[0] : "kest_client";
  const int64_t port = znconfig_get_lng(config, ZNCONFIG_GROUP_CLIENT, ZNCONFIG_CLIENT_PORT);
  std::printf("Kest client\n\n");
  std::printf("Usage: %s [OPTIONS]\n", progname);
  std::printf("Executes an kest query on an kest server.\n\n");
  std::printf("Options:\n");
  std::printf("  -e, --execute QUERY   query to execute\n");
  std::printf("      or\n");
  std::printf("  -f, --file FILE       query file to execute\n");
  std::printf("                        if not provided, query is read from stdin\n");
  std::printf("  -h, --host HOSTNAME   server hostname or IP address\n");
  std::printf("                        default: localhost\n");
  std::printf("  -P, --port PORT       server port\n");
  std::printf("                        default: %" PRId64 "\n", port);
  std::printf("  -p, --ping            ping the server with simple query\n");
  std::printf("  -t, --tries TRIES     number of times to try to connect to the server\n");
  // "1 time" although the configured default is 3, and no comma after "-a": the text users know.
  std::printf("                        default: 1 time\n");
  std::printf("  -a  --passfile FILE   authentication file for the server\n");
  std::printf("  -o, --output ascii|unicode|raw|html\n");
  std::printf("                        selects output formatting\n");
  std::printf("  -i, --ignore-err      do not exit on error\n");
  std::printf("  -v, --version         print version and exit\n");
}
