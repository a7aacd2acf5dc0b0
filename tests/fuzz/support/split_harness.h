// The query splitter and the scanner under hostile scripts, in string and file mode; header-only,
// shared by the fuzz target and the replay test. The splitter asserts ("*qs->lss->yytext == 0",
// "startpos < endpos") on scripts it cannot cut; a private scanner replays its decisions over the
// same bytes to predict those aborts (and checks the token stream), and the input is skipped. Any
// other abort is a fault. A script free of NULs and unclassifiable characters must give the same
// queries in string mode and in file mode.
#pragma once

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "fuzz/support/fuzz_common.h"
#include "tools/standalone_client/scanner.h"
#include "tools/standalone_client/split_query.h"
#include "utils/mem.h"

namespace kest_fuzz {

struct ByteSource {
  std::string_view bytes;
  size_t next = 0;
};

inline int32_t byte_source_get(void* arg) {
  auto* src = static_cast<ByteSource*>(arg);
  if (src->next >= src->bytes.size()) return -1;
  return static_cast<unsigned char>(src->bytes[src->next++]);
}

struct SplitPrediction {
  bool must_abort = false;
  bool unclassified = false;  // the scanner met a character no class accepts
  int queries = 0;
  std::string broken;  // a scanner invariant that did not hold
};

inline bool split_space(char c) { return c == ' ' || (c >= '\t' && c <= '\r'); }

// The splitter's loop over a private scanner on `bytes` (the text the splitter's buffer holds).
// Bounded: every round consumes input or ends, except the one case the splitter asserts on.
inline SplitPrediction predict_split(std::string_view bytes) {
  SplitPrediction p;
  MemContext* ctx = mem_context_create(nullptr, "fuzzscanner");
  ByteSource src{bytes};
  Scanner* s = scanner_create(ctx, "file", byte_source_get, &src);
  int32_t last_pos = scanner_position(s);
  auto token = [&]() {
    const int32_t kind = scanner_get_token(s);
    const int32_t pos = scanner_position(s);
    if (s->yytext[s->yyleng] != 0) p.broken = "token text not terminated";
    if (pos < last_pos) p.broken = "scanner position went back";
    last_pos = pos;
    return kind;
  };
  for (;;) {
    int32_t start = scanner_position(s);
    const bool no_token = token() == TOK_END;
    if (!no_token)
      while (token() != TOK_END) {
      }
    const int32_t end = scanner_position(s);
    const bool semicolon = std::strcmp(s->yytext, ";") == 0;
    if (no_token) {
      if (semicolon && end > start) continue;
      p.must_abort = semicolon || *s->yytext != 0;
      break;
    }
    while (start < end && split_space(bytes[static_cast<size_t>(start)])) ++start;
    if (start >= end) {
      p.must_abort = true;
      break;
    }
    ++p.queries;
  }
  p.unclassified = s->unclassified != 0;
  mem_context_destroy(ctx);
  return p;
}

// Takes the queries of `qs` (at most one more than predicted), frees it, and checks the count.
inline std::string split_all(QuerySplitter* qs, const SplitPrediction& p, const std::string& mode,
                             std::vector<std::string>* queries) {
  if (qs == nullptr) return mode + " splitter could not be created";
  for (const char* q; queries->size() <= size_t(p.queries) && (q = query_splitter_next(qs));)
    queries->emplace_back(q);
  query_splitter_free(qs);
  if (queries->size() == size_t(p.queries)) return {};
  return mode + " mode gave " + std::to_string(queries->size()) + " queries, expected " +
         std::to_string(p.queries);
}

// The whole check for one input; empty when it holds, else what went wrong.
inline std::string check_split(const uint8_t* data, size_t size, bool* skipped = nullptr) {
  fuzz_init();
  const std::string_view bytes(reinterpret_cast<const char*>(data), size);
  const std::string text(bytes.substr(0, bytes.find('\0')));  // what string mode sees
  const SplitPrediction as_file = predict_split(bytes);
  const SplitPrediction as_string = predict_split(text);
  if (skipped) *skipped = as_file.must_abort && as_string.must_abort;
  if (!as_file.broken.empty()) return as_file.broken;
  std::vector<std::string> from_string, from_file;
  std::string why;
  if (!as_string.must_abort)
    why = split_all(query_splitter_create_string(text.c_str()), as_string, "string", &from_string);
  std::FILE* f = as_file.must_abort || !why.empty() ? nullptr : std::tmpfile();
  const bool file_run = f != nullptr;
  if (file_run) {
    std::fwrite(bytes.data(), 1, bytes.size(), f);
    std::rewind(f);
    why = split_all(query_splitter_create_file(f), as_file, "file", &from_file);
    std::fclose(f);
  }
  const bool comparable =
      file_run && text.size() == bytes.size() && !as_file.unclassified && !as_string.must_abort;
  if (why.empty() && comparable && from_string != from_file) {
    why = "string and file mode cut differently:";
    for (const auto& q : from_string) why += "\n  s[" + q + "]";
    for (const auto& q : from_file) why += "\n  f[" + q + "]";
  }
  return why;
}

}  // namespace kest_fuzz
