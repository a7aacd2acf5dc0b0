// Byte-at-a-time stream reading without the stream's lock, and what a stream is open on.
#pragma once

#include <cstdio>

// The next byte of `stream` as 0..255, or EOF. Takes no lock: the caller must be the only thread
// using `stream` while it reads. Cheap enough to call once per byte.
int platform_getc_unlocked(FILE* stream);

// True when `stream` is open on a directory. Some systems let a directory be opened for reading
// and only fail the first read; a caller that must refuse unreadable files at once asks here.
bool platform_stream_is_directory(FILE* stream);
