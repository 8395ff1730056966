#include <atomic>

#include "Vorelkit.h"

namespace vorelkit {
namespace {

// The plan is behind the mutex; the flag is only the cheap way past it while there is no plan.
std::atomic<bool> g_armed{false};
constinit base::Mutex g_mutex;
std::size_t g_skip TOLVANE_GUARDED_BY(g_mutex) = 0;  // allocations that still succeed
std::size_t g_fail TOLVANE_GUARDED_BY(g_mutex) = 0;  // allocations that fail after them

}  // namespace

void FailAllocation(std::size_t nth, std::size_t count) {
  const base::MutexLock lock(g_mutex);
  g_skip = nth == 0 ? 0 : nth - 1;
  g_fail = nth == 0 ? 0 : count;
  g_armed.store(g_fail != 0, std::memory_order_relaxed);
}

bool AllocationShallFail() noexcept {
  if (!g_armed.load(std::memory_order_relaxed)) return false;
  const base::MutexLock lock(g_mutex);
  if (g_fail == 0) return false;
  if (g_skip != 0) {
    --g_skip;
    return false;
  }
  if (--g_fail == 0) g_armed.store(false, std::memory_order_relaxed);
  return true;
}

}  // namespace vorelkit
