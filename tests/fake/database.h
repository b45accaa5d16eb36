#pragma once

#include <cstddef>

namespace fake {

// Database results that were handed out and not yet freed.
std::size_t OpenResultCount();

// Frees them, so that one scenario's fault is not charged to the next.
void DropOpenResults();

}  // namespace fake
