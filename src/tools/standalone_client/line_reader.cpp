#include "tools/standalone_client/line_reader.h"

#include <cstring>

#include "utils/platform.h"

#if KEST_HAVE_LIBEDIT
#include <dlfcn.h>
#include <fcntl.h>
#include <histedit.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <clocale>
#include <cwchar>
#endif

namespace {

constexpr char kEntryLineEnd = '\x01';  // a line end inside a history entry, in the file

std::string encode_entry(std::string_view entry) {
  std::string line(entry);
  for (char& c : line)
    if (c == '\n') c = kEntryLineEnd;
  return line;
}

void decode_entry(std::string* line) {
  for (char& c : *line)
    if (c == kEntryLineEnd) c = '\n';
}

void strip_line_end(std::string* line) {
  while (!line->empty() && (line->back() == '\n' || line->back() == '\r')) line->pop_back();
}

// Reads one line of any length; false at the end of input or on an error, with nothing read.
bool read_plain_line(std::FILE* in, std::string* line) {
  line->clear();
  char chunk[4096];
  while (std::fgets(chunk, sizeof chunk, in)) {
    line->append(chunk);
    if (!line->empty() && line->back() == '\n') return true;
  }
  return !line->empty();  // a last line without a line end
}

#if KEST_HAVE_LIBEDIT

// libedit is loaded when the shell first edits a line, not when the program starts: every run
// that is not the shell (scripts, -e, -p) would otherwise pay for loading it and the libraries
// it needs. Without it the shell reads plain lines.
struct EditLibrary {
  decltype(&::history_init) history_init;
  decltype(&::history_end) history_end;
  decltype(&::history) history;
  decltype(&::el_init) el_init;
  decltype(&::el_end) el_end;
  decltype(&::el_set) el_set;
  decltype(&::el_get) el_get;
  decltype(&::el_gets) el_gets;
  decltype(&::el_source) el_source;
};

template <typename F>
bool resolve(void* handle, const char* name, F* fn) {
  *fn = reinterpret_cast<F>(dlsym(handle, name));
  return *fn != nullptr;
}

// The library's entry points, or null when it cannot be loaded (then once, for the process).
const EditLibrary* edit_library() {
  static const EditLibrary* const library = []() -> const EditLibrary* {
    void* handle = dlopen("libedit.so.2", RTLD_NOW | RTLD_LOCAL);
    if (!handle) handle = dlopen("libedit.so", RTLD_NOW | RTLD_LOCAL);
    if (!handle) return nullptr;
    static EditLibrary l;
    const bool all =
        resolve(handle, "history_init", &l.history_init) &&
        resolve(handle, "history_end", &l.history_end) && resolve(handle, "history", &l.history) &&
        resolve(handle, "el_init", &l.el_init) && resolve(handle, "el_end", &l.el_end) &&
        resolve(handle, "el_set", &l.el_set) && resolve(handle, "el_get", &l.el_get) &&
        resolve(handle, "el_gets", &l.el_gets) && resolve(handle, "el_source", &l.el_source);
    return all ? &l : nullptr;
  }();
  return library;
}

bool can_edit() { return edit_library() != nullptr; }

// Line editing with libedit: emacs key bindings (and the user's ~/.editrc), the history in
// memory for recall. libedit's own signal handling stays off: the shell watches interrupts,
// and an interrupted read returns from el_gets with the line dropped.
class Editor {
 public:
  // REQUIRES: can_edit().
  Editor(std::FILE* in, std::FILE* out, size_t history_size)
      : lib_(*edit_library()), keys_(open_keys(fileno(in))) {
    std::setlocale(LC_CTYPE, "");  // multibyte characters are edited as characters
    history_ = lib_.history_init();
    HistEvent event;
    lib_.history(history_, &event, H_SETSIZE, static_cast<int>(history_size));
    lib_.history(history_, &event, H_SETUNIQUE, 1);
    el_ = lib_.el_init("kest_client", in, out, stderr);
    lib_.el_set(el_, EL_CLIENTDATA, this);
    lib_.el_set(el_, EL_PROMPT, &Editor::prompt_of);
    lib_.el_set(el_, EL_EDITOR, "emacs");
    lib_.el_set(el_, EL_GETCFN, &Editor::read_char);
    lib_.el_set(el_, EL_HIST, lib_.history, history_);
    lib_.el_source(el_, nullptr);
  }
  ~Editor() {
    lib_.el_end(el_);
    lib_.history_end(history_);
    if (keys_.owned) close(keys_.fd);
  }
  Editor(const Editor&) = delete;
  Editor& operator=(const Editor&) = delete;

