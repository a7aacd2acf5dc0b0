#include "tools/standalone_client/statement_buffer.h"

#include <cstring>
#include <memory>

#include "tools/standalone_client/scanner.h"
#include "tools/standalone_client/split_query.h"
#include "utils/mem.h"

namespace {

// The text to scan, then `tail`, then the end of input; read in place, nothing copied.
struct TextSource {
  std::string_view text;
  std::string_view tail;
  size_t next = 0;
};

int32_t text_source_get(void* arg) {
  auto* src = static_cast<TextSource*>(arg);
  const size_t i = src->next;
  if (i < src->text.size()) {
    ++src->next;
    return static_cast<unsigned char>(src->text[i]);
  }
  if (i - src->text.size() < src->tail.size()) {
    ++src->next;
    return static_cast<unsigned char>(src->tail[i - src->text.size()]);
  }
  return -1;
}

struct ScannerOwner {
  Scanner* scanner;
  ~ScannerOwner() { scanner_free(scanner); }
};

bool at_semicolon(const Scanner* s) { return std::strcmp(scanner_text(s), ";") == 0; }

// The offset just past the last ";" that ends a statement in `text`, or 0 when none does.
size_t last_statement_end(MemContext* ctx, std::string_view text) {
  TextSource src{text, {}};
  ScannerOwner owner{scanner_create(ctx, "shell", text_source_get, &src)};
  if (!owner.scanner) return 0;
  size_t end = 0;
  for (;;) {
    if (scanner_get_token(owner.scanner) != TOK_END) continue;
    const auto position = static_cast<size_t>(scanner_position(owner.scanner));
    // A character the scanner cannot read leaves it where it was: never loop on it.
    if (!at_semicolon(owner.scanner) || position <= end) return end;
    end = position;
  }
}

// What `rest` (text without a complete statement) leaves open. A ";" put after it on a line of
// its own tells: it ends the statement when the text is outside every literal, and it is
// swallowed when the text ends inside a string, a here-document or a block comment.
InputState classify(MemContext* ctx, std::string_view rest) {
  TextSource src{rest, "\n;"};
  ScannerOwner owner{scanner_create(ctx, "shell", text_source_get, &src)};
  if (!owner.scanner) return InputState::kStatement;
  const bool begun = scanner_get_token(owner.scanner) != TOK_END;
  if (begun)
    while (scanner_get_token(owner.scanner) != TOK_END) {
    }
  if (!at_semicolon(owner.scanner)) return InputState::kLiteral;
  return begun ? InputState::kStatement : InputState::kEmpty;
}

struct SplitterOwner {
  QuerySplitter* qs;
  ~SplitterOwner() { query_splitter_free(qs); }
};

std::vector<std::string> split(const std::string& text) {
  std::vector<std::string> statements;
  SplitterOwner owner{query_splitter_create_string(text.c_str())};
  if (!owner.qs) return statements;
  while (const char* query = query_splitter_next(owner.qs)) statements.emplace_back(query);
  return statements;
}

}  // namespace

bool is_scannable_line(std::string_view line) {
  for (const char c : line) {
    const auto byte = static_cast<unsigned char>(c);
    if ((byte < 0x20 && byte != '\t') || byte == 0x7F) return false;
  }
  return true;
}

StatementBuffer::StatementBuffer() : ctx_(mem_context_create(nullptr, "shellinput")) {}

StatementBuffer::~StatementBuffer() { mem_context_destroy(ctx_); }

std::vector<std::string> StatementBuffer::add_line(std::string_view line) {
  text_.append(line);
  text_.push_back('\n');
  std::vector<std::string> statements;
  const size_t end = last_statement_end(ctx_, text_);
  if (end > 0) {
    statements = split(text_.substr(0, end));
    text_.erase(0, end);
  }
  state_ = classify(ctx_, text_);
  if (state_ == InputState::kEmpty) text_.clear();
  return statements;
}

void StatementBuffer::clear() {
  text_.clear();
  state_ = InputState::kEmpty;
}
