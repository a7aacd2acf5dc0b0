#include "utils/platform_stdio.h"

int platform_getc_unlocked(FILE* stream) {
#ifdef _WIN32
  return _getc_nolock(stream);
#else
  return getc_unlocked(stream);
#endif
}
