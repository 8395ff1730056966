// An allocator for the whole process that counts and that can run out.
#pragma once

#include <cstddef>

namespace failing_new {

// Allocations of the calling thread from now on: `left` more succeed, then all fail. Negative: no
// limit.
void Limit(long left) noexcept;
[[nodiscard]] std::size_t Allocations() noexcept;  // of the calling thread, since it began
[[nodiscard]] long Alive() noexcept;               // blocks of the process not freed yet

}  // namespace failing_new
