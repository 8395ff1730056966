#include "Sipcarrier/branch.h"

#include <sys/random.h>

#include <array>

namespace sipcarrier {
namespace {

constexpr std::size_t kBytes = 16;

// One system call serves many branches; what has been handed out is gone from the pool.
struct RandomPool {
  std::array<unsigned char, 16 * kBytes> bytes;
  std::size_t left = 0;
};

}  // namespace

bool MakeBranch(std::string& branch) {
  thread_local RandomPool pool;
  if (pool.left < kBytes) {
    if (::getrandom(pool.bytes.data(), pool.bytes.size(), 0) !=
        static_cast<ssize_t>(pool.bytes.size())) {
      return false;
    };
    pool.left = pool.bytes.size();
  }
  static constexpr char kHex[] = "0123456789abcdef";
  branch = "z9hG4bK";
  for (std::size_t i = 0; i < kBytes; ++i) {
    unsigned char& byte = pool.bytes[--pool.left];
    branch.push_back(kHex[byte >> 4]);
    branch.push_back(kHex[byte & 15]);
    byte = 0;
  }
  return true;
}

}  // namespace sipcarrier
