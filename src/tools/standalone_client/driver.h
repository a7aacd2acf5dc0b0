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
  bool interactive = false;       // --interactive
};

enum class OptionsOutcome {
  kRun,         // every option taken: go on with the run
  kExitOk,      // -v printed the version: end with status 0
  kExitFailed,  // the usage text or the file error was printed: end with status -1
};

// Scans argv from its first argument and acts on each option in order: writes the store's
// client properties, loads -c files into the "conffile" layer, opens -f files at once ("rb"),
// sets run->query, run->ping (clearing print_results), run->ignore_errors. -v prints the version
// and stops at once; a refused option prints the usage text. REQUIRES: run->config is set.
OptionsOutcome client_scan_options(int argc, char** argv, ClientRun* run);

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
// query source or connection that cannot be opened, and a failed query.
int kest_client_main(int argc, char** argv);
