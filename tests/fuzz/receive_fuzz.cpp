#include "fuzz/support/receive_harness.h"
#include "utils/znlog.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // The assertion reports of malformed answers are expected here, many a second: they go to
  // standard output, which fuzz runs close, rather than flood standard error.
  static const bool quiet = [] {
    zn_log_reset_for_tests("default = error:stdout", nullptr, nullptr);
    return true;
  }();
  (void)quiet;
  kest_fuzz::fail_if(kest_fuzz::check_receive(data, size));
  return 0;
}
