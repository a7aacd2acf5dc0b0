#include "tools/standalone_client/terminal_text.h"

#include <gtest/gtest.h>

#include <string>

namespace {

// Each control character and its stand-in, one column wide; everything else unchanged.
TEST(EscapeControls, ControlsBecomeVisibleStandIns) {
  const struct {
    std::string in, out;
  } cases[] = {
      {"plain text", "plain text"},
      {"line\nend", "line\nend"},  // the line feed stays: the printer's own lines need it
      {"\x1b[31mred", "\xE2\x90\x9B[31mred"},  // ESC -> U+241B
      {std::string("\0", 1), "\xE2\x90\x80"},  // NUL -> U+2400
      {"a\tb\rc\x07",
       "a\xE2\x90\x89"
       "b\xE2\x90\x8D"
       "c\xE2\x90\x87"},
      {"\x1f\x7f", "\xE2\x90\x9F\xE2\x90\xA1"},  // US -> U+241F, DEL -> U+2421
      {"\xC2\x9B"
       "2J",
       "\xEF\xBF\xBD"
       "2J"},  // C1 CSI in UTF-8 -> U+FFFD
      {"\xC2\x80\xC2\x9F", "\xEF\xBF\xBD\xEF\xBF\xBD"},
      {"\xC2\xA0\xC2\xA9", "\xC2\xA0\xC2\xA9"},  // no-break space, copyright: text
      {"\xE2\x94\x82 \xE2\x82\xAC", "\xE2\x94\x82 \xE2\x82\xAC"},
      {"\x9B\xFF", "\x9B\xFF"},  // bytes that are not UTF-8 pass
      {"end\xC2", "end\xC2"},    // a lone lead byte at the end
  };
  for (const auto& c : cases) EXPECT_EQ(escape_controls(c.in), c.out) << c.in;
}

// Text cut into two pieces at every position escapes as the whole does: a C1 control whose
// lead byte ends one piece is still found.
TEST(EscapeControls, PiecesEscapeAsTheWhole) {
  const std::string text =
      "a\xC2\x9B"
      "b\x1b\xC2\xA9\xC2\xC2\x85\n\xE2\x94\x82z\xC2";
  const std::string whole = escape_controls(text);
  for (size_t cut = 0; cut <= text.size(); ++cut) {
    ControlEscaper escaper;
    std::string out;
    escaper.feed(std::string_view(text).substr(0, cut), &out);
    escaper.feed(std::string_view(text).substr(cut), &out);
    escaper.finish(&out);
    EXPECT_EQ(out, whole) << "cut at " << cut;
  }
}

}  // namespace
