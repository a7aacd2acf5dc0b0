#include "fuzz/support/split_harness.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  kest_fuzz::fail_if(kest_fuzz::check_split(data, size));
  return 0;
}
