// The scanner of the algebra language: turns a character source into tokens (kinds in
// scanner_keywords.h). It knows statements only as far as ";" ends one: get-token returns
// TOK_END for ";", for the end of input and for a character it cannot classify.
//
// Characters are classified by fixed C-locale rules, whatever the process locale. Bytes 128..255
// count as letters, so UTF-8 text outside strings reads as part of a word (and a word or string
// that is not well-formed UTF-8 becomes TOK_BAD_TEXT) instead of stopping the scanner.
#pragma once

#include <cstdint>

#include "tools/standalone_client/scanner_keywords.h"

struct MemContext;

// Returns the next byte of the input as 0..255, or -1 at the end of input. It may be called again
// after the end and must then keep returning -1.
using ScannerCharSource = int32_t (*)(void* arg);

// The scanner state. Read it through the functions below; the fields are public so that owners
// can inspect the token text in place.
struct Scanner {
  void* owner;              // free for the creator's use
  MemContext* ctx;          // holds this record, the token text and a string source
  const char* source_name;  // "file", "StringBuffer" or the creator's name, for messages
  int32_t line;             // newlines read so far (stops at INT32_MAX)
  int32_t column;           // characters read since the last newline (stops at INT32_MAX)
  int32_t chars_read;       // character-source calls, end-of-input ones too, since the origin
  int32_t last_token;       // kind returned by the last get-token
  char* yytext;             // token text, always NUL-terminated (may hold NULs from escapes)
  int32_t yyleng;           // token length in bytes
  int32_t yycap;            // bytes allocated for yytext
  int32_t cur;              // look-ahead character, -1 at end of input
  ScannerCharSource get_char;
  void* get_char_arg;
  int32_t unclassified;  // times get-token stopped at a character no class accepts
};

// Creates a scanner in `ctx` (which must outlive it) and reads the first character into the
// look-ahead at once. `source_name` is not copied. Null when `ctx` cannot supply the memory.
Scanner* scanner_create(MemContext* ctx, const char* source_name, ScannerCharSource get_char,
                        void* arg);
// A scanner over a copy of `text` (made in `ctx`; the caller's string is not kept), source name
// "StringBuffer". REQUIRES: text != null and shorter than 2^31 - 1 bytes.
Scanner* scanner_create_string(MemContext* ctx, const char* text);
// Releases the scanner's blocks in its context; null is ignored. Destroying the context does the
// same.
void scanner_free(Scanner* scanner);

// Reads the next token and returns its kind; its text is then in scanner_text(). On TOK_END the
// text is ";" after a semicolon, empty at the end of input, and unchanged after an
// unclassifiable character, which also prints "get_token() error?\n" on standard output and
// stays unread (so asking again meets it again).
int32_t scanner_get_token(Scanner* scanner);

inline const char* scanner_text(const Scanner* s) { return s->yytext; }
inline int32_t scanner_length(const Scanner* s) { return s->yyleng; }
inline int32_t scanner_line(const Scanner* s) { return s->line; }
inline int32_t scanner_column(const Scanner* s) { return s->column; }
inline int32_t scanner_chars_read(const Scanner* s) { return s->chars_read; }
// Index, in the text consumed so far (counted from the origin), of the look-ahead character.
inline int32_t scanner_position(const Scanner* s) { return s->chars_read - 1; }
inline int32_t scanner_lookahead(const Scanner* s) { return s->cur; }
// Moves the origin of positions `n` characters forward, for an owner that keeps the consumed
// text and discards its first `n` bytes: positions then stay offsets in what it kept. Positions
// are 32-bit, and an input is cut (reads as ended) once its position reaches INT32_MAX - 1, so an
// owner that rebases at every statement limits a statement, not the whole input.
// REQUIRES: 0 <= n <= scanner_position(s).
void scanner_rebase(Scanner* s, int32_t n);

// The extra registered names, tried after keywords and type names (kind TOK_EXTRA_NAME,
// ASCII case-insensitive). The array and its strings are not copied and must outlive every
// scanner; set it before scanning starts, from one thread. A count of 0 empties the table.
void scanner_set_extra_names(int32_t count, const char* const* names);
