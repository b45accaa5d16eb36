#pragma once

#include <cstddef>

namespace fake {

// Records of shared folders that were handed out and not yet freed.
std::size_t OpenShareRecordCount();

// Frees them, so that one scenario's fault is not charged to the next.
void DropOpenShareRecords();

}  // namespace fake
