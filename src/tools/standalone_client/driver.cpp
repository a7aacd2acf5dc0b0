#include "tools/standalone_client/driver.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>

#include "kernel/ltype.h"
#include "tools/standalone_client/client_globals.h"
#include "tools/standalone_client/connection.h"
#include "tools/standalone_client/formats.h"
#include "tools/standalone_client/options.h"
#include "tools/standalone_client/session.h"
#include "tools/standalone_client/shell.h"
#include "tools/standalone_client/split_query.h"
#include "utils/netbuffer.h"
#include "utils/platform.h"
#include "utils/platform_stdio.h"
#include "utils/version.h"
#include "utils/znconfig.h"
#include "utils/znlog.h"

namespace {

constexpr const char* kFacility = "KESTCLIENT";
constexpr const char* kPingQuery = "Array([i=0])";
constexpr int kClient = ZNCONFIG_GROUP_CLIENT;

// A classic output option also takes back a --format (or a settings file's format) below it, so
// that the last output option of the command line counts.
void set_output_mode(ConfigLayer* config, const char* mode) {
  znconfig_set_str(config, kClient, ZNCONFIG_CLIENT_OUTPUT_MODE, mode);
  znconfig_set_str(config, kClient, ZNCONFIG_CLIENT_FORMAT, "");
}

// Some systems open a directory for reading and only fail its first read: it is refused here,
// like a file that cannot be opened.
std::FILE* open_query_file(const char* path) {
  std::FILE* file = std::fopen(path, "rb");
  if (file && platform_stream_is_directory(file)) {
    std::fclose(file);
    return nullptr;
  }
  return file;
}

// Acts on one scanned option. False when the run must end (the outcome is then in *end).
bool act(int letter, const char* value, int argc, char** argv, ClientRun* run,
         OptionsOutcome* end) {
  ConfigLayer* config = run->config;
  switch (letter) {
    case 'P':
      znconfig_set_by_id(config, kClient, ZNCONFIG_CLIENT_PORT, value);
      return true;
    case 't':
      znconfig_set_by_id(config, kClient, ZNCONFIG_CLIENT_CONNECTION_RETRIES, value);
      return true;
    case 'a':
      znconfig_set_str(config, kClient, ZNCONFIG_CLIENT_PASSFILE, value);
      return true;
    case 'h':
      znconfig_set_str(config, kClient, ZNCONFIG_CLIENT_HOST, value);
      return true;
    case 'o':
      set_output_mode(config, value);
      return true;
    case 'u':
      set_output_mode(config, "unicode");
      return true;
    case 'n':
      set_output_mode(config, "ascii");
      return true;
    case 'r':
      set_output_mode(config, "raw");
      return true;
    case 'e':
      run->query = value;
      return true;
    case 'i':
      run->ignore_errors = true;
      return true;
    case 'p':
      run->ping = true;
      print_results = 0;
      return true;
    case 'c':
      // Settings files sit below the command line, whatever the order of the options.
      znconfig_parse_config(config->parent ? config->parent : config, value, 1);
      return true;
    case 'f':
      client_run_close_file(run);
      run->file = open_query_file(value);
      run->file_name = value;
      if (run->file) return true;
      std::fprintf(stderr, "\nError: cannot read file '%s'\n", value);
      *end = OptionsOutcome::kExitFailed;
      return false;
    case 'v':
      version(argc > 0 ? argv[0] : "kest_client");
      *end = OptionsOutcome::kExitOk;
      return false;
    default:
      print_usage(argc, argv, config);
      *end = OptionsOutcome::kExitFailed;
      return false;
  }
}

// Ids of the client's own long options.
enum ExtendedId : int {
  // Session.
  kOptTimeout = 1,
  kOptInteractive = 2,
  // Output: formats and what goes with them.
  kOptFormat = 20,
  kOptNull = 21,
  kOptNoHeader = 22,
  kOptQuiet = 23,
  kOptTiming = 24,
};

// The client's own long options, beyond the classic table.
constexpr ExtendedOption kExtendedOptions[] = {
    {"timeout", 1, kOptTimeout},         {"format", 1, kOptFormat}, {"null", 1, kOptNull},
    {"no-header", 0, kOptNoHeader},      {"quiet", 0, kOptQuiet},   {"timing", 0, kOptTiming},
    {"interactive", 0, kOptInteractive}, {nullptr, 0, 0},
};

// The mode `name` stands for; an unknown name is refused on standard error.
std::optional<OutputMode> checked_format(const char* name) {
  const std::optional<OutputMode> mode = output_mode_by_name(name);
  if (!mode) {
    std::fprintf(stderr, "Error: unknown format '%s' (formats: %.*s)\n", name,
                 static_cast<int>(kOutputModeNames.size()), kOutputModeNames.data());
  }
  return mode;
}

// The longest --timeout: a year of seconds, as the settings key allows.
constexpr double kMaxTimeoutSeconds = 31536000.0;

// True when `text` is a number of seconds from 0 (no limit) to a year; anything else (a word, a
// unit after the number, a negative number) is refused on standard error.
bool checked_seconds(const char* text) {
  char* end = nullptr;
  const double seconds = std::strtod(text, &end);
  if (end != text && *end == '\0' && seconds >= 0 && seconds <= kMaxTimeoutSeconds) return true;
  std::fprintf(stderr, "Error: invalid timeout '%s' (seconds, 0 for no limit, up to %.0f)\n", text,
               kMaxTimeoutSeconds);
  return false;
}

// Acts on one extended option; false when the run must end (the outcome is then in *end).
bool act_extended(int id, const char* value, ClientRun* run, OptionsOutcome* end) {
  ConfigLayer* config = run->config;
  switch (id) {
    case kOptTimeout:
      if (!checked_seconds(value)) {
        *end = OptionsOutcome::kExitFailed;
        return false;
      }
      znconfig_set_by_id(config, kClient, ZNCONFIG_CLIENT_TIMEOUT, value);
      return true;
    case kOptFormat:
      if (!checked_format(value)) {
        *end = OptionsOutcome::kExitFailed;
        return false;
      }
      znconfig_set_str(config, kClient, ZNCONFIG_CLIENT_FORMAT, value);
      return true;
    case kOptNull:
      znconfig_set_str(config, kClient, ZNCONFIG_CLIENT_NULL, value);
      return true;
    case kOptNoHeader:
      run->no_header = true;
      return true;
    case kOptQuiet:
      znconfig_set_by_id(config, kClient, ZNCONFIG_CLIENT_QUIET, "true");
      return true;
    case kOptTiming:
      znconfig_set_by_id(config, kClient, ZNCONFIG_CLIENT_TIMING, "true");
      return true;
    case kOptInteractive:
      run->interactive = true;
      return true;
    default:
      return true;
  }
}

// The splitter over the -e text, else the -f file, else standard input; null when it cannot be
// created.
QuerySplitter* open_splitter(const ClientRun& run) {
  if (run.query) return query_splitter_create_string(run.query);
  return query_splitter_create_file(run.file ? run.file : stdin);
}

// True, after saying so on standard error, when the query source failed to read: the input it
// still held is lost, so the run fails.
bool report_read_error(const ClientRun& run, const QuerySplitter* qs) {
  if (!qs->read_failed) return false;
  if (run.file)
    std::fprintf(stderr, "\nError: cannot read file '%s'\n", run.file_name);
  else
    std::fputs("\nError: cannot read standard input\n", stderr);
  return true;
}

struct SplitterOwner {
  QuerySplitter* qs;
  ~SplitterOwner() { query_splitter_free(qs); }
};

// Runs the queries in turn; the status of the last one run (0 when there was none). Stops at
// the first failure unless errors are ignored.
int run_all(ClientConnection* connection, QuerySplitter* qs, const ClientRun& run) {
  int status = 0;
  while (const char* query = query_splitter_next(qs)) {
    const auto start = std::chrono::steady_clock::now();
    status = run_query(connection, query);
    if (run.timing) {
      const std::chrono::duration<double, std::milli> took =
          std::chrono::steady_clock::now() - start;
      std::fputs(timing_line(took.count(), connection->rows).c_str(), stderr);
    }
    if (status != 0 && !run.ignore_errors) break;
  }
  return status;
}

// The conversion tables and the network layer; false (logged) when the network cannot start.
bool start_layers() {
  types_init();
  if (network_init() == 0) return true;
  ZN_LOG(kFacility, ZN_ERROR, "cannot start the network layer");
  return false;
}

// From the conversion tables to the last query. The splitter is freed before returning.
int run_queries(ClientRun* run) {
  if (!start_layers()) return -1;
  SplitterOwner splitter{open_splitter(*run)};
  if (!splitter.qs || report_read_error(*run, splitter.qs)) return -1;
  const int64_t tries = znconfig_get_lng(run->config, kClient, ZNCONFIG_CLIENT_CONNECTION_RETRIES);
  const int64_t port = znconfig_get_lng(run->config, kClient, ZNCONFIG_CLIENT_PORT);
  const char* host = znconfig_get_str(run->config, kClient, ZNCONFIG_CLIENT_HOST);
  ClientConnection* connection = client_connect(host, port, tries);
  if (!connection) return -1;
  session_set_timeout(connection, znconfig_get_dbl(run->config, kClient, ZNCONFIG_CLIENT_TIMEOUT));
  const int status = run_all(connection, splitter.qs, *run);
  client_disconnect(connection);
  return report_read_error(*run, splitter.qs) ? -1 : status;
}

int run_shell(const ClientRun& run) {
  if (!start_layers()) return -1;
  ShellOptions options;
  options.host = znconfig_get_str(run.config, kClient, ZNCONFIG_CLIENT_HOST);
  options.port = znconfig_get_lng(run.config, kClient, ZNCONFIG_CLIENT_PORT);
  options.tries = znconfig_get_lng(run.config, kClient, ZNCONFIG_CLIENT_CONNECTION_RETRIES);
  options.timeout = znconfig_get_dbl(run.config, kClient, ZNCONFIG_CLIENT_TIMEOUT);
  options.timing = znconfig_get_bool(run.config, kClient, ZNCONFIG_CLIENT_TIMING);
  const char* home = std::getenv("HOME");
  shell_options_from_environment(&options, home && *home ? home : std::getenv("USERPROFILE"));
  return shell_run(options);
}

struct StoreOwner {
  ConfigLayer* config;
  ~StoreOwner() {
    if (client_config == config) client_config = nullptr;
    znconfig_free(config);
  }
};

struct FileOwner {
  ClientRun* run;
  ~FileOwner() { client_run_close_file(run); }
};

}  // namespace

