#include "base/random.h"

#include <pthread.h>
#include <sys/random.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstring>

namespace base {
namespace {

// Enough for the names and nonces of a dozen registrations.
constexpr std::size_t kPoolBytes = 1024;

// Counted up in each child of fork(), which inherits its parent's pools.
std::atomic<unsigned> g_process{1};

// Without the handler (no memory at the program's start) nothing is pooled.
const bool g_forks_are_seen = pthread_atfork(nullptr, nullptr, [] {
                                g_process.fetch_add(1, std::memory_order_relaxed);
                              }) == 0;

// Plain data, so that it can be drawn from in the destructors of other thread-local objects.
struct Pool {
  std::array<unsigned char, kPoolBytes> bytes;
  std::size_t left;  // the first so many have not been handed out
  unsigned process;
};
thread_local constinit Pool t_pool{};

bool FromSystem(std::span<unsigned char> bytes) noexcept {
  while (!bytes.empty()) {
    const ssize_t got = ::getrandom(bytes.data(), bytes.size(), 0);
    if (got < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    bytes = bytes.subspan(static_cast<std::size_t>(got));
  }
  return true;
}

}  // namespace

bool FillRandom(std::span<unsigned char> bytes) noexcept {
  if (bytes.size() > kPoolBytes || !g_forks_are_seen) return FromSystem(bytes);
  Pool& pool = t_pool;
  const unsigned process = g_process.load(std::memory_order_relaxed);
  if (pool.process != process || pool.left < bytes.size()) {
    pool.left = 0;
    if (!FromSystem(pool.bytes)) return false;
    pool.left = kPoolBytes;
    pool.process = process;
  }
  if (bytes.empty()) return true;
  pool.left -= bytes.size();
  std::memcpy(bytes.data(), &pool.bytes[pool.left], bytes.size());
  std::memset(&pool.bytes[pool.left], 0, bytes.size());
  return true;
}

}  // namespace base
