#include "utils/platform_stdio.h"

#include <sys/stat.h>

int platform_getc_unlocked(FILE* stream) {
#ifdef _WIN32
  return _getc_nolock(stream);
#else
  return getc_unlocked(stream);
#endif
}

bool platform_stream_is_directory(FILE* stream) {
#ifdef _WIN32
  struct _stat64i32 st;
  return _fstat64i32(_fileno(stream), &st) == 0 && (st.st_mode & _S_IFDIR) != 0;
#else
  struct stat st;
  return fstat(fileno(stream), &st) == 0 && S_ISDIR(st.st_mode);
#endif
}
