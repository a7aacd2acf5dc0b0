#include "tools/refserver/parser.h"

#include <algorithm>
#include <cctype>

#include "tools/refserver/query_error.h"
#include "tools/standalone_client/scanner.h"
#include "utils/context.h"
#include "utils/kest_error.h"
#include "utils/mem.h"

namespace {

struct Token {
  int32_t kind = TOK_END;
  std::string text;
  int line = 1;
  int column = 1;
};

struct StringSource {
  const std::string* text;
  size_t next;
};

int32_t next_char(void* arg) {
  auto* src = static_cast<StringSource*>(arg);
  if (src->next >= src->text->size()) return -1;
  return static_cast<unsigned char>((*src->text)[src->next++]);
}

bool equals_nocase(const std::string& a, const char* b) {
  size_t i = 0;
  for (; i < a.size() && b[i]; ++i) {
    if (std::tolower(static_cast<unsigned char>(a[i])) !=
        std::tolower(static_cast<unsigned char>(b[i])))
      return false;
  }
  return i == a.size() && b[i] == '\0';
}

bool is_word(const Token& t) {
  if (t.kind == TOK_STRING || t.kind == TOK_BAD_TEXT || t.text.empty()) return false;
  const unsigned char c = static_cast<unsigned char>(t.text[0]);
  return std::isalpha(c) || c == '_' || c >= 0x80;
}

// Reads every token of the first statement with its line and column (from 1). The scanner is
// freed with the context's memory.
std::vector<Token> tokenize(QueryContext* ctx, const std::string& text) {
  MemContext* mem = mem_context_create(ctx->mem, "query scanner");
  StringSource src{&text, 0};
  Scanner* scanner = scanner_create(mem, "query", next_char, &src);
  std::vector<Token> tokens;
  size_t line_start = 0;
  int line = 1;
  size_t counted = 0;  // text before this offset is reflected in line/line_start
  auto locate = [&](size_t offset, Token& t) {
    for (; counted < offset && counted < text.size(); ++counted) {
      if (text[counted] == '\n') {
        ++line;
        line_start = counted + 1;
      }
    }
    t.line = line;
    t.column = static_cast<int>(offset - line_start) + 1;
  };
  for (;;) {
    // Past the end (an unterminated string reads its end twice) a token starts at the end.
    size_t start = std::min(static_cast<size_t>(scanner_position(scanner)), text.size());
    while (start < text.size() && std::isspace(static_cast<unsigned char>(text[start]))) ++start;
    Token t;
    t.kind = scanner_get_token(scanner);
    t.text.assign(scanner_text(scanner), static_cast<size_t>(scanner_length(scanner)));
    locate(start, t);
    if (t.kind == TOK_END) {
      if (scanner->unclassified > 0) {
        t.text = std::string(1, text[start]);
        t.kind = TOK_BAD_TEXT;
      }
      tokens.push_back(t);
      break;
    }
    if (tokens.size() == kMaxQueryTokens) {
      mem_context_destroy(mem);
      query_fail(ctx, KEST_ERR_PARSE,
                 {"query", std::to_string(t.line), std::to_string(t.column),
                  "more than " + std::to_string(kMaxQueryTokens) + " tokens"});
    }
    tokens.push_back(std::move(t));
  }
  mem_context_destroy(mem);
  return tokens;
}

class Parser {
 public:
  Parser(QueryContext* ctx, std::vector<Token> tokens) : ctx_(ctx), tokens_(std::move(tokens)) {}

  std::unique_ptr<RelNode> query() {
    auto rel = relation();
    if (peek().kind != TOK_END) error("end of query");
    return rel;
  }

 private:
  const Token& peek() const { return tokens_[pos_ < tokens_.size() ? pos_ : tokens_.size() - 1]; }
  const Token& take() {
    const Token& t = peek();
    if (pos_ < tokens_.size() - 1) ++pos_;
    return t;
  }

  static std::string describe(const Token& t) {
    if (t.kind == TOK_END) return t.text == ";" ? "';'" : "end of input";
    if (t.kind == TOK_BAD_TEXT) return "unreadable text '" + t.text + "'";
    if (t.kind == TOK_STRING) return "string '" + t.text + "'";
    return "'" + t.text + "'";
  }

  [[noreturn]] void error(const std::string& expected) {
    const Token& t = peek();
    query_fail(ctx_, KEST_ERR_PARSE,
               {"query", std::to_string(t.line), std::to_string(t.column),
                "expected " + expected + ", found " + describe(t)});
  }

