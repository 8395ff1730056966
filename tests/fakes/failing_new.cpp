#include "failing_new.h"

#include <malloc.h>

#include <atomic>
#include <cstdlib>
#include <new>

namespace {

enum class Part { kDefault, kYes, kNo };

thread_local long t_left = -1;
thread_local std::size_t t_count = 0;
thread_local Part t_part = Part::kDefault;
std::atomic<bool> g_default_part{false};
std::atomic<long> g_number{0};
std::atomic<long> g_first{0};
std::atomic<long> g_last{0};
std::atomic<long> g_alive{0};
std::atomic<long> g_bytes{0};

bool ShallFail() noexcept {
  if (t_left == 0) return true;
  if (t_left > 0) --t_left;
  if (t_part == Part::kNo || (t_part == Part::kDefault && !g_default_part)) return false;
  const long number = ++g_number;
  return number >= g_first && number <= g_last;
}

void* Allocate(std::size_t size) noexcept {
  if (ShallFail()) return nullptr;
  ++t_count;
  ++g_alive;
  void* const memory = std::malloc(size == 0 ? 1 : size);
  g_bytes += static_cast<long>(malloc_usable_size(memory));
  return memory;
}

void Free(void* memory) noexcept {
  if (memory != nullptr) --g_alive;
  g_bytes -= static_cast<long>(malloc_usable_size(memory));
  std::free(memory);
}

}  // namespace

namespace failing_new {
void Limit(long left) noexcept { t_left = left; }
std::size_t Allocations() noexcept { return t_count; }
long Alive() noexcept { return g_alive; }
long AliveBytes() noexcept { return g_bytes; }
long Fail(long first, long last) noexcept {
  g_first = first;
  g_last = last;
  return g_number.exchange(0);
}
long Counted() noexcept { return g_number; }
void TakePart(bool part) noexcept { t_part = part ? Part::kYes : Part::kNo; }
void TakePartByDefault(bool part) noexcept { g_default_part = part; }
}  // namespace failing_new

// The array forms and the ones that do not throw end here too.
void* operator new(std::size_t size) {
  if (void* memory = Allocate(size)) return memory;
  throw std::bad_alloc();
}
void* operator new(std::size_t size, const std::nothrow_t& /*tag*/) noexcept { return Allocate(size); }
void operator delete(void* memory) noexcept { Free(memory); }
void operator delete(void* memory, std::size_t /*size*/) noexcept { Free(memory); }
void operator delete(void* memory, const std::nothrow_t& /*tag*/) noexcept { Free(memory); }
