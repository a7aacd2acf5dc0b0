#include "tools/standalone_client/terminal_text.h"

namespace {

constexpr unsigned char kLead = 0xC2;                      // the lead byte of U+0080-U+00BF
constexpr std::string_view kReplacement = "\xEF\xBF\xBD";  // U+FFFD

bool is_c0_or_del(unsigned char c) { return (c < 0x20 && c != '\n') || c == 0x7F; }
bool is_c1_tail(unsigned char c) { return c >= 0x80 && c <= 0x9F; }

// The control picture of a C0 control or DEL, in UTF-8: U+2400 + c, or U+2421 for DEL.
void append_picture(unsigned char c, std::string* out) {
  const unsigned code = c == 0x7F ? 0x2421 : 0x2400 + c;
  out->push_back(static_cast<char>(0xE0 | (code >> 12)));
  out->push_back(static_cast<char>(0x80 | ((code >> 6) & 0x3F)));
  out->push_back(static_cast<char>(0x80 | (code & 0x3F)));
}

}  // namespace

void ControlEscaper::feed(std::string_view bytes, std::string* out) {
  size_t i = 0;
  if (held_lead_ && !bytes.empty()) {
    held_lead_ = false;
    if (is_c1_tail(static_cast<unsigned char>(bytes[0]))) {
      out->append(kReplacement);
      i = 1;
    } else {
      out->push_back(static_cast<char>(kLead));
    }
  }
  size_t run = i;  // start of the bytes not yet copied
  for (; i < bytes.size(); ++i) {
    const auto c = static_cast<unsigned char>(bytes[i]);
    if (is_c0_or_del(c)) {
      out->append(bytes.substr(run, i - run));
      append_picture(c, out);
      run = i + 1;
    } else if (c == kLead) {
      if (i + 1 == bytes.size()) {
        out->append(bytes.substr(run, i - run));
        held_lead_ = true;
        return;
      }
      if (is_c1_tail(static_cast<unsigned char>(bytes[i + 1]))) {
        out->append(bytes.substr(run, i - run));
        out->append(kReplacement);
        ++i;
        run = i + 1;
      }
    }
  }
  out->append(bytes.substr(run));
}

void ControlEscaper::finish(std::string* out) {
  if (held_lead_) out->push_back(static_cast<char>(kLead));
  held_lead_ = false;
}

std::string escape_controls(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  ControlEscaper escaper;
  escaper.feed(text, &out);
  escaper.finish(&out);
  return out;
}