OptionsOutcome client_scan_options(int argc, char** argv, ClientRun* run) {
  OptionCursor cursor;
  OptionsOutcome end = OptionsOutcome::kRun;
  for (;;) {
    const char* value = nullptr;
    const int id = get_extended_option(&cursor, argc, argv, kExtendedOptions, &value);
    // A refused extended option (a missing or unwanted value) consumed nothing: it must reach
    // the usage text below, never act_extended, or the scan would meet it again for ever.
    if (id > 0 && id != GET_OPTION_REFUSED) {
      if (!act_extended(id, value, run, &end)) return end;
      continue;
    }
    const int letter = id == GET_OPTION_REFUSED
                           ? id
                           : get_option(&cursor, argc, argv, kest_client_options, &value);
    if (letter == GET_OPTION_END) return OptionsOutcome::kRun;
    if (!act(letter, value, argc, argv, run, &end)) return end;
  }
}

bool client_quiet_requested(int argc, char** argv) {
  OptionCursor cursor;
  for (;;) {
    const char* value = nullptr;
    const int id = get_extended_option(&cursor, argc, argv, kExtendedOptions, &value);
    if (id == kOptQuiet) return true;
    if (id == GET_OPTION_REFUSED) return false;
    if (id > 0) continue;
    const int letter = get_option(&cursor, argc, argv, kest_client_options, &value);
    if (letter == GET_OPTION_END || letter == GET_OPTION_REFUSED || letter == 'v') return false;
  }
}

