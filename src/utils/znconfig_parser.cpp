// The settings-file scanner and the parser's state machine.
#include "utils/znconfig_parser.h"

#include <cerrno>
#include <cstring>
#include <memory>

#include "utils/kest_assert.h"
#include "utils/property.h"
#include "utils/znconfig.h"
#include "utils/znlog.h"

namespace {

constexpr const char* kFacility = "ZNCONFIG";

// The current character without consuming it; 0 at the end of the text (a NUL byte ends it too).
unsigned char peek(ZnConfigScanner* s) {
  if (s->text) return static_cast<unsigned char>(*s->text);
  if (s->block_pos == s->block_len) {
    if (s->at_end) return 0;
    s->block_len = std::fread(s->block, 1, sizeof s->block, s->file);
    s->block_pos = 0;
    if (s->block_len < sizeof s->block) {
      s->at_end = true;
      if (std::ferror(s->file))
        ZN_LOG(kFacility, ZN_ERROR, "znconfig_parser_read: error reading from file: %s",
               std::strerror(errno));
    }
    if (s->block_len == 0) return 0;
  }
  return static_cast<unsigned char>(s->block[s->block_pos]);
}

void advance(ZnConfigScanner* s) {
  if (s->text) {
    if (*s->text) ++s->text;
  } else if (s->block_pos < s->block_len) {
    ++s->block_pos;
  }
}

bool is_separator(unsigned char c) { return c == '\t' || c == '\r' || c == ' '; }

bool ends_word(unsigned char c, bool value_mode) {
  switch (c) {
    case 0:
    case '\t':
    case '\r':
    case ' ':
    case '\n':
    case '"':
    case '#':
    case ',':
    case '=':
    case '[':
    case ']':
      return true;
    case '/':
      return !value_mode;
    default:
      return false;
  }
}

bool add_char(ZnConfigScanner* s, unsigned char c) {
  if (s->word_len == ZNCONFIG_WORD_MAX) {
    ZN_LOG(kFacility, ZN_WARN, "znconfig_add_char: string longer than buffer (%d bytes)",
           static_cast<int>(ZNCONFIG_WORD_MAX));
    return false;
  }
  s->word[s->word_len++] = static_cast<char>(c);
  s->word[s->word_len] = '\0';
  return true;
}

int scan_quoted(ZnConfigScanner* s) {
  advance(s);  // the opening quote
  for (;;) {
    const unsigned char c = peek(s);
    if (c == 0) {
      ZN_LOG(kFacility, ZN_WARN, "znconfig_parser_next: EOF while in string");
      return ZNCONFIG_TOKEN_ERROR;
    }
    advance(s);
    if (c == '"') return ZNCONFIG_TOKEN_WORD;
    if (!add_char(s, c)) return ZNCONFIG_TOKEN_ERROR;
  }
}

int scan_word(ZnConfigScanner* s, bool value_mode) {
  for (unsigned char c = peek(s); !ends_word(c, value_mode); c = peek(s)) {
    if (!add_char(s, c)) return ZNCONFIG_TOKEN_ERROR;
    advance(s);
  }
  return ZNCONFIG_TOKEN_WORD;
}

int single(ZnConfigScanner* s, int token) {
  advance(s);
  return token;
}

}  // namespace

ZnConfigScanner::~ZnConfigScanner() {
  if (file) std::fclose(file);
}

int znconfig_parser_init(ZnConfigScanner* state, const char* in, int is_file) {
  KEST_ASSERT(kFacility, in && state);
  if (!is_file) {
    state->text = in;
    return 0;
  }
  ZN_LOG(kFacility, ZN_DEBUG, "znconfig_parser_init for file '%s'", in);
  state->file = std::fopen(in, "rb");
  if (!state->file) {
    const int err = errno;
    ZN_LOG(kFacility, ZN_DEBUG, "znconfig_parser_init: error opening file '%s': %s", in,
           std::strerror(err));
    return err;
  }
  ZN_LOG(kFacility, ZN_INFO, "Reading configuration from '%s'", in);
  return 0;
}

