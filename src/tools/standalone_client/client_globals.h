// Process-wide state of the client front end, set by the run driver and read by the session,
// the result reception and the printer.
#pragma once

#include "tools/standalone_client/printer.h"

struct ConfigLayer;

// 1 unless -p cleared it; when 0 results are received but nothing is printed.
extern int print_results;
// The output mode (codes 0 ascii, 1 unicode, 2 raw, 3 html); set once after option scanning.
extern OutputMode output_mode_code;
// How nulls and headers print; set once after option scanning.
extern PrintOptions print_options;
// Set by the shell while results go to the terminal: the printer and the error lines show
// control characters in the server's text escaped (terminal_text.h). Off in every classic run.
extern bool escape_control_chars;
// The configuration store (its "cmdline" layer), created first by the run driver.
extern ConfigLayer* client_config;
