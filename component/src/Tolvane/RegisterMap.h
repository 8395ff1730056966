// The registry: registrations by their ids, 1 to 10000.
#pragma once

#include <cstddef>
#include <vector>

class CRegister;

// A table with a place for each id up to the largest in use: an id is an index, and a free one is
// found by looking at places, so nothing has to be kept in step beside it. Not thread-safe; owns
// nothing. Walks are in ascending order.
class CRegisterMap {
 public:
  static constexpr int kMaxId = 10000;

  // Ids run in turn, after 10000 comes 1 again. Those in use are passed over, so that a client's id
  // never names somebody else's registration; the worst search looks at every place, which takes
  // ten microseconds. The id, or 0 when all are in use. Throws std::bad_alloc with nothing changed.
  int Add(CRegister* pRegister) {
    int nId = m_nNextRegId;
    while (Find(nId) != nullptr) {
      nId = Behind(nId);
      if (nId == m_nNextRegId) return 0;
    }
    if (static_cast<std::size_t>(nId) >= m_vecPlace.size()) {
      m_vecPlace.resize(static_cast<std::size_t>(nId) + 1);
    }
    m_vecPlace[static_cast<std::size_t>(nId)] = pRegister;
    m_nNextRegId = Behind(nId);
    return nId;
  }
  // Null when there is none.
  [[nodiscard]] CRegister* Find(int nId) const {
    const auto nPlace = static_cast<std::size_t>(nId);  // a negative one is beyond every place
    return nPlace < m_vecPlace.size() ? m_vecPlace[nPlace] : nullptr;
  }
  void Remove(int nId) { m_vecPlace[static_cast<std::size_t>(nId)] = nullptr; }

  // The smallest id in use, and the next larger one; 0: none.
  [[nodiscard]] int First() const { return Next(0); }
  [[nodiscard]] int Next(int nId) const {
    while (static_cast<std::size_t>(++nId) < m_vecPlace.size()) {
      if (Find(nId) != nullptr) return nId;
    }
    return 0;
  }

 private:
  static int Behind(int nId) { return nId < kMaxId ? nId + 1 : 1; }

  std::vector<CRegister*> m_vecPlace;  // place 0 is nobody's
  int m_nNextRegId = 1;
};
