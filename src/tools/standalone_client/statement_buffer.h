// The shell's statement buffer: gathers the lines a user types until they complete statements,
// and tells the shell whether a statement is still open (the continuation prompt). Statements are
// cut by the same scanner and splitter as a script, so a ";" inside a string, a here-document or
// a comment does not end one; a statement is complete once the line holding its ";" is entered.
#pragma once

#include <string>
#include <string_view>
#include <vector>

struct MemContext;

// Where the text after the last complete statement stands.
enum class InputState {
  kEmpty,      // nothing begun: only blanks and closed comments
  kStatement,  // a statement has begun and waits for its ";"
  kLiteral,    // inside a quoted string, a here-document or a block comment: a ";" typed now is
               // part of it
};

// True when the scanner can read every byte of `line`: it holds no control character but the
// tab (no escape, no DEL, no NUL). The scanner stops at any other, so the shell refuses such a
// line (what arrow keys type where no line editing is built in) before it reaches the buffer.
bool is_scannable_line(std::string_view line);

class StatementBuffer {
 public:
  StatementBuffer();
  ~StatementBuffer();
  StatementBuffer(const StatementBuffer&) = delete;
  StatementBuffer& operator=(const StatementBuffer&) = delete;

  // Appends `line` (without its line end; one is added) and returns the statements it completed,
  // in order, as the splitter hands them out: leading blanks dropped, the ";" removed, comments
  // kept. The text after the last complete statement stays for the next line; when it holds
  // nothing but blanks and comments it is dropped. REQUIRES: is_scannable_line(line).
  std::vector<std::string> add_line(std::string_view line);

  InputState state() const { return state_; }
  // The text of the open statement as typed (line ends included); empty in kEmpty.
  const std::string& pending() const { return text_; }
  // Forgets the open statement.
  void clear();

 private:
  MemContext* ctx_;  // the scanners' memory, one scanner at a time
  std::string text_;
  InputState state_ = InputState::kEmpty;
};
