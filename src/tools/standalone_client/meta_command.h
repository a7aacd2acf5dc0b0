// The shell's meta-commands: a line that starts with a backslash is one of these and is never
// sent to the server. This module reads such a line into a command with its arguments and checks
// their number and form (and the name of \format); the shell (shell.h) carries it out.
//
//   \q                 quit                     \x                 vertical display on/off
//   \?                 the list of commands     \i FILE            run the queries of a file
//   \format NAME       output mode              \c HOST [PORT]     connect to another server
//   \o [FILE]          results to FILE, or back to the terminal
//   \timing [on|off]   elapsed time after each result (no argument: toggle)
//   \pager [on|off]    results through a pager (no argument: toggle)
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "tools/standalone_client/formats.h"
#include "tools/standalone_client/printer.h"

enum class MetaKind {
  kInvalid,  // unknown command, or wrong arguments: `error` says which
  kQuit,
  kHelp,
  kFormat,
  kOutput,
  kTiming,
  kExpanded,
  kInclude,
  kConnect,
  kPager,
};

// A switch argument: absent (toggle), on or off.
enum class Switch { kToggle, kOn, kOff };

struct MetaCommand {
  MetaKind kind = MetaKind::kInvalid;
  OutputMode mode = OutputMode::kAscii;  // \format: the mode NAME names
  std::string argument;  // \format NAME, \o FILE (empty: back to the terminal), \i FILE, \c HOST
  int64_t port = 0;      // \c: the PORT given, 0 when none
  Switch setting = Switch::kToggle;  // \timing, \pager
  std::string error;                 // kInvalid: one line that names the problem and \?
};

// True when `line` is a meta-command line: its first character that is not a blank is "\".
bool is_meta_line(std::string_view line);

// Reads a meta-command line. The command's name ends at the first blank; arguments are
// separated by blanks, except that FILE is the rest of the line (a file name may hold blanks) and
// may be quoted with single quotes. REQUIRES: is_meta_line(line).
MetaCommand parse_meta_command(std::string_view line);

// A plain word typed alone on a line where no statement is open, as users of other shells type
// it: "help" is \?, "quit" and "exit" are \q (any case, an ending ";" allowed). kInvalid for
// any other line, which is then a statement.
MetaKind word_command(std::string_view line);

// The mode \x switches to and back from.
inline constexpr OutputMode kVerticalMode = OutputMode::kVertical;

// The help text of \?: one line per command, each ending with "\n".
std::string meta_command_help();
