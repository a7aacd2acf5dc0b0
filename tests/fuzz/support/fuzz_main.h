// What every fuzz target calls with a check's verdict: an empty text passes, any other text is
// reported and ends the run as a crash.
#pragma once

#include <string>

namespace kest_fuzz {
void fail_if(const std::string& why);
}  // namespace kest_fuzz
