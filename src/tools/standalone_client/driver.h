// The run of kest_client: create the configuration store, scan the options into it, open the
// query source, connect, run every query and return the exit status.
#pragma once

#include <cstdio>

#include "tools/standalone_client/printer.h"

struct ConfigLayer;

// What the options ask for beyond the configuration store.
struct ClientRun {
  ConfigLayer* config = nullptr;  // the store's "cmdline" layer; not owned
  const char* query = nullptr;    // the last -e text (points into argv), or the ping query
  std::FILE* file = nullptr;      // the -f file; owned: closed by client_run_close_file
  bool ignore_errors = false;     // -i
  bool ping = false;              // -p
  // The -f file's name as given (points into argv), for its messages.
  const char* file_name = nullptr;
  bool no_header = false;    // --no-header
  bool timing = false;       // the timing setting (--timing), read after the scan
  bool interactive = false;  // --interactive
};

// The output settings, read once from the merged store after the options.
struct OutputSettings {
  OutputMode mode = OutputMode::kAscii;
  PrintOptions print;  // null_text points into the store
  bool timing = false;
  bool quiet = false;
};

enum class OptionsOutcome {
  kRun,         // every option taken: go on with the run
  kExitOk,      // -v printed the version: end with status 0
  kExitFailed,  // the usage text or the file error was printed: end with status -1
};

// Scans argv from its first argument and acts on each option in order: writes the store's
// client properties, loads -c files into the "conffile" layer, opens -f files at once ("rb"; a
// directory is refused like a file that cannot be opened, on every system),
// sets run->query, run->ping (clearing print_results), run->ignore_errors. -v prints the version
// and stops at once; a refused option prints the usage text. REQUIRES: run->config is set.
OptionsOutcome client_scan_options(int argc, char** argv, ClientRun* run);

// Whether the options hold --quiet where the scan reaches it (it stops at a refused option and at
// -v), looked at before the store is made so that nothing is logged below warn level. Acts on
// nothing.
bool client_quiet_requested(int argc, char** argv);

// Reads client.format, output_mode, null, timing and quiet from the store (command line above
// settings files), and --no-header from `run`. A format that is set and not empty wins over
// output_mode (a classic output option sets it empty); a name that is no format is refused with
// "Error: unknown format 'NAME' (formats: ascii, ...)" on standard error and false.
bool client_output_settings(const ClientRun& run, OutputSettings* settings);

// The mode an output_mode text names: exactly "html", "raw" or "unicode" (case matters), and
// ascii for anything else, null included.
OutputMode client_output_mode_code(const char* mode);

// True when the run is the interactive shell (shell.h): none of -e, -f and -p was given, and
// either --interactive asks for it or standard input and output are both terminals
// (`terminals`). Every other run is the classic one.
bool client_wants_shell(const ClientRun& run, bool terminals);

// Closes run->file if one is open.
void client_run_close_file(ClientRun* run);

// The whole run (main only calls this). Returns 0 when every query run succeeded (with -i: the
// last one) or there was none, or after -v; -1 for a refused option, an unreadable -f file, a
// query source or connection that cannot be opened, a failed query, and a read error of the
// query source (reported on standard error after the queries read before it have run; with -i
// too, since the rest of the input is lost).
int kest_client_main(int argc, char** argv);
