// The client's command line: the option scanner, the long-option table and the usage text.
#pragma once

struct ConfigLayer;

// One long option. A table is an array of these ending with an entry whose name is null; the
// first matching entry wins.
struct LongOption {
  const char* name;  // given in full after "--"; no abbreviation
  int has_arg;       // 1: takes a value ("--port 5000", "--port=5000", "-P5000", "-P 5000")
  char letter;       // the short form, and what get_option returns for either form
};

// The client's table: config, execute, host, port, ping, tries, unicode, nounicode, raw-output,
// output, file, passfile, ignore-err, version, help.
extern const LongOption kest_client_options[];

constexpr int GET_OPTION_REFUSED = 63;  // '?'
constexpr int GET_OPTION_END = -1;

// Where a scan of one argument vector stands. A fresh cursor starts at argument 1.
struct OptionCursor {
  int next_index = 1;             // the next argument to look at
  const char* cluster = nullptr;  // the next unread letter of a cluster such as "-pi", or null
};

// Scans the next option of argv at `cursor` and advances it. Returns its letter,
// GET_OPTION_REFUSED for anything not accepted (unknown names or letters, a value given to an
// option without one, a missing value, any argument not starting with "-": there are no
// positional arguments), or GET_OPTION_END when every argument is consumed. `*optarg` is set to
// the option's value, or null.
int get_option(OptionCursor* cursor, int argc, char** argv, const LongOption* table,
               const char** optarg);

// The client's own long options beyond the classic table: none of their names is matched by a
// classic entry, and none has a short form. Looked at only where a long option starts (no
// cluster open); the same name rules as the classic table ("--name", "--name value",
// "--name=value", no abbreviation).
struct ExtendedOption {
  const char* name;
  int has_arg;  // 1: takes a value
  int id;       // what get_extended_option returns; > 0 and not GET_OPTION_REFUSED
};
// When the argument at `cursor` names an entry of `table` (ending with a null name), consumes it
// and its value and returns the entry's id (`*optarg` the value or null); GET_OPTION_REFUSED when
// it names one but its value is missing or one is given to an option without one; 0 when it is
// no entry of the table (nothing consumed: scan it with get_option).
int get_extended_option(OptionCursor* cursor, int argc, char** argv, const ExtendedOption* table,
                        const char** optarg);

// Prints the usage text on standard output, one output call per line. The program name is
// argv[0] ("kest_client" when argc is 0); the default port shown is client.port's current value.
void print_usage(int argc, char** argv, ConfigLayer* config);
