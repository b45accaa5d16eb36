#pragma once

#include <cstddef>

// Exported keys of encrypted shared folders. Implemented in korv/system/share_key.cpp.

// The salt of exported key files, passed on uninspected. Lives for ever.
const char* KORVShareEncExportKeySaltGet();

// Reads the key out of an exported key file.
//   buffer  out: the key, NUL-terminated; a secret. Zeroed after a failure
//   size    bytes at `buffer`
// 0 or more on success, negative on failure; then KLIBCErrGet tells why.
int KORVShareEncKeyFileRead(const char* path, const char* salt, char* buffer, std::size_t size);

// The NAS library's error of the last failed call in this process.
int KLIBCErrGet();

// KLIBCErrGet's value when the share that a key belongs to no longer exists.
inline constexpr int kKlibErrNoSuchShare = 0xA800;
