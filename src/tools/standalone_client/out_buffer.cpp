#include "tools/standalone_client/out_buffer.h"

#include <algorithm>

OutBuffer::OutBuffer(FILE* stream) : stream_(stream), data_(new char[kCapacity]) {}

OutBuffer::~OutBuffer() { drain(); }

void OutBuffer::drain() {
  // A failed write (a closed pipe, a full disk) loses the output; the printer has no way to
  // report it and the result must still be consumed, so the bytes are dropped.
  if (used_ > 0) std::fwrite(data_.get(), 1, used_, stream_);
  used_ = 0;
}

void OutBuffer::flush() {
  drain();
  std::fflush(stream_);
}

void OutBuffer::append_long(std::string_view text) {
  drain();
  std::fwrite(text.data(), 1, text.size(), stream_);
}

void OutBuffer::append_fill(char c, size_t n) {
  while (n > 0) {
    size_t chunk = std::min(n, kCapacity);
    std::memset(reserve(chunk), c, chunk);
    commit(chunk);
    n -= chunk;
  }
}

void OutBuffer::append_repeat(std::string_view text, size_t n) {
  for (size_t i = 0; i < n; ++i) append(text);
}
