// Text bound for a terminal, made harmless: a value from the server that holds an escape
// sequence must never move the cursor, recolour the screen or retitle the window. Every control
// character but the line feed is replaced by a visible stand-in one column wide, so that a table
// padded by characters stays aligned:
//   C0 controls 0x00-0x1F (tab and carriage return included)  ->  U+2400-U+241F (the control
//                                                                  pictures, "␛" for escape)
//   DEL 0x7F                                                   ->  U+2421 "␡"
//   C1 controls U+0080-U+009F, written in UTF-8 (C2 80-C2 9F)  ->  U+FFFD "�"
// Everything else passes unchanged, bytes that are not UTF-8 included. Only the shell uses this
// (at a terminal); the classic runs keep every byte.
#pragma once

#include <string>
#include <string_view>

// Escapes text that arrives in pieces: a C1 control may be cut between two pieces (its lead
// byte C2 ends one, the control byte starts the next), so a lead byte at the end of a piece is
// held back until the next one tells what it starts.
class ControlEscaper {
 public:
  // Appends the escaped form of `bytes` to `out`.
  void feed(std::string_view bytes, std::string* out);
  // Appends what is held back, unchanged (a text that ends in a lone lead byte).
  void finish(std::string* out);

 private:
  bool held_lead_ = false;  // a C2 ended the last piece and is not written yet
};

// The escaped form of a whole text.
std::string escape_controls(std::string_view text);
