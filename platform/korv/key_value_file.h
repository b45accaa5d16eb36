#pragma once

#include <cstddef>

// Text files of lines `key=value`, `key="value"` or `key='value'`. Blanks around keys and values don't count,
// a line that begins with # is a comment; of a key that stands there twice the last one counts. Between
// double quotes \" and \\ stand for the character behind the backslash. In a folder where anybody may make
// files only one of root's or the service user's is read. Implemented in korv/system/key_value_file.cpp.

// Copies the value of `key` in the file `path` to `value`, NUL-terminated; unchanged after a failure.
//   size   bytes at `value`; a value that doesn't fit is a failure
//   flags  0
// The value's length in bytes, 0 for an empty one; -1 when there is none or the file can't be read.
int KLIBCFileGetKeyValue(const char* path, const char* key, char* value, std::size_t size, int flags);

// Non-zero when the file `path` has `key` with exactly `value` (texts). `flags` is 0.
int KLIBCFileCheckKeyValue(const char* path, const char* key, const char* value, int flags);