  // One level of nesting, held while a relation or an expression is parsed. Deeper text than
  // kMaxQueryNesting levels is refused where its next level starts, before any further recursion.
  class Level {
   public:
    explicit Level(Parser* p) : p_(p) {
      if (p_->depth_ >= kMaxQueryNesting) p_->too_deep();
      ++p_->depth_;
    }
    ~Level() { --p_->depth_; }
    Level(const Level&) = delete;
    Level& operator=(const Level&) = delete;

   private:
    Parser* p_;
  };

  [[noreturn]] void too_deep() {
    const Token& t = peek();
    query_fail(ctx_, KEST_ERR_PARSE,
               {"query", std::to_string(t.line), std::to_string(t.column),
                "nesting deeper than " + std::to_string(kMaxQueryNesting) + " levels"});
  }

  void expect(char c) {
    if (peek().kind != static_cast<unsigned char>(c)) error(std::string("'") + c + "'");
    take();
  }
  bool accept(char c) {
    if (peek().kind != static_cast<unsigned char>(c)) return false;
    take();
    return true;
  }
  std::string name() {
    if (!is_word(peek())) error("a name");
    return take().text;
  }

  std::unique_ptr<RelNode> relation() {
    const Level level(this);
    if (!is_word(peek())) error("a relation");
    const Token head = take();
    auto rel = std::make_unique<RelNode>();
    if (equals_nocase(head.text, "array")) {
      rel->kind = RelNode::Kind::array;
    } else if (equals_nocase(head.text, "project")) {
      rel->kind = RelNode::Kind::project;
    } else if (equals_nocase(head.text, "select")) {
      rel->kind = RelNode::Kind::select;
    } else {
      query_fail(ctx_, 13, {head.text});
    }
    expect('(');
    switch (rel->kind) {
      case RelNode::Kind::array:
        array_dims(*rel);
        break;
      case RelNode::Kind::project:
        rel->input = relation();
        expect(',');
        project_items(*rel);
        break;
      case RelNode::Kind::select:
        rel->input = relation();
        expect(',');
        rel->predicate = expr();
        break;
    }
    expect(')');
    return rel;
  }

  void array_dims(RelNode& rel) {
    expect('[');
    do {
      RelNode::Dim d;
      d.name = name();
      expect('=');
      if (peek().kind != TOK_INTEGER) error("a dimension size");
      d.size = take().text;
      rel.dims.push_back(std::move(d));
    } while (accept(','));
    expect(']');
  }

  void project_items(RelNode& rel) {
    expect('[');
    do {
      RelNode::Item item;
      item.name = name();
      if (accept('=')) {
        item.expr = expr();
      } else {
        item.expr.kind = Expr::Kind::column;
        item.expr.text = item.name;
      }
      rel.items.push_back(std::move(item));
    } while (accept(','));
    expect(']');
  }

  Expr expr() {
    const Level level(this);
    const Token& t = peek();
    Expr e;
    e.text = t.text;
    switch (t.kind) {
      case TOK_INTEGER:
        e.kind = Expr::Kind::integer;
        take();
        return e;
      case TOK_DECIMAL:
        e.kind = Expr::Kind::decimal;
        take();
        return e;
      case TOK_STRING:
        e.kind = Expr::Kind::text;
        take();
        return e;
      case TOK_TRUE:
      case TOK_FALSE:
        if (tokens_[pos_ + 1].kind != '(') {
          e.kind = Expr::Kind::boolean;
          take();
          return e;
        }
        break;
      default:
        break;
    }
    const bool word = is_word(t);
    const bool sign = t.kind == TOK_OPERATOR || t.kind == '%';
    if (!word && !sign) error("an expression");
    take();
    if (word && peek().kind != '(') {
      e.kind = Expr::Kind::column;
      return e;
    }
    e.kind = Expr::Kind::call;
    expect('(');
    if (!accept(')')) {
      do e.args.push_back(expr());
      while (accept(','));
      expect(')');
    }
    return e;
  }

  QueryContext* ctx_;
  std::vector<Token> tokens_;
  size_t pos_ = 0;
  int depth_ = 0;  // relations and expressions being parsed, one inside the other
};

}  // namespace

std::unique_ptr<RelNode> parse_query(QueryContext* ctx, const std::string& text) {
  return Parser(ctx, tokenize(ctx, text)).query();
}
