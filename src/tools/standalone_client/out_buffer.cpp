#include "tools/standalone_client/out_buffer.h"

#include <algorithm>

OutBuffer::OutBuffer(FILE* stream) : stream_(stream), data_(new char[kCapacity]) {}

OutBuffer::~OutBuffer() {
  drain();
  if (escaping_) {
    escaping_->text.clear();
    escaping_->escaper.finish(&escaping_->text);
    std::fwrite(escaping_->text.data(), 1, escaping_->text.size(), stream_);
  }
}

void OutBuffer::escape_controls() { escaping_ = std::make_unique<Escaping>(); }

// A failed write (a closed pipe, a full disk) loses the output; the printer has no way to
// report it and the result must still be consumed, so the bytes are dropped.
void OutBuffer::write(const char* bytes, size_t n) {
  if (!escaping_) {
    std::fwrite(bytes, 1, n, stream_);
    return;
  }
  escaping_->text.clear();
  escaping_->escaper.feed(std::string_view(bytes, n), &escaping_->text);
  std::fwrite(escaping_->text.data(), 1, escaping_->text.size(), stream_);
}

void OutBuffer::drain() {
  if (used_ > 0) write(data_.get(), used_);
  used_ = 0;
}

void OutBuffer::flush() {
  drain();
  std::fflush(stream_);
}

void OutBuffer::append_long(std::string_view text) {
  drain();
  write(text.data(), text.size());
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
