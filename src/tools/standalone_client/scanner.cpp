#include "tools/standalone_client/scanner.h"

#include <array>
#include <climits>
#include <cstdio>
#include <cstring>
#include <string>
#include <string_view>

#include "kernel/ltype.h"
#include "utils/kest_assert.h"
#include "utils/mem.h"
#include "utils/str_funcs.h"

namespace {

enum CharClass : uint8_t { kOther, kSpace, kDigit, kLetter, kPunct };

// Fixed C-locale classes. Bytes 128..255 are letters: UTF-8 text outside strings then scans as
// (part of) a word and is judged by the UTF-8 check, rather than ending the statement as an
// unclassifiable character would.
constexpr std::array<uint8_t, 256> make_classes() {
  std::array<uint8_t, 256> t{};
  for (int c = 0; c < 256; ++c) {
    CharClass k = kOther;
    if (c == ' ' || (c >= '\t' && c <= '\r')) {
      k = kSpace;
    } else if (c >= '0' && c <= '9') {
      k = kDigit;
    } else if ((c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || c >= 128) {
      k = kLetter;
    } else if (c > ' ' && c < 127) {
      k = kPunct;
    }
    t[static_cast<size_t>(c)] = k;
  }
  return t;
}
constexpr std::array<uint8_t, 256> kClasses = make_classes();

inline CharClass char_class(int32_t c) {
  return c < 0 ? kOther : static_cast<CharClass>(kClasses[static_cast<size_t>(c)]);
}
inline bool is_space(int32_t c) { return char_class(c) == kSpace; }
inline bool is_digit(int32_t c) { return char_class(c) == kDigit; }
inline bool is_word_char(int32_t c) {
  const CharClass k = char_class(c);
  return k == kLetter || k == kDigit || c == '_';
}

// Internal result of the operator reader: a comment was skipped, scan on.
constexpr int32_t kComment = INT32_MIN;
constexpr char kBadText[] = "wrong_utf8_val";

int32_t g_extra_count = 0;
const char* const* g_extra_names = nullptr;

struct StringSource {
  const char* text;
  int32_t length;
  int32_t index;
};

int32_t string_source_get(void* arg) {
  auto* src = static_cast<StringSource*>(arg);
  if (src->index >= src->length) return -1;
  return static_cast<unsigned char>(src->text[src->index++]);
}

// Positions are 32-bit: an input is cut after INT32_MAX characters rather than overflow them.
void advance(Scanner* s) {
  if (s->chars_read == INT32_MAX) {
    s->cur = -1;
    return;
  }
  int32_t c;
  if (s->get_char == string_source_get) {  // the common source, without the indirect call
    c = string_source_get(s->get_char_arg);
  } else {
    c = s->get_char(s->get_char_arg);
    if (c < -1 || c > 255) c &= 0xFF;
  }
  // Counts stop at their limit: a long input rebased statement by statement may hold more.
  if (c == '\n') {
    if (s->line < INT32_MAX) ++s->line;
    s->column = 0;
  } else if (s->column < INT32_MAX) {
    ++s->column;
  }
  ++s->chars_read;
  s->cur = c;
}

void text_empty(Scanner* s) {
  s->yyleng = 0;
  s->yytext[0] = 0;
}

void text_append(Scanner* s, int32_t c) {
  if (s->yyleng >= s->yycap - 1) {
    const int64_t wanted = int64_t{s->yycap} * 2;
    const int32_t cap = wanted > INT32_MAX ? INT32_MAX : static_cast<int32_t>(wanted);
    s->yytext = static_cast<char*>(mem_realloc(s->ctx, s->yytext, static_cast<size_t>(cap)));
    s->yycap = cap;
  }
  s->yytext[s->yyleng++] = static_cast<char>(c);
  s->yytext[s->yyleng] = 0;
}

void text_drop_last(Scanner* s, int32_t n) {
  if (s->yyleng < n) {
    text_empty(s);
    return;
  }
  s->yyleng -= n;
  s->yytext[s->yyleng] = 0;
}

void text_set(Scanner* s, std::string_view text) {
  text_empty(s);
  for (char c : text) text_append(s, static_cast<unsigned char>(c));
}

bool valid_utf8(const Scanner* s) {
  return utf8_length_n(s->yytext, static_cast<size_t>(s->yyleng)) >= 0;
}

constexpr unsigned char fold(unsigned char c) { return c >= 'A' && c <= 'Z' ? c | 0x20 : c; }

bool equal_folded(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  for (size_t i = 0; i < a.size(); ++i)
    if (fold(static_cast<unsigned char>(a[i])) != fold(static_cast<unsigned char>(b[i])))
      return false;
  return true;
}

bool is_type_name(std::string_view word) {
  for (uint32_t i = ptype_count(); i-- > 0;) {
    const PhysicalType* t = ptype_get(i);
    if (t && t->name[0] == word[0] &&
        std::string_view(t->name, strnlen(t->name, sizeof t->name)) == word)
      return true;
  }
  return false;
}

bool is_extra_name(std::string_view word) {
  for (int32_t i = 0; i < g_extra_count; ++i)
    if (g_extra_names[i] && equal_folded(word, g_extra_names[i])) return true;
  return false;
}

int32_t classify_word(const Scanner* s) {
  const std::string_view word(s->yytext, static_cast<size_t>(s->yyleng));
  if (int32_t kind = scanner_keyword_kind(word.data(), word.size())) return kind;
  if (is_type_name(word)) return TOK_TYPE_NAME;
  if (is_extra_name(word)) return TOK_EXTRA_NAME;
  return TOK_IDENT;
}

int32_t read_word(Scanner* s) {
  text_empty(s);
  do {
    text_append(s, s->cur);
    advance(s);
  } while (is_word_char(s->cur));
  if (!valid_utf8(s)) {
    text_set(s, kBadText);
    return TOK_BAD_TEXT;
  }
  return classify_word(s);
}

// One decimal point at most, no sign, no exponent: "1.2.3" reads "1.2" and leaves ".3".
int32_t read_number(Scanner* s) {
  int32_t kind = TOK_INTEGER;
  text_empty(s);
  do {
    if (s->cur == '.') kind = TOK_DECIMAL;
    text_append(s, s->cur);
    advance(s);
  } while (is_digit(s->cur) || (s->cur == '.' && kind == TOK_INTEGER));
  return kind;
}

// Reads the character after a string's last one into the look-ahead and checks the text.
int32_t finish_string(Scanner* s) {
  advance(s);
  if (!valid_utf8(s)) {
    text_set(s, kBadText);
    return TOK_BAD_TEXT;
  }
  return TOK_STRING;
}

// Up to `limit` digits of `base` from the look-ahead on; an octal escape also accepts "8" (as
// eight), which is kept on purpose. Returns the number of digits taken.
int read_digits(Scanner* s, uint32_t base, int limit, uint32_t* value) {
  int taken = 0;
  for (; taken < limit; ++taken) {
    const int32_t c = s->cur;
    uint32_t digit;
    if (c >= '0' && c <= '9') {
      digit = static_cast<uint32_t>(c - '0');
    } else if (base == 16 && c >= 'a' && c <= 'f') {
      digit = static_cast<uint32_t>(c - 'a' + 10);
    } else if (base == 16 && c >= 'A' && c <= 'F') {
      digit = static_cast<uint32_t>(c - 'A' + 10);
    } else {
      break;
    }
    if (base == 8 && digit > 8) break;
    *value = *value * base + digit;
    advance(s);
  }
  return taken;
}

// Values of 128 and more as UTF-8 of up to six bytes (31 bits; a 32nd bit is dropped).
void append_utf8(Scanner* s, uint32_t v) {
  if (v < 0x80) {
    text_append(s, static_cast<int32_t>(v));
    return;
  }
  int follow;
  uint32_t lead;
  if (v < 0x800) {
    follow = 1, lead = 0xC0;
  } else if (v < 0x10000) {
    follow = 2, lead = 0xE0;
  } else if (v < 0x200000) {
    follow = 3, lead = 0xF0;
  } else if (v < 0x4000000) {
    follow = 4, lead = 0xF8;
  } else {
    follow = 5, lead = 0xFC;
    v &= 0x7FFFFFFF;
  }
  text_append(s, static_cast<int32_t>(lead | (v >> (6 * follow))));
  for (int i = follow - 1; i >= 0; --i)
    text_append(s, static_cast<int32_t>(0x80 | ((v >> (6 * i)) & 0x3F)));
}

// The look-ahead is the character after a backslash.
void read_escape(Scanner* s) {
  const int32_t e = s->cur;
  uint32_t value = 0;
  switch (e) {
    case -1:
      return;
    case '0':
      advance(s);
      read_digits(s, 8, 3, &value);
      text_append(s, static_cast<int32_t>(value & 0xFF));
      return;
    case 'x':
    case 'u':
      advance(s);
      if (read_digits(s, 16, e == 'x' ? 2 : 8, &value) == 0) {
        text_append(s, e);
      } else if (e == 'x') {
        text_append(s, static_cast<int32_t>(value));
      } else {
        append_utf8(s, value);
      }
      return;
    default:
      break;
  }
  static constexpr std::string_view kFrom = "nrtabfv";
  static constexpr std::string_view kTo = "\n\r\t\a\b\f\v";
  const size_t at = kFrom.find(static_cast<char>(e));
  text_append(s, at == std::string_view::npos ? e : static_cast<unsigned char>(kTo[at]));
  advance(s);
}

int32_t read_quoted(Scanner* s) {
  text_empty(s);
  advance(s);
  while (s->cur != -1 && s->cur != '\'') {
    if (s->cur == '\\') {
      advance(s);
      read_escape(s);
    } else {
      text_append(s, s->cur);
      advance(s);
    }
  }
  return finish_string(s);
}

// Delimiter matching starts only right after a newline read in the body; a mismatch stops it
// until the next newline read while not matching.
void read_here_body(Scanner* s, std::string_view delimiter) {
  bool matching = false;
  size_t matched = 0;
  for (;;) {
    advance(s);
    const int32_t c = s->cur;
    if (c == -1) return;
    if (matching) {
      if (static_cast<unsigned char>(delimiter[matched]) == c) {
        if (++matched == delimiter.size()) {
          text_drop_last(s, static_cast<int32_t>(matched - 1));
          return;
        }
      } else {
        matching = false;
      }
    } else if (c == '\n') {
      matching = true;
      matched = 0;
    }
    text_append(s, c);
  }
}

// The look-ahead is the third character of the opener; the rest of its line, newline included,
// is the delimiter.
// The delimiter is gathered in the token text and copied into the scanner's context, so that
// running out of memory takes the context's path instead of throwing.
int32_t read_here_document(Scanner* s) {
  text_empty(s);
  advance(s);
  while (s->cur != -1) {
    text_append(s, s->cur);
    if (s->cur == '\n') break;
    advance(s);
  }
  const auto length = static_cast<size_t>(s->yyleng);
  auto* delimiter = static_cast<char*>(mem_malloc(s->ctx, length + 1, 0));
  std::memcpy(delimiter, s->yytext, length);
  text_empty(s);
  if (s->cur != -1) read_here_body(s, std::string_view(delimiter, length));
  mem_free(s->ctx, delimiter);
  return finish_string(s);
}

void skip_line(Scanner* s) {
  while (s->cur != '\n' && s->cur != -1) advance(s);
}

// The look-ahead is the first character after "/*".
void skip_block(Scanner* s) {
  bool star = false;
  while (s->cur != -1) {
    const int32_t c = s->cur;
    advance(s);
    if (star && c == '/') return;
    star = c == '*';
  }
}

// "!", "<", ">" already taken; "<<<" and, on purpose, "<=<" open a here-document.
int32_t read_comparison(Scanner* s, int32_t c) {
  const int32_t c2 = s->cur;
  if (c2 == '=' || (c2 == c && c != '!')) {
    text_append(s, c2);
    advance(s);
    if (c == '<' && s->cur == '<') return read_here_document(s);
  }
  return TOK_OPERATOR;
}

int32_t read_operator(Scanner* s) {
  const int32_t c = s->cur;
  text_empty(s);
  text_append(s, c);
  advance(s);
  switch (c) {
    case '!':
    case '<':
    case '>':
      return read_comparison(s, c);
    case '#':
      skip_line(s);
      return kComment;
    case '/':
      if (s->cur == '/') {
        skip_line(s);
        return kComment;
      }
      if (s->cur == '*') {
        advance(s);
        skip_block(s);
        return kComment;
      }
      return TOK_OPERATOR;
    case '&':
    case '|':
    case '=':
      if (s->cur == c) {
        text_append(s, c);
        advance(s);
        return TOK_OPERATOR;
      }
      return c == '=' ? TOK_ASSIGN : TOK_OPERATOR;
    case '*':
    case '+':
    case '-':
    case '^':
      return TOK_OPERATOR;
    default:
      return c;  // brackets, comma, dot and the like, "}" and "~" too
  }
}

int32_t next_token(Scanner* s) {
  for (;;) {
    if (s->cur == -1) {
      text_empty(s);
      return TOK_END;
    }
    while (s->cur == ';' || is_space(s->cur)) {
      if (s->cur == ';') {
        text_set(s, ";");
        advance(s);
        return TOK_END;
      }
      advance(s);
      if (s->cur == -1) {
        text_empty(s);
        return TOK_END;
      }
    }
    switch (char_class(s->cur)) {
      case kDigit:
        return read_number(s);
      case kLetter:
        return read_word(s);
      case kPunct: {
        if (s->cur == '\'') return read_quoted(s);
        if (s->cur == '_') return read_word(s);
        const int32_t kind = read_operator(s);
        if (kind != kComment) return kind;
        break;
      }
      default:
        std::fputs("get_token() error?\n", stdout);
        ++s->unclassified;
        return TOK_END;
    }
  }
}

}  // namespace

Scanner* scanner_create(MemContext* ctx, const char* source_name, ScannerCharSource get_char,
                        void* arg) {
  auto* s = static_cast<Scanner*>(mem_zalloc(ctx, sizeof(Scanner), KEST_MEM_ALLOWFAILURE));
  if (!s) return nullptr;
  constexpr int32_t kInitialCapacity = 16;
  s->yytext = static_cast<char*>(mem_malloc(ctx, kInitialCapacity, KEST_MEM_ALLOWFAILURE));
  if (!s->yytext) {
    mem_free(ctx, s);
    return nullptr;
  }
  s->yytext[0] = 0;
  s->yycap = kInitialCapacity;
  s->ctx = ctx;
  s->source_name = source_name;
  s->get_char = get_char;
  s->get_char_arg = arg;
  advance(s);
  return s;
}

Scanner* scanner_create_string(MemContext* ctx, const char* text) {
  if (!text) return nullptr;
  const size_t length = std::strlen(text);
  if (length >= INT32_MAX) return nullptr;
  auto* src =
      static_cast<StringSource*>(mem_zalloc(ctx, sizeof(StringSource), KEST_MEM_ALLOWFAILURE));
  char* copy = static_cast<char*>(mem_malloc(ctx, length + 1, KEST_MEM_ALLOWFAILURE));
  Scanner* s = nullptr;
  if (src && copy) {
    std::memcpy(copy, text, length + 1);
    *src = {copy, static_cast<int32_t>(length), 0};
    s = scanner_create(ctx, "StringBuffer", string_source_get, src);
  }
  if (!s) {
    mem_free(ctx, copy);
    mem_free(ctx, src);
  }
  return s;
}

void scanner_free(Scanner* s) {
  if (!s) return;
  if (s->get_char == string_source_get) {
    auto* src = static_cast<StringSource*>(s->get_char_arg);
    mem_free(s->ctx, const_cast<char*>(src->text));
    mem_free(s->ctx, src);
  }
  mem_free(s->ctx, s->yytext);
  mem_free(s->ctx, s);
}

void scanner_rebase(Scanner* s, int32_t n) {
  KEST_ASSERT(nullptr, n >= 0 && n <= scanner_position(s));
  s->chars_read -= n;
}

int32_t scanner_get_token(Scanner* s) {
  s->last_token = next_token(s);
  return s->last_token;
}

void scanner_set_extra_names(int32_t count, const char* const* names) {
  g_extra_count = names ? count : 0;
  g_extra_names = names;
}
