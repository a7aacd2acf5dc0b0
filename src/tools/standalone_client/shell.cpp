#include "tools/standalone_client/shell.h"

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string_view>
#include <vector>

#include "tools/standalone_client/client_globals.h"
#include "tools/standalone_client/connection.h"
#include "tools/standalone_client/line_reader.h"
#include "tools/standalone_client/meta_command.h"
#include "tools/standalone_client/session.h"
#include "tools/standalone_client/split_query.h"
#include "tools/standalone_client/statement_buffer.h"
#include "utils/platform.h"

namespace {

constexpr const char* kDefaultPager = "less -SRXF";
constexpr const char* kHistoryFile = ".kest_client_history";

struct Shell {
  explicit Shell(const ShellOptions& o) : options(o), timing(o.timing), pager(o.pager) {}
  ~Shell() {
    client_disconnect(connection);
    if (output) std::fclose(output);
  }
  Shell(const Shell&) = delete;
  Shell& operator=(const Shell&) = delete;

  ShellOptions options;
  ClientConnection* connection = nullptr;  // owned
  LineReaderPtr reader;
  StatementBuffer buffer;
  std::FILE* output = nullptr;            // \o FILE, owned; null: results go to the terminal
  bool terminal = stream_is_terminal(1);  // results at the screen: escaped, maybe paged
  bool timing;
  bool pager;
  std::optional<OutputMode> before_vertical;  // the mode \x switches back to
  bool lost = false;                          // no usable connection
  bool quit = false;
};

void on_interrupt() { session_request_cancel(); }

std::string where(const Shell& s) {
  return std::string(s.connection->host) + ":" + std::to_string(s.connection->port);
}

void complain(const std::string& text) {
  std::fprintf(stderr, "%s\n", text.c_str());
  std::fflush(stderr);
}

std::string_view trim_blank_lines(std::string_view text) {
  const auto blank = [](char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; };
  while (!text.empty() && blank(text.front())) text.remove_prefix(1);
  while (!text.empty() && blank(text.back())) text.remove_suffix(1);
  return text;
}

// The connection is usable for the next statement (re-opened when the server dropped it); when
// it is not, says so.
bool ready(Shell& s) {
  if (session_revive(s.connection) == 0) {
    s.lost = false;
    return true;
  }
  s.lost = true;
  complain("No connection to " + where(s) + ". \\c HOST [PORT] connects to a server.");
  return false;
}

// After a statement that failed or was cancelled: the connection is made usable again at once
// (a cancelled answer is dropped with its connection), so the next statement starts without
// waiting; a connection that cannot be made again is reported.
void recover(Shell& s) {
  if (session_revive(s.connection) == 0) return;
  s.lost = true;
  complain("The connection to " + where(s) + " is lost.");
}

std::FILE* open_pager(const Shell& s) {
  if (!s.pager || s.output || !s.terminal) return nullptr;
  std::fflush(stdout);
  std::FILE* pipe = platform_pipe_open(s.options.pager_command.c_str());
  if (!pipe) {
    complain("Cannot start the pager \"" + s.options.pager_command + "\": " + std::strerror(errno) +
             ".");
    return nullptr;
  }
  // A pager that quits before the result ends stops the result, as Ctrl-C does.
  platform_watch_broken_pipe(true, on_interrupt);
  return pipe;
}

void close_pager(std::FILE* pipe) {
  if (!pipe) return;
  platform_pipe_close(pipe);
  platform_watch_broken_pipe(false, nullptr);
}

void run_statement(Shell& s, const char* text) {
  if (!ready(s)) return;
  std::FILE* pager = open_pager(s);
  escape_control_chars = s.output == nullptr && s.terminal;
  s.connection->result.out = s.output ? s.output : pager;
  const auto start = std::chrono::steady_clock::now();
  session_arm_cancel(true);
  const int status = run_query(s.connection, text);
  session_arm_cancel(false);
  const std::chrono::duration<double, std::milli> elapsed =
      std::chrono::steady_clock::now() - start;
  s.connection->result.out = nullptr;
  escape_control_chars = false;
  close_pager(pager);
  if (status != 0) recover(s);
  if (s.timing) std::fputs(timing_line(elapsed.count(), s.connection->rows).c_str(), stdout);
}

// Runs the queries of a file as -f does (no meta-commands there); Ctrl-C stops the rest.
void include(Shell& s, const std::string& path) {
  std::FILE* file = std::fopen(path.c_str(), "rb");
  if (!file) {
    complain("\\i: cannot read file '" + path + "': " + std::strerror(errno) + ".");
    return;
  }
  QuerySplitter* qs = query_splitter_create_file(file);
  const uint32_t interrupts = platform_interrupt_count();
  while (const char* query = qs ? query_splitter_next(qs) : nullptr) {
    run_statement(s, query);
    if (platform_interrupt_count() != interrupts) break;
  }
  query_splitter_free(qs);
  std::fclose(file);
}

void set_output(Shell& s, const std::string& path) {
  std::FILE* file = nullptr;
  if (!path.empty() && !(file = std::fopen(path.c_str(), "wb"))) {
    complain("\\o: cannot write file '" + path + "': " + std::strerror(errno) + ".");
    return;
  }
  if (s.output) std::fclose(s.output);
  s.output = file;
}

void connect_to(Shell& s, const std::string& host, int64_t port) {
  ClientConnection* fresh = client_connect(host.c_str(), port, s.options.tries);
  if (!fresh) {
    complain("\\c: cannot connect to " + host + ":" + std::to_string(port) + "; " +
             (s.lost ? "no connection." : "still connected to " + where(s) + "."));
    return;
  }
  session_set_timeout(fresh, s.options.timeout);
  client_disconnect(s.connection);
  s.connection = fresh;
  s.lost = false;
  std::printf("Connected to %s.\n", where(s).c_str());
}

void toggle_vertical(Shell& s) {
  if (s.before_vertical) {
    output_mode_code = *s.before_vertical;
    s.before_vertical.reset();
  } else {
    s.before_vertical = output_mode_code;
    output_mode_code = kVerticalMode;
  }
  std::printf("Vertical display is %s.\n", s.before_vertical ? "on" : "off");
}

bool switched(Switch setting, bool now) {
  return setting == Switch::kToggle ? !now : setting == Switch::kOn;
}

void run_meta(Shell& s, const MetaCommand& m) {
  switch (m.kind) {
    case MetaKind::kInvalid:
      complain(m.error);
      return;
    case MetaKind::kQuit:
      s.quit = true;
      return;
    case MetaKind::kHelp:
      std::fputs(meta_command_help().c_str(), stdout);
      return;
    case MetaKind::kFormat:
      output_mode_code = m.mode;
      s.before_vertical.reset();
      return;
    case MetaKind::kOutput:
      set_output(s, m.argument);
      return;
    case MetaKind::kTiming:
      s.timing = switched(m.setting, s.timing);
      std::printf("Timing is %s.\n", s.timing ? "on" : "off");
      return;
    case MetaKind::kExpanded:
      toggle_vertical(s);
      return;
    case MetaKind::kInclude:
      include(s, m.argument);
      return;
    case MetaKind::kConnect:
      connect_to(s, m.argument, m.port ? m.port : s.connection->port);
      return;
    case MetaKind::kPager:
      s.pager = switched(m.setting, s.pager);
      if (s.pager)
        std::printf("Pager is on (%s).\n", s.options.pager_command.c_str());
      else
        std::printf("Pager is off.\n");
      return;
  }
}

void remember(Shell& s, std::string_view entry) {
  line_reader_remember(s.reader.get(), trim_blank_lines(entry));
}

// One line as typed: a meta-command, a word such as "quit", or text for the statement buffer,
// whose completed statements run at once (the history gets them first).
void handle_line(Shell& s, std::string_view line) {
  if (!is_scannable_line(line)) {
    complain(
        "The line holds control characters and was not used (line editing keys need a "
        "terminal and a build with line editing).");
    return;
  }
  if (s.buffer.state() != InputState::kLiteral && is_meta_line(line)) {
    remember(s, line);
    run_meta(s, parse_meta_command(line));
    return;
  }
  if (s.buffer.state() == InputState::kEmpty && word_command(line) != MetaKind::kInvalid) {
    remember(s, line);
    MetaCommand command;
    command.kind = word_command(line);
    run_meta(s, command);
    return;
  }
  const std::string typed = s.buffer.pending() + std::string(line) + "\n";
  const std::vector<std::string> statements = s.buffer.add_line(line);
  if (statements.empty()) return;
  remember(s, std::string_view(typed).substr(0, typed.size() - s.buffer.pending().size()));
  for (const std::string& statement : statements) {
    run_statement(s, statement.c_str());
    if (session_query_cancelled()) break;  // Ctrl-C stops the rest of the line too
  }
}

std::string prompt(const Shell& s) {
  const std::string here = where(s);
  switch (s.buffer.state()) {
    case InputState::kEmpty:
      return here + "> ";
    case InputState::kStatement:
      return std::string(here.size() - 1, ' ') + "-> ";
    case InputState::kLiteral:
      return std::string(here.size() - 1, ' ') + "'> ";
  }
  return here + "> ";
}

void read_loop(Shell& s) {
  std::string line;
  while (!s.quit) {
    switch (line_reader_read(s.reader.get(), prompt(s), &line)) {
      case ReadStatus::kLine: {
        // A recalled entry of several lines comes back whole: each line counts as typed.
        std::string_view rest = line;
        for (size_t end; !s.quit && (end = rest.find('\n')) != std::string_view::npos;
             rest.remove_prefix(end + 1))
          handle_line(s, rest.substr(0, end));
        if (!s.quit) handle_line(s, rest);
        break;
      }
      case ReadStatus::kInterrupted:
        std::fputs("\n", stdout);
        s.buffer.clear();
        break;
      case ReadStatus::kEnd:
        std::fputs("\n", stdout);
        s.quit = true;
        break;
    }
  }
}

bool is_true_word(const char* value) {
  if (!value) return false;
  for (const char* word : {"on", "yes", "true", "1"})
    if (std::strcmp(value, word) == 0) return true;
  return false;
}

}  // namespace

