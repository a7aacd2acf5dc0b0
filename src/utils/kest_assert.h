// The assertion convention of the whole system: a broken invariant logs, at level 0 under the
// module's facility, "assertion \"<condition text>\" failed" and "Kest Server version <version>",
// calls __zn_backtrace and aborts. The condition's source text is part of the message, so write
// the condition exactly as the message must read.
#pragma once

[[noreturn]] void kest_assert_fail(const char* file, int line, const char* facility,
                                   const char* condition);

#define KEST_ASSERT(facility, cond) \
  ((cond) ? static_cast<void>(0) : kest_assert_fail(__FILE__, __LINE__, (facility), #cond))

// For a check whose reported text differs from the expression that tests it.
#define KEST_ASSERT_TEXT(facility, cond, text) \
  ((cond) ? static_cast<void>(0) : kest_assert_fail(__FILE__, __LINE__, (facility), (text)))