bool client_output_settings(const ClientRun& run, OutputSettings* settings) {
  ConfigLayer* config = run.config;
  const char* format = znconfig_get_str(config, kClient, ZNCONFIG_CLIENT_FORMAT);
  if (format != nullptr && format[0] != '\0') {
    const std::optional<OutputMode> mode = checked_format(format);
    if (!mode) return false;
    settings->mode = *mode;
  } else {
    settings->mode =
        client_output_mode_code(znconfig_get_str(config, kClient, ZNCONFIG_CLIENT_OUTPUT_MODE));
  }
  settings->print.null_text = znconfig_get_str(config, kClient, ZNCONFIG_CLIENT_NULL);
  settings->print.header = !run.no_header;
  settings->timing = znconfig_get_bool(config, kClient, ZNCONFIG_CLIENT_TIMING) != 0;
  settings->quiet = znconfig_get_bool(config, kClient, ZNCONFIG_CLIENT_QUIET) != 0;
  return true;
}

OutputMode client_output_mode_code(const char* mode) {
  if (!mode) return OutputMode::kAscii;
  if (std::strcmp(mode, "html") == 0) return OutputMode::kHtml;
  if (std::strcmp(mode, "raw") == 0) return OutputMode::kRaw;
  if (std::strcmp(mode, "unicode") == 0) return OutputMode::kUnicode;
  return OutputMode::kAscii;
}

