#include "utils/str_funcs.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "utils/kest_assert.h"
#include "utils/mem.h"

namespace {
constexpr const char* kFacility = nullptr;  // reports carry the source unit "str_funcs"
char empty_text[1] = {0};
}  // namespace

sb* sb_create(size_t initial) {
  auto* b = static_cast<sb*>(std::calloc(1, sizeof(sb)));
  KEST_ASSERT_TEXT(kFacility, b, "sb");
  b->capacity = initial ? initial : 64;
  b->data = static_cast<char*>(std::malloc(b->capacity));
  KEST_ASSERT_TEXT(kFacility, b->data, "sb->data");
  sb_reset(b);
  return b;
}

void sb_reset(sb* b) {
  KEST_ASSERT_TEXT(kFacility, b, "sb");
  b->length = 0;
  b->data[0] = 0;
}

int sb_vappend(sb* b, const char* format, va_list args) {
  KEST_ASSERT_TEXT(kFacility, b, "sb");
  size_t room = b->capacity - b->length;
  va_list copy;
  va_copy(copy, args);
  int ret = std::vsnprintf(b->data + b->length, room, format, copy);
  va_end(copy);
  while (ret < 0 || static_cast<size_t>(ret) >= room) {
    size_t want = ret < 0 ? 0 : static_cast<size_t>(ret) + b->length + 1;
    size_t size = 2 * b->capacity > want ? 2 * b->capacity : want;
    auto* new_data = static_cast<char*>(std::malloc(size));
    KEST_ASSERT(kFacility, new_data);
    std::memcpy(new_data, b->data, b->length + 1);
    std::free(b->data);
    b->data = new_data;
    b->capacity = size;
    room = size - b->length;
    va_copy(copy, args);
    ret = std::vsnprintf(b->data + b->length, room, format, copy);
    va_end(copy);
    if (ret < 0) break;  // a formatting error, not a lack of room: reported below
  }
  KEST_ASSERT_TEXT(kFacility, ret >= 0 && static_cast<size_t>(ret) < room, "(size_t)ret < size");
  b->length += static_cast<size_t>(ret);
  return ret;
}

int sb_append(sb* b, const char* format, ...) {
  va_list args;
  va_start(args, format);
  int n = sb_vappend(b, format, args);
  va_end(args);
  return n;
}

void sb_drop_front(sb* b, size_t n) {
  KEST_ASSERT_TEXT(kFacility, b, "sb");
  KEST_ASSERT(kFacility, n <= b->length);
  if (n == 0) return;
  std::memmove(b->data, b->data + n, b->length - n + 1);
  b->length -= n;
}

void sb_free(sb* b) {
  KEST_ASSERT_TEXT(kFacility, b, "sb");
  KEST_ASSERT_TEXT(kFacility, b->data, "sb->data");
  std::free(b->data);
  std::free(b);
}

char* str_dup(MemContext* ctx, const char* text, uint32_t flags) {
  size_t n = std::strlen(text) + 1;
  auto* p = static_cast<char*>(mem_malloc(ctx, n, flags));
  if (p) std::memcpy(p, text, n);
  return p;
}

// The printf family here returns the full length when the text does not fit, so one retry at
// that length suffices; a negative result is a formatting error and gives the empty text.
char* str_format(MemContext* ctx, uint32_t flags, const char* format, ...) {
  size_t size = 256;
  auto* block = static_cast<char*>(mem_malloc(ctx, size, flags));
  while (block) {
    va_list args;
    va_start(args, format);
    const int n = std::vsnprintf(block, size, format, args);
    va_end(args);
    if (n < 0) break;
    if (static_cast<size_t>(n) < size) return block;
    size = static_cast<size_t>(n) + 1;
    block = static_cast<char*>(mem_realloc(ctx, block, size, flags & MEM_REALLOC_VALID_FLAGS));
  }
  return empty_text;
}

char* str_tolower(MemContext* ctx, const char* text) {
  const char* p = text;
  while (*p && !(*p >= 'A' && *p <= 'Z')) ++p;
  if (!*p) return const_cast<char*>(text);
  char* copy = str_dup(ctx, text, KEST_MEM_ALLOWFAILURE);
  if (!copy) return nullptr;
  for (char* q = copy; *q; ++q)
    if (*q >= 'A' && *q <= 'Z') *q = static_cast<char>(*q - 'A' + 'a');
  return copy;
}

void* mem_realloc_zero(MemContext* ctx, void* block, size_t new_size, uint32_t flags) {
  const size_t old_size = block ? mem_block_requested_size(block) : 0;
  void* p = mem_realloc(ctx, block, new_size, flags);
  if (p && new_size > old_size && mem_block_area_mode(p) != 1)
    std::memset(static_cast<char*>(p) + old_size, 0, new_size - old_size);
  return p;
}

int str_vbprintf(char* buffer, size_t size, const char* format, va_list args) {
  int n = std::vsnprintf(buffer, size, format, args);
  if (n < 0 || static_cast<size_t>(n) >= size) {
    if (size) buffer[size - 1] = 0;
    return n < 0 ? n : -1;
  }
  return n;
}

int str_bprintf(char* buffer, size_t size, const char* format, ...) {
  va_list args;
  va_start(args, format);
  int n = str_vbprintf(buffer, size, format, args);
  va_end(args);
  return n;
}

long utf8_length_n(const char* text, size_t n) {
  const auto* s = reinterpret_cast<const unsigned char*>(text);
  size_t i = 0;
  while (i < n) {
    unsigned c = s[i++];
    if (c < 128) continue;
    int follow;
    if (c >= 192 && c <= 223)
      follow = 1;
    else if (c >= 224 && c <= 239)
      follow = 2;
    else if (c >= 240 && c <= 247)
      follow = 3;
    else if (c >= 248 && c <= 251)
      follow = 4;
    else if (c >= 252)
      follow = 5;
    else
      return -1;  // a continuation byte cannot lead
    for (int k = 0; k < follow; ++k, ++i)
      if (i >= n || (s[i] & 0xC0) != 0x80) return -1;
  }
  return static_cast<long>(n);
}

long utf8_length(const char* text) { return utf8_length_n(text, std::strlen(text)); }

size_t str_length(const char* text) { return std::strlen(text); }