int znconfig_parser_next(ZnConfigScanner* s, bool value_mode) {
  s->word_len = 0;
  s->word[0] = '\0';
  while (is_separator(peek(s))) advance(s);
  const unsigned char c = peek(s);
  switch (c) {
    case 0:
      return ZNCONFIG_TOKEN_EOF;
    case '\n':
    case ',':
      return single(s, ZNCONFIG_TOKEN_EOL);
    case '=':
      return single(s, ZNCONFIG_TOKEN_EQUAL);
    case '[':
      return single(s, ZNCONFIG_TOKEN_LBRACKET);
    case ']':
      return single(s, ZNCONFIG_TOKEN_RBRACKET);
    case '"':
      return scan_quoted(s);
    case '#':
      znconfig_parser_skip_line(s);
      return ZNCONFIG_TOKEN_COMMENT;
    case '/':
      if (!value_mode) return single(s, ZNCONFIG_TOKEN_SLASH);
      return scan_word(s, value_mode);
    default:
      return scan_word(s, value_mode);
  }
}

void znconfig_parser_skip_line(ZnConfigScanner* s) {
  for (unsigned char c = peek(s); c != 0 && c != '\n'; c = peek(s)) advance(s);
}

// ---- The state machine ------------------------------------------------------------------------

namespace {

enum class Mode { kNone, kKey, kValue, kGroup };

// "Expected" uses the token numbers; nothing expected is 0.
constexpr int kExpectNothing = 0;

struct ParseState {
  ConfigLayer* layer;
  ZnConfigScanner scanner;
  int line = 1;
  int expect = kExpectNothing;
  Mode mode = Mode::kNone;
  int gid = 0;
  bool in_group = false;          // a group was named, valid or not; keys then go to `gid`
  const Property* key = nullptr;  // the key's node in the defaults layer, when known
  char key_text[ZNCONFIG_WORD_MAX + 1] = "";
  char group_text[ZNCONFIG_WORD_MAX + 1] = "";
  int errors = 0;