bool client_wants_shell(const ClientRun& run, bool terminals) {
  if (run.query || run.file || run.ping) return false;
  return run.interactive || terminals;
}

void client_run_close_file(ClientRun* run) {
  if (run->file) std::fclose(run->file);
  run->file = nullptr;
}

int kest_client_main(int argc, char** argv) {
  // Before anything can log (the settings files are read when the store is made).
  if (client_quiet_requested(argc, argv)) zn_log_set_default_level(ZN_WARN);
  ClientRun run;
  run.config = znconfig_create();
  StoreOwner store{run.config};
  FileOwner file{&run};
  client_config = run.config;

  set_output_mode(znconfig_defaults(run.config), stdout_is_console() ? "unicode" : "ascii");

  switch (client_scan_options(argc, argv, &run)) {
    case OptionsOutcome::kExitOk:
      return 0;
    case OptionsOutcome::kExitFailed:
      return -1;
    case OptionsOutcome::kRun:
      break;
  }
  OutputSettings settings;
  if (!client_output_settings(run, &settings)) return -1;
  // A quiet setting from a settings file: its "Reading configuration" line has been logged.
  if (settings.quiet) zn_log_set_default_level(ZN_WARN);
  run.timing = settings.timing;
  print_options = settings.print;
  // The data formats write the same bytes everywhere: no CR before the line feeds on Windows.
  if (settings.mode >= OutputMode::kCsv) stdout_set_binary();

  const bool shell = client_wants_shell(run, stream_is_terminal(0) && stream_is_terminal(1));
  // Between prompts only warnings and errors, unless a logger configuration asks for more.
  if (shell) zn_log_set_default_level(ZN_WARN);

  // The printer gathers whole blocks itself: a second buffer in the C stream would only copy
  // them again and cut them into its own block size. Text printed directly ("Error: ...") then
  // goes out at once, in order with the blocks.
  std::setvbuf(stdout, nullptr, _IONBF, 0);
  ZN_LOG(kFacility, ZN_INFO, "Starting");
  ZN_LOG(kFacility, ZN_INFO, "Creating connection to server");
  if (run.ping) {
    ZN_LOG(kFacility, ZN_INFO, "Pinging server");
    run.query = kPingQuery;
  }
  output_mode_code = settings.mode;
  return shell ? run_shell(run) : run_queries(&run);
}
