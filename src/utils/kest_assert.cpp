#include "utils/kest_assert.h"

#include <cstdlib>

#include "utils/version.h"
#include "utils/znlog.h"

namespace {
KestAssertHandler test_handler = nullptr;
}  // namespace

void kest_assert_set_handler(KestAssertHandler handler) { test_handler = handler; }

void kest_assert_fail(const char* file, int line, const char* facility, const char* condition) {
  __zn_log(file, line, facility, ZN_ERROR, "assertion \"%s\" failed", condition);
  __zn_log(file, line, facility, ZN_ERROR, "Kest Server version %s", version_str());
  __zn_backtrace(file, line, facility);
  if (test_handler != nullptr) test_handler(facility, condition);
  std::abort();
}