  void remember(const std::string& entry) {
    HistEvent event;
    lib_.history(history_, &event, H_ENTER, entry.c_str());
  }

  ReadStatus read(const std::string& prompt, std::string* line) {
    prompt_ = prompt;
    int count = 0;
    errno = 0;
    // The terminal goes into the editor's mode before the prompt shows: el_gets prints the
    // prompt first, and keys typed on seeing it would otherwise meet a terminal that still
    // echoes and edits lines by itself.
    lib_.el_set(el_, EL_PREP_TERM, 1);
    interrupts_ = platform_interrupt_count();
    stops_ = platform_stop_count();
    platform_watch_stops(true);
    const char* text = lib_.el_gets(el_, &count);
    platform_watch_stops(false);
    if (!text) return count < 0 && errno == EINTR ? ReadStatus::kInterrupted : ReadStatus::kEnd;
    line->assign(text, static_cast<size_t>(count));
    strip_line_end(line);
    return ReadStatus::kLine;
  }

 private:
  // How long a wait for a key lasts before the interrupt count is looked at again.
  static constexpr int kKeyWaitMs = 100;

  // Where the keys are read from. The terminal is opened a second time, without blocking, when it
  // can be: a Ctrl-C that comes between the wait for a key and its read empties the terminal's
  // input, and a blocking read would then wait for the next key with the interrupt unseen. The
  // second opening is the editor's own, so the terminal's other users keep their blocking reads.
  struct Keys {
    int fd;
    bool owned;  // a second opening, closed with the editor
  };
  static Keys open_keys(int fd) {
    const char* name = ttyname(fd);
    const int own = name ? open(name, O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC) : -1;
    return own < 0 ? Keys{fd, false} : Keys{own, true};
  }

  // The editor's reads of the terminal, one character at a time. An interrupt is seen even when
  // it comes while the editor is busy between two reads (its signal then meets no blocked read
  // to cut short): the wait for a key looks at the count at least every kKeyWaitMs.
  static int read_char(EditLine* el, wchar_t* out) {
    Editor* self = nullptr;
    edit_library()->el_get(el, EL_CLIENTDATA, &self);
    const int fd = self->keys_.fd;
    std::mbstate_t state{};
    for (;;) {
      if (platform_interrupt_count() != self->interrupts_) {
        errno = EINTR;
        return -1;
      }
      if (platform_stop_count() != self->stops_) {
        self->stop(el);
        continue;
      }
      pollfd pfd{fd, POLLIN, 0};
      const int ready = poll(&pfd, 1, kKeyWaitMs);
      if (ready == 0 || (ready < 0 && errno == EINTR)) continue;
      if (ready < 0) return -1;
      char byte = 0;
      const ssize_t n = ::read(fd, &byte, 1);
      if (n == 0) return 0;
      if (n < 0) {
        if (errno == EINTR || errno == EAGAIN || errno == EWOULDBLOCK) continue;
        return -1;
      }
      const size_t r = std::mbrtowc(out, &byte, 1, &state);
      if (r == static_cast<size_t>(-2)) continue;  // a character of several bytes, not complete
      if (r == static_cast<size_t>(-1)) {          // not a character here: the byte as it is
        *out = static_cast<unsigned char>(byte);
        state = std::mbstate_t{};
      }
      return 1;
    }
  }

  // Ctrl-Z while a line is edited: the terminal goes back to the mode the user's shell expects
  // before the process stops, and when it is continued the editor's mode comes back and the
  // prompt and the line so far are drawn again (the shell wrote over them).
  void stop(EditLine* el) {
    stops_ = platform_stop_count();
    lib_.el_set(el, EL_PREP_TERM, 0);
    platform_stop_now();
    lib_.el_set(el, EL_PREP_TERM, 1);
    lib_.el_set(el, EL_REFRESH);
  }

  static char* prompt_of(EditLine* el) {
    Editor* self = nullptr;
    edit_library()->el_get(el, EL_CLIENTDATA, &self);
    return self->prompt_.data();
  }

