#include "tools/standalone_client/meta_command.h"

#include <charconv>
#include <optional>
#include <vector>

namespace {

bool is_blank(char c) { return c == ' ' || c == '\t'; }

std::string_view trim(std::string_view s) {
  while (!s.empty() && is_blank(s.front())) s.remove_prefix(1);
  while (!s.empty() && is_blank(s.back())) s.remove_suffix(1);
  return s;
}

std::vector<std::string_view> words(std::string_view s) {
  std::vector<std::string_view> out;
  for (;;) {
    s = trim(s);
    if (s.empty()) return out;
    size_t n = 0;
    while (n < s.size() && !is_blank(s[n])) ++n;
    out.push_back(s.substr(0, n));
    s.remove_prefix(n);
  }
}

// How each command takes its arguments.
enum class Shape {
  kNone,    // no argument
  kFile,    // the rest of the line, optionally quoted; `required` says whether it may be absent
  kName,    // exactly one word
  kSwitch,  // nothing, "on" or "off"
  kHost,    // HOST [PORT]
};

struct CommandForm {
  std::string_view name;
  MetaKind kind;
  Shape shape;
  bool required;
};

constexpr CommandForm kCommands[] = {
    {"q", MetaKind::kQuit, Shape::kNone, false},
    {"?", MetaKind::kHelp, Shape::kNone, false},
    {"format", MetaKind::kFormat, Shape::kName, true},
    {"o", MetaKind::kOutput, Shape::kFile, false},
    {"timing", MetaKind::kTiming, Shape::kSwitch, false},
    {"x", MetaKind::kExpanded, Shape::kNone, false},
    {"i", MetaKind::kInclude, Shape::kFile, true},
    {"c", MetaKind::kConnect, Shape::kHost, true},
    {"pager", MetaKind::kPager, Shape::kSwitch, false},
};

MetaCommand invalid(std::string error) {
  MetaCommand command;
  command.error = std::move(error);
  return command;
}

std::string usage_error(std::string_view name, std::string_view what) {
  std::string error = "\\";
  error.append(name).append(": ").append(what).append("; \\? lists the commands.");
  return error;
}

// A FILE argument: the rest of the line, or the text between single quotes.
bool read_file_argument(std::string_view rest, std::string* file) {
  rest = trim(rest);
  if (rest.empty() || rest.front() != '\'') {
    *file = std::string(rest);
    return true;
  }
  const size_t close = rest.find('\'', 1);
  if (close == std::string_view::npos || !trim(rest.substr(close + 1)).empty()) return false;
  *file = std::string(rest.substr(1, close - 1));
  return true;
}

bool read_port(std::string_view text, int64_t* port) {
  const char* end = text.data() + text.size();
  const auto [ptr, ec] = std::from_chars(text.data(), end, *port);
  return ec == std::errc() && ptr == end && *port >= 1 && *port <= 65535;
}

// Fills `command` from the arguments of `form`; false with command->error set when they do
// not fit.
bool read_arguments(const CommandForm& form, std::string_view rest, MetaCommand* command) {
  const std::vector<std::string_view> args = words(rest);
  switch (form.shape) {
    case Shape::kNone:
      if (args.empty()) return true;
      command->error = usage_error(form.name, "takes no argument");
      return false;
    case Shape::kFile:
      if (!read_file_argument(rest, &command->argument)) {
        command->error = usage_error(form.name, "the quoted file name has no closing quote");
        return false;
      }
      if (!form.required || !command->argument.empty()) return true;
      command->error = usage_error(form.name, "needs a file name");
      return false;
    case Shape::kName: {
      const std::optional<OutputMode> mode =
          args.size() == 1 ? output_mode_by_name(args[0]) : std::nullopt;
      if (mode) {
        command->argument = std::string(args[0]);
        command->mode = *mode;
        return true;
      }
      command->error = usage_error(form.name, "needs one of " + std::string(kOutputModeNames));
      return false;
    }
    case Shape::kSwitch:
      if (args.empty()) return true;
      if (args.size() == 1 && (args[0] == "on" || args[0] == "off")) {
        command->setting = args[0] == "on" ? Switch::kOn : Switch::kOff;
        return true;
      }
      command->error = usage_error(form.name, "takes on, off or nothing");
      return false;
    case Shape::kHost:
      if (args.empty() || args.size() > 2) {
        command->error = usage_error(form.name, "needs HOST and an optional PORT");
        return false;
      }
      command->argument = std::string(args[0]);
      if (args.size() == 1 || read_port(args[1], &command->port)) return true;
      command->error = usage_error(form.name, "PORT must be a number from 1 to 65535");
      return false;
  }
  return false;
}

}  // namespace

bool is_meta_line(std::string_view line) {
  line = trim(line);
  return !line.empty() && line.front() == '\\';
}

MetaCommand parse_meta_command(std::string_view line) {
  line = trim(line);
  line.remove_prefix(1);  // the backslash
  size_t n = 0;
  while (n < line.size() && !is_blank(line[n])) ++n;
  const std::string_view name = line.substr(0, n);
  for (const CommandForm& form : kCommands) {
    if (form.name != name) continue;
    MetaCommand command;
    if (!read_arguments(form, line.substr(n), &command)) return invalid(std::move(command.error));
    command.kind = form.kind;
    return command;
  }
  return invalid("Unknown command \\" + std::string(name) + "; \\? lists the commands.");
}

MetaKind word_command(std::string_view line) {
  line = trim(line);
  if (!line.empty() && line.back() == ';') line = trim(line.substr(0, line.size() - 1));
  std::string word(line);
  for (char& c : word)
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  if (word == "help") return MetaKind::kHelp;
  if (word == "quit" || word == "exit") return MetaKind::kQuit;
  return MetaKind::kInvalid;
}

std::string meta_command_help() {
  return "\\q                 quit (so does Ctrl-D on an empty line)\n"
         "\\?                 this list\n"
         "\\format NAME       output mode: " +
         std::string(kOutputModeNames) +
         "\n"
         "\\o [FILE]          results to FILE; without FILE back to the terminal\n"
         "\\timing [on|off]   show the elapsed time after each result\n"
         "\\x                 vertical display on or off\n"
         "\\i FILE            run the queries of FILE\n"
         "\\c HOST [PORT]     connect to another server (PORT: the current one)\n"
         "\\pager [on|off]    show results through a pager (PAGER, default \"less -SRXF\")\n";
}
