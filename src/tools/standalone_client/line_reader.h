// The shell's line input: one line per call after a prompt, with line editing and a history
// when the build has libedit and the input is a terminal, else plain line reading with the same
// prompts (a Windows console still edits the line and recalls earlier ones itself). The history
// is kept in a file across sessions, entry by entry as the shell hands them in.
#pragma once

#include <cstddef>
#include <cstdio>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

enum class ReadStatus {
  kLine,         // a line was read (without its line end)
  kInterrupted,  // Ctrl-C while reading: the line is dropped
  kEnd,          // end of input (Ctrl-D on an empty line), or the input failed
};

struct LineReaderOptions {
  std::FILE* in = stdin;       // borrowed
  std::FILE* out = stdout;     // where the prompt goes; borrowed
  bool edit = true;            // edit lines with libedit when the build has it (`in` a terminal)
  std::string history_path;    // empty: no history file
  size_t history_size = 1000;  // entries kept in the file and for recall
};

struct LineReader;
struct LineReaderClose {
  void operator()(LineReader* reader) const;
};
using LineReaderPtr = std::unique_ptr<LineReader, LineReaderClose>;

// Opens the reader and loads the history file (a missing file is an empty history). Never null.
LineReaderPtr line_reader_open(const LineReaderOptions& options);
// Prints `prompt` and reads one line into `*line`. An interrupt (platform_watch_interrupts) that
// comes while it waits gives kInterrupted; the interrupt must be watched by the caller, as an
// unwatched one ends the process.
ReadStatus line_reader_read(LineReader* reader, const std::string& prompt, std::string* line);
// Adds `entry` (lines joined by "\n") to the history for recall and appends it to the history
// file at once. An empty entry, or one equal to the entry before it, is not added.
void line_reader_remember(LineReader* reader, std::string_view entry);
// True when lines are edited with libedit.
bool line_reader_edits(const LineReader* reader);
// True when the build has line editing (libedit).
bool line_reader_can_edit();

// The history file: one entry per line, oldest first; a line end inside an entry is written as
// the byte 0x01, which no typed line holds (the shell refuses control characters). Opening a
// reader cuts a longer file down to the newest `history_size` entries. The entries of the file
// at `path`; none when it cannot be read.
std::vector<std::string> history_load(const std::string& path);
// Appends one entry; false when the file cannot be written.
bool history_append(const std::string& path, std::string_view entry);
// Replaces the file's contents with `entries`; false when it cannot be written.
bool history_rewrite(const std::string& path, const std::vector<std::string>& entries);
