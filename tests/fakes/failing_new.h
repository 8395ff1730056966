// An allocator for the whole process that counts and that can run out. Linking it replaces the
// global operators.
#pragma once

#include <cstddef>

namespace failing_new {

// Allocations of the calling thread from now on: `left` more succeed, then all fail. Negative: no
// limit.
void Limit(long left) noexcept;
[[nodiscard]] std::size_t Allocations() noexcept;  // of the calling thread, since it began
[[nodiscard]] long Alive() noexcept;               // blocks of the process not freed yet
[[nodiscard]] long AliveBytes() noexcept;          // their bytes, as the heap rounds them up

// All threads that take part: their allocations are numbered from 1 again, and those from first to
// last fail. 0, 0: none. Gives how many there have been since the last call.
long Fail(long first, long last) noexcept;
// How many there have been since then.
[[nodiscard]] long Counted() noexcept;
// Whether the calling thread takes part; until it says so, what the default says, which is no.
void TakePart(bool part) noexcept;
void TakePartByDefault(bool part) noexcept;

}  // namespace failing_new
