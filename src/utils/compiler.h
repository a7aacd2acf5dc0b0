// Compiler annotations shared by the runtime.
#pragma once

// Lets the compiler check printf-style formats. The Windows build uses the C99 printf family
// (__USE_MINGW_ANSI_STDIO), whose checker is "gnu_printf".
#if defined(__MINGW32__)
#define KEST_PRINTF_LIKE(f, a) __attribute__((format(gnu_printf, f, a)))
#elif defined(__GNUC__)
#define KEST_PRINTF_LIKE(f, a) __attribute__((format(printf, f, a)))
#else
#define KEST_PRINTF_LIKE(f, a)
#endif
