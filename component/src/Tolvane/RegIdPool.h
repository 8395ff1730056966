// Registration ids 1 to 10000, given out in turn: after 10000 comes 1 again, and ids in use are
// passed over. Not thread-safe. A search costs a few dozen word tests at the most, however many ids
// are in use.
#pragma once

#include <bit>
#include <cstdint>

class CRegIdPool {
 public:
  static constexpr int kMaxId = 10000;

  // The next free id, marked as used; 0 when all are in use.
  int Take() {
    int nId = FirstFree(m_nNextRegId, kMaxId);
    if (nId == 0) nId = FirstFree(1, m_nNextRegId - 1);
    if (nId == 0) return 0;
    m_anUsed[nId / 64] |= Bit(nId);
    m_nNextRegId = nId < kMaxId ? nId + 1 : 1;
    return nId;
  }

  // Takes back the last Take as if it had not been: the id is free, and the next to be given out.
  void Untake(int nId) {
    Give(nId);
    m_nNextRegId = nId;
  }

  void Give(int nId) {
    if (nId >= 1 && nId <= kMaxId) m_anUsed[nId / 64] &= ~Bit(nId);
  }

 private:
  static std::uint64_t Bit(int nId) { return std::uint64_t{1} << (nId % 64); }

  int FirstFree(int nFrom, int nTo) const {
    for (int nWord = nFrom / 64; nWord <= nTo / 64; ++nWord) {
      std::uint64_t nFree = ~m_anUsed[nWord];
      if (nWord == nFrom / 64) nFree &= ~std::uint64_t{0} << (nFrom % 64);
      if (nFree == 0) continue;
      const int nId = nWord * 64 + std::countr_zero(nFree);
      return nId <= nTo ? nId : 0;
    }
    return 0;
  }

  std::uint64_t m_anUsed[kMaxId / 64 + 1] = {};
  int m_nNextRegId = 1;
};
