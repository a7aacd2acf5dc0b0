// Small file helpers: the reader of the 64-byte authentication key and the absolute-path test.
#pragma once

constexpr int kAuthKeySize = 64;

// Reads the first 64 bytes of the file at `path` into `key`, which must hold at least 65 bytes
// (a null `key` is an assertion, "empty_key"). The first byte of `key` is set to NUL before
// anything else. Returns `key`, or null: at once for a null or empty path; after logging (level
// 0) when the file cannot be opened or read, or holds fewer than 64 bytes. The bytes that were
// read stay in `key` even then. The key is not NUL-terminated by this function.
char* read_auth_file(const char* path, char* key);

// 1 when `path` is absolute: it holds a backslash, and the first backslash is either the first
// character or stands right after the first ":" (as in "C:\x" or "\\?\C:"). Otherwise 0; a path
// without any backslash is never absolute.
int kest_path_absolute(const char* path);
