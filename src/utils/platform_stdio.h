// Byte-at-a-time stream reading without the stream's lock.
#pragma once

#include <cstdio>

// The next byte of `stream` as 0..255, or EOF. Takes no lock: the caller must be the only thread
// using `stream` while it reads. Cheap enough to call once per byte.
int platform_getc_unlocked(FILE* stream);
