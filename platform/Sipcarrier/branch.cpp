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

// Appends 128 random bits.
bool AppendRandom(std::string& text) {
  thread_local RandomPool pool;
  if (pool.left < kBytes) {
    if (::getrandom(pool.bytes.data(), pool.bytes.size(), 0) !=
        static_cast<ssize_t>(pool.bytes.size())) {
      return false;
    }
    pool.left = pool.bytes.size();
  }
  static constexpr char kHex[] = "0123456789abcdef";
  for (std::size_t i = 0; i < kBytes; ++i) {
    unsigned char& byte = pool.bytes[--pool.left];
    text.push_back(kHex[byte >> 4]);
    text.push_back(kHex[byte & 15]);
    byte = 0;
  }
  return true;
}

}  // namespace

bool MakeBranch(std::string& branch) {
  branch = "z9hG4bK";
  return AppendRandom(branch);
}

bool MakeTag(std::string& tag) {
  tag.clear();
  return AppendRandom(tag);
}

}  // namespace sipcarrier
