// Random bytes of cryptographic quality.
#pragma once

#include <span>

#include "visibility.h"

namespace base {

// Fills the bytes; false when the system has none to give, and then they are not to be used. Any
// thread. Each thread draws from a pool that one system call fills for many draws; no byte is
// handed out twice, and what is handed out does not stay in the pool. A child of fork() begins with
// an empty pool, so it never repeats its parent's bytes; a child made by a bare clone() system
// call, past the C library, is not noticed.
[[nodiscard]] TOLVANE_PUBLIC bool FillRandom(std::span<unsigned char> bytes) noexcept;

}  // namespace base
