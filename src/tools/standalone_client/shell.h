// The interactive shell: what kest_client runs when a person sits at the terminal. A prompt
// that names the server, line editing and a history (line_reader.h), statements cut as in a
// script (statement_buffer.h), meta-commands (meta_command.h), Ctrl-C that cancels a streaming
// result and not the program, and a session that goes on after a failed query.
//
// The run driver decides when the shell runs; every other run keeps its classic behaviour.
#pragma once

#include <cstdint>
#include <string>

struct ShellOptions {
  std::string host;
  int64_t port = 0;
  int64_t tries = 1;
  double timeout = 0;         // seconds without a byte from the server; 0: no limit
  bool timing = false;        // \timing on from the start
  std::string history_path;   // empty: no history file
  bool pager = false;         // results through the pager from the start
  std::string pager_command;  // the pager's command line
};

// The options that come from the environment: the history file ($KEST_HISTORY, else
// .kest_client_history in the home directory; an empty KEST_HISTORY keeps no history), the pager
// switch ($KEST_PAGER: on, yes, true or 1) and the pager's command ($PAGER, default
// "less -SRXF"). `home` is the home directory, or null.
void shell_options_from_environment(ShellOptions* options, const char* home);

// Connects, prints the banner and reads statements and meta-commands from standard input until
// \q, "quit" or the end of input. REQUIRES: the value types and the network layer are set up.
// Returns 0, or -1 when the connection could not be made or was lost (and not made again) at
// the end.
int shell_run(const ShellOptions& options);
