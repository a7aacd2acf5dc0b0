// A fixed output buffer in front of a stdio stream: small appends land in memory and reach the
// stream in large fwrite blocks. The printer writes every byte of a result through one of these.
#pragma once

#include <cstddef>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>

#include "tools/standalone_client/terminal_text.h"

class OutBuffer {
 public:
  static constexpr size_t kCapacity = 64 * 1024;

  // Allocates the buffer (throws std::bad_alloc). `stream` is borrowed and must outlive this.
  explicit OutBuffer(FILE* stream);
  // Writes out what is pending, without flushing the stream.
  ~OutBuffer();
  OutBuffer(const OutBuffer&) = delete;
  OutBuffer& operator=(const OutBuffer&) = delete;

  // Returns room for `n` contiguous bytes, writing pending bytes out first when needed.
  // REQUIRES: n <= kCapacity. The bytes count only once commit() is called.
  char* reserve(size_t n) {
    if (kCapacity - used_ < n) drain();
    return data_.get() + used_;
  }
  void commit(size_t n) { used_ += n; }

  // Cursor access for hot loops, which keep the write position in a local pointer:
  //   char* w = out.cursor();  ...  w = out.make_room(w, n);  write at most n bytes at w ...
  //   out.advance_to(w);
  // No other call may come between cursor() and advance_to().
  char* cursor() { return data_.get() + used_; }
  void advance_to(char* position) { used_ = static_cast<size_t>(position - data_.get()); }
  // Returns `position` when n bytes fit after it, else writes out everything before it and
  // returns the start of the emptied buffer. REQUIRES: n <= kCapacity.
  char* make_room(char* position, size_t n) {
    if (static_cast<size_t>(data_.get() + kCapacity - position) >= n) return position;
    advance_to(position);
    drain();
    return data_.get();
  }

  void append(std::string_view text) {
    if (text.size() > kCapacity - used_) {
      if (text.size() > kCapacity) return append_long(text);
      drain();
    }
    std::memcpy(data_.get() + used_, text.data(), text.size());
    used_ += text.size();
  }
  void append_fill(char c, size_t n);
  void append_repeat(std::string_view text, size_t n);

  // Writes pending bytes to the stream and flushes the stream.
  void flush();
  // Writes pending bytes to the stream (one fwrite).
  void drain();

  size_t pending() const { return used_; }

  // From now on every byte goes to the stream through a ControlEscaper (terminal_text.h): for a
  // terminal that the text must not drive. Costs nothing per append; each block is scanned once
  // as it is written out.
  void escape_controls();

 private:
  void append_long(std::string_view text);
  void write(const char* bytes, size_t n);

  FILE* stream_;
  std::unique_ptr<char[]> data_;
  size_t used_ = 0;
  struct Escaping {
    ControlEscaper escaper;
    std::string text;  // the escaped block, reused
  };
  std::unique_ptr<Escaping> escaping_;  // null: bytes are written as they are
};
