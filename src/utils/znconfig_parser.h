// The settings-file scanner of the configuration store. znconfig_parse_config (znconfig.h) runs
// its state machine over these tokens; the scanner is exposed for that and for tests.
#pragma once

#include <cstddef>
#include <cstdio>

// Token numbers, as they appear in the parser's log lines.
enum ZnConfigToken : int {
  ZNCONFIG_TOKEN_ERROR = 0,
  ZNCONFIG_TOKEN_EQUAL = 1,
  ZNCONFIG_TOKEN_LBRACKET = 2,
  ZNCONFIG_TOKEN_RBRACKET = 3,
  ZNCONFIG_TOKEN_SLASH = 4,
  ZNCONFIG_TOKEN_COMMENT = 5,
  ZNCONFIG_TOKEN_WORD = 10,
  ZNCONFIG_TOKEN_EOL = 12,
  ZNCONFIG_TOKEN_EOF = 13,
};

constexpr size_t ZNCONFIG_BLOCK_SIZE = 4000;  // bytes read from a file at a time
constexpr size_t ZNCONFIG_WORD_MAX = 4000;    // characters in one word

// Scanner over a file or a text. Not copyable; closes its file on destruction.
struct ZnConfigScanner {
  FILE* file = nullptr;
  const char* text = nullptr;  // the source when it is not a file; must outlive the scanner
  char block[ZNCONFIG_BLOCK_SIZE];
  size_t block_len = 0;
  size_t block_pos = 0;
  bool at_end = false;
  char word[ZNCONFIG_WORD_MAX + 1];  // the last word, NUL-terminated
  size_t word_len = 0;

  ZnConfigScanner() = default;
  ZnConfigScanner(const ZnConfigScanner&) = delete;
  ZnConfigScanner& operator=(const ZnConfigScanner&) = delete;
  ~ZnConfigScanner();
};

// Opens `in` (a file path when `is_file`, else the text itself). Returns 0, or errno when the
// file cannot be opened (logged at debug level). Null arguments fail the assertion "in && state".
int znconfig_parser_init(ZnConfigScanner* state, const char* in, int is_file);

// The next token. A word's text is in state->word. `value_mode` makes "/" an ordinary character.
// Words longer than ZNCONFIG_WORD_MAX and quoted words cut off by the end give an error token.
int znconfig_parser_next(ZnConfigScanner* state, bool value_mode);

// Drops the raw characters up to (not including) the next line feed or the end.
void znconfig_parser_skip_line(ZnConfigScanner* state);
