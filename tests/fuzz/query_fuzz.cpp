#include "fuzz/support/query_harness.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  kest_fuzz::fail_if(kest_fuzz::check_query(data, size));
  return 0;
}
