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

// TEST AND FUZZ HARNESSES ONLY; the programs never install one. A handler installed here is
// called by kest_assert_fail after the log lines and the backtrace, in place of the abort, so
// that a harness can treat an assertion on hostile input as an expected outcome and go on. It
// must not return: it throws an exception of the harness's own (should it return, the process
// aborts all the same). Code between the failed check and the harness is unwound half done, so
// the harness owns the clean-up of whatever that code held. nullptr restores the plain abort.
// Not synchronised: install it before any thread may assert.
using KestAssertHandler = void (*)(const char* facility, const char* condition);
void kest_assert_set_handler(KestAssertHandler handler);