void shell_options_from_environment(ShellOptions* options, const char* home) {
  const char* history = std::getenv("KEST_HISTORY");
  if (history)
    options->history_path = history;
  else if (home && *home)
    options->history_path = std::string(home) + kPathSeparator + kHistoryFile;
  options->pager = is_true_word(std::getenv("KEST_PAGER"));
  const char* pager = std::getenv("PAGER");
  options->pager_command = pager && *pager ? pager : kDefaultPager;
}

int shell_run(const ShellOptions& options) {
  Shell s(options);
  s.connection = client_connect(options.host.c_str(), options.port, options.tries);
  if (!s.connection) {
    complain("kest_client: cannot connect to " + options.host + ":" + std::to_string(options.port) +
             ".");
    return -1;
  }
  session_set_timeout(s.connection, options.timeout);
  LineReaderOptions reader_options;
  reader_options.edit = stream_is_terminal(0);
  reader_options.history_path = options.history_path;
  s.reader = line_reader_open(reader_options);
  std::printf("kest_client, connected to %s.\nType \\? for the commands, \\q to quit.\n",
              where(s).c_str());
  platform_watch_interrupts(true, on_interrupt);
  read_loop(s);
  platform_watch_interrupts(false, nullptr);
  return s.lost ? -1 : 0;
}
