#include "fuzz/support/text_harness.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  kest_fuzz::fail_if(kest_fuzz::check_log_config(data, size));
  return 0;
}
