#include "failing_new.h"

#include <atomic>
#include <cstdlib>
#include <new>

namespace {

thread_local long t_left = -1;
thread_local std::size_t t_count = 0;
std::atomic<long> g_alive{0};

void* Allocate(std::size_t size) noexcept {
  if (t_left == 0) return nullptr;
  if (t_left > 0) --t_left;
  ++t_count;
  ++g_alive;
  return std::malloc(size == 0 ? 1 : size);
}

void Free(void* memory) noexcept {
  if (memory != nullptr) --g_alive;
  std::free(memory);
}

}  // namespace

namespace failing_new {
void Limit(long left) noexcept { t_left = left; }
std::size_t Allocations() noexcept { return t_count; }
long Alive() noexcept { return g_alive; }
}  // namespace failing_new

// The array forms and the ones that do not throw end here too.
void* operator new(std::size_t size) {
  if (void* memory = Allocate(size)) return memory;
  throw std::bad_alloc();
}
void* operator new(std::size_t size, const std::nothrow_t& /*tag*/) noexcept {
  return Allocate(size);
}
void operator delete(void* memory) noexcept { Free(memory); }
void operator delete(void* memory, std::size_t /*size*/) noexcept { Free(memory); }
void operator delete(void* memory, const std::nothrow_t& /*tag*/) noexcept { Free(memory); }
