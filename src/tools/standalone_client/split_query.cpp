#include "tools/standalone_client/split_query.h"

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <cstring>

#include "tools/standalone_client/scanner.h"
#include "utils/kest_assert.h"
#include "utils/mem.h"
#include "utils/platform_stdio.h"
#include "utils/str_funcs.h"
#include "utils/znlog.h"

namespace {

constexpr const char* kFacility = nullptr;  // the default facility

// Same classes as the scanner's whitespace, independent of the locale.
inline bool is_space(char c) { return c == ' ' || (c >= '\t' && c <= '\r'); }

// Every byte the scanner consumes lands in the text buffer, and the scanner's origin moves with
// every byte dropped from its front, so positions in the scanner are offsets in the buffer.
void append_byte(sb* b, int c) {
  if (b->length + 1 < b->capacity) {
    b->data[b->length++] = static_cast<char>(c);
    b->data[b->length] = 0;
    return;
  }
  sb_append(b, "%c", c);
}

int32_t file_source_get(void* arg) {
  auto* qs = static_cast<QuerySplitter*>(arg);
  KEST_ASSERT(kFacility, qs->file && !qs->s);
  // The scanner may ask again after the end (it reads one past an unterminated string); a
  // console would then wait for a second end-of-file.
  if (qs->file_ended) return -1;
  const int c = platform_getc_unlocked(qs->file);
  if (c == EOF) {
    qs->file_ended = true;
    qs->read_failed = std::ferror(qs->file) != 0;
    return -1;
  }
  append_byte(qs->text, c);
  return c;
}

QuerySplitter* splitter_alloc() {
  auto* qs = static_cast<QuerySplitter*>(std::calloc(1, sizeof(QuerySplitter)));
  if (!qs) return nullptr;
  qs->ctx = mem_context_create(nullptr, "querysplitter");
  qs->text = sb_create(0);
  qs->scanner_ctx = mem_context_create(qs->ctx, "scanner");
  return qs;
}

// File mode: what lies before `startpos` belongs to statements already handed out (whose texts
// die with this call), so it is dropped. What is kept is the look-ahead byte, at most.
int32_t drop_consumed(QuerySplitter* qs, int32_t startpos) {
  if (!qs->file || startpos <= 0) return startpos;
  const auto n = std::min(static_cast<size_t>(startpos), qs->text->length);
  sb_drop_front(qs->text, n);
  scanner_rebase(qs->lss, static_cast<int32_t>(n));
  return startpos - static_cast<int32_t>(n);
}

}  // namespace

QuerySplitter* query_splitter_create_file(FILE* file) {
  QuerySplitter* qs = splitter_alloc();
  if (!qs) return nullptr;
  qs->file = file;
  qs->lss = scanner_create(qs->scanner_ctx, "file", file_source_get, qs);
  if (!qs->lss) {
    query_splitter_free(qs);
    return nullptr;
  }
  return qs;
}

QuerySplitter* query_splitter_create_string(const char* text) {
  char* copy = nullptr;
  if (text) {
    const size_t length = std::strlen(text);
    if (length >= INT32_MAX) return nullptr;
    copy = static_cast<char*>(std::malloc(length + 1));
    if (!copy) return nullptr;
    std::memcpy(copy, text, length + 1);
  }
  QuerySplitter* qs = splitter_alloc();
  if (!qs) {
    std::free(copy);
    return nullptr;
  }
  qs->s = copy;
  KEST_ASSERT(kFacility, qs->s);
  qs->lss = scanner_create_string(qs->scanner_ctx, qs->s);
  if (!qs->lss) {
    query_splitter_free(qs);
    return nullptr;
  }
  sb_append(qs->text, "%s", qs->s);
  return qs;
}

const char* query_splitter_next(QuerySplitter* qs) {
  for (;;) {
    int32_t startpos = drop_consumed(qs, scanner_position(qs->lss));
    const bool no_token = scanner_get_token(qs->lss) == TOK_END;
    if (!no_token)
      while (scanner_get_token(qs->lss) != TOK_END) {
      }
    const int32_t endpos = scanner_position(qs->lss);
    char* text = qs->text->data;
    const bool semicolon = std::strcmp(qs->lss->yytext, ";") == 0;
    // The look-ahead stands one past the ";", so the ";" itself is at endpos - 1.
    if (semicolon && endpos > 0 && static_cast<size_t>(endpos) <= qs->text->length)
      text[endpos - 1] = 0;
    if (no_token) {
      // A ";" left from the previous statement in front of an unclassifiable character would
      // otherwise make this loop meet that character forever.
      KEST_ASSERT_TEXT(kFacility, !semicolon || endpos > startpos, "*qs->lss->yytext == 0");
      if (semicolon) continue;
      KEST_ASSERT(kFacility, *qs->lss->yytext == 0);
      return nullptr;
    }
    // A statement that a read error cut short is not run as if it were whole.
    if (qs->read_failed && !semicolon) return nullptr;
    while (startpos < endpos && is_space(text[startpos])) ++startpos;
    KEST_ASSERT(kFacility, startpos < endpos);
    ZN_LOG(kFacility, ZN_DEBUG, "next query [%s]", text + startpos);
    return text + startpos;
  }
}

void query_splitter_free(QuerySplitter* qs) {
  if (!qs) return;
  if (qs->ctx) mem_context_destroy(qs->ctx);
  std::free(qs->s);
  if (qs->text) sb_free(qs->text);
  std::free(qs);
}
