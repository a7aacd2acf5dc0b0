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

// Scans the next option of argv. Returns its letter, GET_OPTION_REFUSED for anything not
// accepted (unknown names or letters, a value given to an option without one, a missing value,
// any argument not starting with "-": there are no positional arguments), or GET_OPTION_END when
// every argument is consumed. `*optarg` is set to the option's value, or null.
// Keeps process-wide state (the next argument's index, starting at 1, and the position inside a
// cluster of short options such as "-pi"), so one argument vector is scanned at a time.
int get_option(int argc, char** argv, const LongOption* table, const char** optarg);
// Restarts scanning at argument 1 with no cluster open (for a second scan, e.g. in tests).
void get_option_reset();

// Prints the usage text on standard output, one output call per line. The program name is
// argv[0] ("kest_client" when argc is 0); the default port shown is client.port's current value.
void print_usage(int argc, char** argv, ConfigLayer* config);