  void forget_line() {
    expect = kExpectNothing;
    mode = Mode::kNone;
    key = nullptr;
  }
};

const char* group_name(const ParseState& st) {
  for (const Property* g = st.layer->schema->groups; g; g = g->next)
    if (g->val[0].lng == st.gid) return g->name;
  return st.group_text;
}

void on_group_name(ParseState& st, const char* word) {
  Property* g = property_find(st.layer->schema->groups, word);
  st.in_group = true;
  st.gid = g ? static_cast<int>(g->val[0].lng) : 0;
  if (!g) {
    ZN_LOG(kFacility, ZN_WARN, "znconfig_parse_config: invalid group '%s' on line %d", word,
           st.line);
    ++st.errors;
  }
}

void on_key(ParseState& st) {
  Property* defaults = znconfig_defaults(st.layer)->props[st.gid];
  st.key = property_find(defaults, st.key_text);
  if (!st.key) {
    ZN_LOG(kFacility, ZN_WARN, "znconfig_parse_config: invalid key '%s' on line %d", st.key_text,
           st.line);
    ++st.errors;
  }
}

void on_value(ParseState& st, const char* word) {
  // The node's name is stored, not the scanner's buffer, which the next token overwrites.
  if (st.key && !znconfig_set_from_string(st.layer, st.key->name, st.gid, word, st.key->tpe))
    ZN_LOG(kFacility, ZN_WARN,
           "znconfig_parse_config: '%s' is an invalid value for key '%s' in group '%s'.", word,
           st.key->name, group_name(st));
}

void on_word(ParseState& st) {
  const char* word = st.scanner.word;
  switch (st.mode) {
    case Mode::kGroup:
      std::memcpy(st.group_text, word, st.scanner.word_len + 1);
      st.expect = ZNCONFIG_TOKEN_RBRACKET;
      return;
    case Mode::kValue:
      on_value(st, word);
      st.mode = Mode::kNone;
      st.expect = ZNCONFIG_TOKEN_EOL;
      return;
    case Mode::kNone:
      // The first word of a line may turn out to be a group name, should "/" follow it.
      std::memcpy(st.group_text, word, st.scanner.word_len + 1);
      [[fallthrough]];
    case Mode::kKey:
      std::memcpy(st.key_text, word, st.scanner.word_len + 1);
      st.expect = st.in_group ? ZNCONFIG_TOKEN_EQUAL : ZNCONFIG_TOKEN_SLASH;
      return;
  }
}

void on_mismatch(ParseState& st, int token) {
  ZN_LOG(kFacility, ZN_WARN,
         "znconfig_parse_config: found token %d on line %d while expecting %d, skipping rest of "
         "line",
         token, st.line, st.expect);
  znconfig_parser_skip_line(&st.scanner);
  st.forget_line();
}

// Reported under the number of the line the EOL ends.
void on_eol(ParseState& st) {
  if (st.expect != kExpectNothing && st.expect != ZNCONFIG_TOKEN_EOL) {
    ZN_LOG(kFacility, ZN_WARN,
           "znconfig_parse_config: found token %d on line %d while expecting %d, skipping rest "
           "of line",
           ZNCONFIG_TOKEN_EOL, st.line, st.expect);
    ZN_LOG(kFacility, ZN_WARN, "znconfig_parse_config: unexpected EOL on line %d", st.line);
    ++st.errors;
  }
  ++st.line;
  st.forget_line();
}

// One token; false at the end of the text.
bool step(ParseState& st, int token) {
  const bool first_word_of_line = st.mode == Mode::kNone && st.expect != kExpectNothing;
  switch (token) {
    case ZNCONFIG_TOKEN_EOF:
      if (st.expect != kExpectNothing && st.expect != ZNCONFIG_TOKEN_EOL) {
        ZN_LOG(kFacility, ZN_WARN, "znconfig_parse_config: unexpected end of config");
        ++st.errors;
      }
      return false;
    case ZNCONFIG_TOKEN_ERROR:
      ZN_LOG(kFacility, ZN_WARN, "znconfig_parse_config: unimplemented token %d", token);
      ++st.errors;
      return true;
    case ZNCONFIG_TOKEN_COMMENT:
      return true;
    case ZNCONFIG_TOKEN_EOL:
      on_eol(st);
      return true;
    case ZNCONFIG_TOKEN_LBRACKET:
      if (st.expect != kExpectNothing) break;
      st.mode = Mode::kGroup;
      st.expect = ZNCONFIG_TOKEN_WORD;
      return true;
    case ZNCONFIG_TOKEN_WORD:
      if (st.expect != kExpectNothing && st.expect != ZNCONFIG_TOKEN_WORD) break;
      on_word(st);
      return true;
    case ZNCONFIG_TOKEN_RBRACKET:
      if (st.expect != ZNCONFIG_TOKEN_RBRACKET) break;
      on_group_name(st, st.group_text);
      st.mode = Mode::kNone;
      st.expect = ZNCONFIG_TOKEN_EOL;
      return true;
    case ZNCONFIG_TOKEN_SLASH:
      // "group/key" is accepted as a line's start even while a group is current.
      if (st.expect != ZNCONFIG_TOKEN_SLASH &&
          !(first_word_of_line && st.expect == ZNCONFIG_TOKEN_EQUAL))
        break;
      on_group_name(st, st.group_text);
      st.mode = Mode::kKey;
      st.expect = ZNCONFIG_TOKEN_WORD;
      return true;
    case ZNCONFIG_TOKEN_EQUAL:
      if (st.expect == ZNCONFIG_TOKEN_SLASH) {
        ZN_LOG(kFacility, ZN_WARN,
               "znconfig_parse_config: key '%s' on line %d while not in any group", st.key_text,
               st.line);
        ++st.errors;
        // The value that follows belongs to no group either; one report per line is enough.
        znconfig_parser_skip_line(&st.scanner);
        st.forget_line();
        return true;
      }
      if (st.expect != ZNCONFIG_TOKEN_EQUAL) break;
      on_key(st);
      st.mode = Mode::kValue;
      st.expect = ZNCONFIG_TOKEN_WORD;
      return true;
    default:
      break;
  }
  on_mismatch(st, token);
  return true;
}

}  // namespace

int znconfig_parse_config(ConfigLayer* config, const char* source, int is_file) {
  KEST_ASSERT(kFacility, config);
  auto st = std::make_unique<ParseState>();
  st->layer = config;
  const int err = znconfig_parser_init(&st->scanner, source, is_file);
  if (err != 0) return err;
  while (step(*st, znconfig_parser_next(&st->scanner, st->mode == Mode::kValue))) {
  }
  return st->errors;
}
