#include "utils/kest_error.h"

#include <array>
#include <charconv>
#include <cstring>
#include <string_view>

#include "utils/kest_assert.h"
#include "utils/mem.h"

namespace {

constexpr const char* kFacility = "ERROR";

constexpr KestErrorMessage kMessages[] = {
#include "utils/kest_error_messages.inc"
};

// The rules every template obeys, checked at compile time so a bad edit of the table cannot
// build: "%" is followed by a digit or "%", and no placeholder appears twice (the message length
// counts each parameter once).
constexpr bool template_is_well_formed(const char* text) {
  bool seen[10] = {};
  for (const char* p = text; *p; ++p) {
    if (*p != '%') continue;
    ++p;
    if (*p == '%') continue;
    if (*p < '0' || *p > '9') return false;
    if (seen[*p - '0']) return false;
    seen[*p - '0'] = true;
  }
  return true;
}

constexpr bool table_is_well_formed() {
  for (int32_t i = 0; i < KEST_ERROR_COUNT; ++i) {
    if (kMessages[i].code != i || kMessages[i].text == nullptr) return false;
    if (!template_is_well_formed(kMessages[i].text)) return false;
  }
  return kMessages[KEST_ERROR_COUNT].code == KEST_ERROR_END_MARKER &&
         kMessages[KEST_ERROR_COUNT].text == nullptr;
}

static_assert(std::size(kMessages) == KEST_ERROR_COUNT + 1, "184 templates and the end marker");
static_assert(table_is_well_formed(), "a message template breaks the table's rules");

int32_t param_count(const KestError* err) {
  return err->params && err->num_err_params > 0 ? err->num_err_params : 0;
}

// The text for a code outside the table, produced through `out(string_view)` so that one routine
// serves both the length and the formatting.
template <class Out>
void emit_unknown_code(const KestError* err, Out&& out) {
  std::array<char, 16> digits{};
  auto res = std::to_chars(digits.data(), digits.data() + digits.size(), err->code);
  out("Unknown error code ");
  out(std::string_view(digits.data(), static_cast<size_t>(res.ptr - digits.data())));
  const int32_t n = param_count(err);
  if (n == 0) {
    out(" (no parameters)");
    return;
  }
  out(" (parameters: ");
  for (int32_t i = 0; i < n; ++i) {
    if (i > 0) out(", ");
    if (err->params[i] == nullptr) {
      out("null");
    } else {
      out("'");
      out(err->params[i]);
      out("'");
    }
  }
  out(")");
}

// The text of `tpl` filled with the parameters of `err`, produced through `out(string_view)`:
// the template's text between placeholders, and each parameter a placeholder names.
template <class Out>
void emit_template(const char* tpl, const KestError* err, Out&& out) {
  const int32_t n = param_count(err);
  const char* run = tpl;  // start of the template text not yet handed out
  const char* p = tpl;
  for (; *p; ++p) {
    if (*p != '%') continue;
    if (p > run) out(std::string_view(run, static_cast<size_t>(p - run)));
    const char next = p[1];
    if (next == '%') {
      out("%");
    } else if (next >= '0' && next <= '9' && next - '0' < n && err->params[next - '0']) {
      out(err->params[next - '0']);
    }
    if (next == '\0') return;  // a trailing "%" vanishes; the table has none
    run = ++p + 1;
  }
  if (p > run) out(std::string_view(run, static_cast<size_t>(p - run)));
}

// Copies each piece to `*dest` and advances it.
struct CopyOut {
  char*& dest;
  void operator()(std::string_view s) const {
    std::memcpy(dest, s.data(), s.size());
    dest += s.size();
  }
};

}  // namespace

const char* kest_error_template(int32_t code) {
  if (code < 0 || code >= KEST_ERROR_COUNT) return nullptr;
  return kMessages[code].text;
}

KestError* kest_error_create(MemContext* mem, int32_t code, int32_t nparams) {
  KEST_ASSERT(kFacility, mem);
  auto* error = static_cast<KestError*>(mem_malloc(mem, sizeof(KestError), KEST_MEM_ALLOWFAILURE));
  if (!error) return nullptr;
  error->code = code;
  error->num_err_params = nparams > 0 ? nparams : 0;
  error->params = nullptr;
  error->next = nullptr;
  if (error->num_err_params > 0) {
    error->params = static_cast<char**>(mem_zalloc(
        mem, sizeof(char*) * static_cast<size_t>(error->num_err_params), KEST_MEM_ALLOWFAILURE));
    if (!error->params) {
      mem_free(mem, error);
      return nullptr;
    }
  }
  return error;
}

void kest_error_set_param(KestError* error, MemContext* mem, int32_t num, const char* text) {
  KEST_ASSERT(kFacility, error);
  KEST_ASSERT(kFacility, mem);
  KEST_ASSERT_TEXT(kFacility, num >= 0 && num < error->num_err_params,
                   "num < error->num_err_params");
  char* copy = nullptr;
  if (text) {
    const size_t n = std::strlen(text) + 1;
    copy = static_cast<char*>(mem_malloc(mem, n, KEST_MEM_ALLOWFAILURE));
    if (copy) std::memcpy(copy, text, n);
  }
  error->params[num] = copy;
}

size_t kest_error_msg_len(const KestError* err) {
  KEST_ASSERT(kFacility, err);
  const char* tpl = kest_error_template(err->code);
  if (!tpl) {
    size_t len = 1;
    emit_unknown_code(err, [&len](std::string_view s) { len += s.size(); });
    return len;
  }
  size_t len = std::strlen(tpl) + 1;
  for (int32_t i = 0; i < param_count(err); ++i) {
    if (err->params[i]) len += std::strlen(err->params[i]);
  }
  return len;
}

int kest_error_format(const KestError* err, char* dest) {
  KEST_ASSERT(kFacility, err);
  const char* tpl = kest_error_template(err->code);
  if (!tpl) {
    emit_unknown_code(err, CopyOut{dest});
    *dest = '\0';
    return 1;
  }
  kest_error_format_template(tpl, err, dest);
  return 1;
}

void kest_error_format_template(const char* tpl, const KestError* err, char* dest) {
  emit_template(tpl, err, CopyOut{dest});
  *dest = '\0';
}

void kest_error_emit(const KestError* err, KestErrorSink sink, void* arg) {
  KEST_ASSERT(kFacility, err);
  const auto out = [sink, arg](std::string_view s) {
    if (!s.empty()) sink(arg, s.data(), s.size());
  };
  const char* tpl = kest_error_template(err->code);
  if (tpl) {
    emit_template(tpl, err, out);
  } else {
    emit_unknown_code(err, out);
  }
}

char* kest_error_text(MemContext* mem, const KestError* err) {
  auto* text = static_cast<char*>(mem_malloc(mem, kest_error_msg_len(err), KEST_MEM_ALLOWFAILURE));
  if (!text) return const_cast<char*>(KEST_ERROR_NO_MEMORY_TEXT);
  kest_error_format(err, text);
  return text;
}

int kest_error_is_negative(int64_t status) { return status < 0; }

// Wraps like the two's-complement hardware does, so the most negative value is its own negation.
int32_t kest_error_negate(int32_t value) {
  return static_cast<int32_t>(0u - static_cast<uint32_t>(value));
}