  const EditLibrary& lib_;
  Keys keys_;
  uint32_t interrupts_ = 0;  // the count when the current read began
  uint32_t stops_ = 0;       // the stops seen so far
  EditLine* el_ = nullptr;
  History* history_ = nullptr;
  std::string prompt_;
};

#else

bool can_edit() { return false; }

// Without libedit there is nothing to edit with: the plain reader serves.
class Editor {
 public:
  Editor(std::FILE*, std::FILE*, size_t) {}
  void remember(const std::string&) {}
  ReadStatus read(const std::string&, std::string*) { return ReadStatus::kEnd; }
};

#endif  // KEST_HAVE_LIBEDIT

}  // namespace

struct LineReader {
  LineReaderOptions options;
  std::unique_ptr<Editor> editor;  // null: plain reading
  std::string last_entry;
};

void LineReaderClose::operator()(LineReader* reader) const { delete reader; }

LineReaderPtr line_reader_open(const LineReaderOptions& options) {
  LineReaderPtr reader(new LineReader{options, nullptr, {}});
  if (options.edit && can_edit())
    reader->editor = std::make_unique<Editor>(options.in, options.out, options.history_size);
  if (options.history_path.empty()) return reader;
  std::vector<std::string> entries = history_load(options.history_path);
  if (entries.size() > options.history_size) {
    entries.erase(entries.begin(),
                  entries.end() - static_cast<std::ptrdiff_t>(options.history_size));
    history_rewrite(options.history_path, entries);
  }
  for (const std::string& entry : entries)
    if (reader->editor) reader->editor->remember(entry);
  if (!entries.empty()) reader->last_entry = entries.back();
  return reader;
}

ReadStatus line_reader_read(LineReader* reader, const std::string& prompt, std::string* line) {
  const uint32_t interrupts = platform_interrupt_count();
  ReadStatus status;
  if (reader->editor) {
    status = reader->editor->read(prompt, line);
  } else {
    std::fputs(prompt.c_str(), reader->options.out);
    std::fflush(reader->options.out);
    status = read_plain_line(reader->options.in, line) ? ReadStatus::kLine : ReadStatus::kEnd;
    strip_line_end(line);
  }
  // A read that an interrupt ended looks like the end of the input until the interrupt counts.
  if (status == ReadStatus::kEnd) platform_settle_interrupts();
  if (platform_interrupt_count() != interrupts) {
    // The interrupted read leaves the stream's error flag set; the next read must try again.
    std::clearerr(reader->options.in);
    return ReadStatus::kInterrupted;
  }
  return status;
}

void line_reader_remember(LineReader* reader, std::string_view entry) {
  if (entry.empty() || entry == reader->last_entry) return;
  reader->last_entry = std::string(entry);
  if (reader->editor) reader->editor->remember(reader->last_entry);
  if (!reader->options.history_path.empty()) history_append(reader->options.history_path, entry);
}

bool line_reader_edits(const LineReader* reader) { return reader->editor != nullptr; }

bool line_reader_can_edit() { return can_edit(); }

std::vector<std::string> history_load(const std::string& path) {
  std::vector<std::string> entries;
  std::FILE* file = std::fopen(path.c_str(), "rb");
  if (!file) return entries;
  std::string line;
  while (read_plain_line(file, &line)) {
    strip_line_end(&line);
    if (line.empty()) continue;
    decode_entry(&line);
    entries.push_back(std::move(line));
  }
  std::fclose(file);
  return entries;
}

bool history_append(const std::string& path, std::string_view entry) {
  std::FILE* file = std::fopen(path.c_str(), "ab");
  if (!file) return false;
  const std::string line = encode_entry(entry) + "\n";
  const bool written = std::fwrite(line.data(), 1, line.size(), file) == line.size();
  return std::fclose(file) == 0 && written;
}

bool history_rewrite(const std::string& path, const std::vector<std::string>& entries) {
  std::FILE* file = std::fopen(path.c_str(), "wb");
  if (!file) return false;
  bool written = true;
  for (const std::string& entry : entries) {
    const std::string line = encode_entry(entry) + "\n";
    written = written && std::fwrite(line.data(), 1, line.size(), file) == line.size();
  }
  return std::fclose(file) == 0 && written;
}
