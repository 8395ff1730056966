// What the elements of a reginfo document do alike with the elements below them: own them, copy
// them by value, find and merge them by key.
//
// T is an element class. In a list it has Key(), what tells it from its siblings, and for Merge an
// operation Merge(T&&) that takes over a newer element of the same key and throws nothing. Trim()
// lets go of what it can do without.
//
// A copy that gets no memory for one of the elements is made without it. Only the copy of a list
// throws std::bad_alloc, when there is none for the list itself.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <new>
#include <numeric>
#include <string_view>
#include <utility>
#include <vector>

#include "Vorelkit/Vorelkit.h"

// At most one element.
template <typename T>
class CRegChild {
 public:
  CRegChild() = default;
  ~CRegChild() = default;
  CRegChild(const CRegChild& oOther)
      : m_pChild(oOther.m_pChild != nullptr ? vktNew<T>(*oOther.m_pChild) : nullptr) {}
  CRegChild& operator=(const CRegChild& oOther) {
    if (this != &oOther) *this = CRegChild(oOther);
    return *this;
  }
  CRegChild(CRegChild&&) noexcept = default;
  CRegChild& operator=(CRegChild&&) noexcept = default;

  [[nodiscard]] T* Get() const { return m_pChild.get(); }
  void Set(T* pChild) { m_pChild.reset(pChild); }  // takes ownership

  // A newer one replaces it whole; none leaves it.
  void Merge(CRegChild& oNewer) noexcept {
    if (oNewer.m_pChild != nullptr) m_pChild = std::move(oNewer.m_pChild);
  }
  void Trim() noexcept {
    if (m_pChild != nullptr) m_pChild->Trim();
  }

 private:
  std::unique_ptr<T> m_pChild;
};

// Any number of elements, in order.
template <typename T>
class CRegChildren {
 public:
  CRegChildren() = default;
  ~CRegChildren() = default;
  CRegChildren(const CRegChildren& oOther) {
    m_vecChild.reserve(oOther.m_vecChild.size());
    for (const auto& pChild : oOther.m_vecChild) Add(vktNew<T>(*pChild));
  }
  CRegChildren& operator=(const CRegChildren& oOther) {
    if (this != &oOther) *this = CRegChildren(oOther);
    return *this;
  }
  CRegChildren(CRegChildren&&) noexcept = default;
  CRegChildren& operator=(CRegChildren&&) noexcept = default;

  [[nodiscard]] int Count() const { return static_cast<int>(m_vecChild.size()); }
  // Null when there is none at this place.
  [[nodiscard]] T* At(int nIndex) const {
    return nIndex >= 0 && nIndex < Count() ? m_vecChild[static_cast<std::size_t>(nIndex)].get()
                                           : nullptr;
  }
  // The first of this key, or null.
  [[nodiscard]] T* Find(std::string_view strKey) const {
    return Find(strKey, 0, m_vecChild.size());
  }

  // Appends it and takes ownership; null is ignored. Without memory for the list it is deleted.
  void Add(T* pChild) noexcept {
    std::unique_ptr<T> pOwned(pChild);
    if (pOwned == nullptr) return;
    try {
      m_vecChild.push_back(std::move(pOwned));
    } catch (const std::bad_alloc&) {
      // It is left out.
    }
  }
  void Clear() noexcept {
    RemoveIf([](const T&) { return true; });
  }
  template <typename Predicate>
  void RemoveIf(Predicate oPredicate) noexcept {
    m_pOrder = nullptr;
    std::erase_if(m_vecChild, [&](const auto& pChild) { return oPredicate(*pChild); });
  }

  // Takes over the elements of a newer list: each goes into the first one here that has its key and
  // was here before, or else to the end, or away when there is no memory for that. From then until
  // Trim no key may change.
  void Merge(CRegChildren& oNewer) noexcept {
    const std::size_t nOwn = m_vecChild.size();
    for (auto& pNewer : oNewer.m_vecChild) {
      if (T* const pOwn = FindToMerge(pNewer->Key(), nOwn)) {
        pOwn->Merge(std::move(*pNewer));
      } else {
        Add(pNewer.release());
      }
    }
  }

  // Lets go of what merging has left: the order of the keys, and what the elements can do without.
  void Trim() noexcept {
    m_pOrder = nullptr;
    for (const auto& pChild : m_vecChild) pChild->Trim();
  }

 private:
  // Of how many look-ups the plain search costs what sorting does.
  static constexpr std::size_t kWorthSorting = 16;

  struct COrder {
    std::vector<std::uint32_t> vecSorted;  // places by key, of equal keys the first in front
    std::size_t nCompared = 0;             // in plain searches since the last sorting
  };

  [[nodiscard]] std::string_view KeyAt(std::uint32_t nIndex) const {
    return m_vecChild[nIndex]->Key();
  }

  [[nodiscard]] T* Find(std::string_view strKey, std::size_t nBegin, std::size_t nEnd) const {
    const auto itEnd = m_vecChild.begin() + static_cast<std::ptrdiff_t>(nEnd);
    const auto it = std::find_if(m_vecChild.begin() + static_cast<std::ptrdiff_t>(nBegin), itEnd,
                                 [&](const auto& pChild) { return pChild->Key() == strKey; });
    return it != itEnd ? it->get() : nullptr;
  }

  // The first of this key among so many. Those that have been sorted stand in front; the others are
  // searched one by one until that has cost as much as sorting them, in one merge or in many that
  // the same document makes. Without memory it stays at that. Sorting and not hashing: the keys
  // are the peer's choice, and no choice of keys makes this slow.
  [[nodiscard]] T* FindToMerge(std::string_view strKey, std::size_t nCount) noexcept {
    if (nCount < kWorthSorting) return Find(strKey, 0, nCount);
    if (m_pOrder == nullptr) m_pOrder.reset(vktNew<COrder>());
    if (m_pOrder == nullptr) return Find(strKey, 0, nCount);
    m_pOrder->nCompared += nCount - m_pOrder->vecSorted.size();
    if (m_pOrder->nCompared > kWorthSorting * nCount) Sort(nCount);
    T* const pFound = FindSorted(strKey);
    return pFound != nullptr ? pFound : Find(strKey, m_pOrder->vecSorted.size(), nCount);
  }

  // Brings those that have come behind the sorted ones into the order.
  void Sort(std::size_t nCount) noexcept {
    std::vector<std::uint32_t>& vecSorted = m_pOrder->vecSorted;
    const std::size_t nBefore = vecSorted.size();
    try {
      vecSorted.resize(nCount);
    } catch (const std::bad_alloc&) {
      return;
    }
    const auto itNew = vecSorted.begin() + static_cast<std::ptrdiff_t>(nBefore);
    std::iota(itNew, vecSorted.end(), static_cast<std::uint32_t>(nBefore));
    const auto oBefore = [this](std::uint32_t a, std::uint32_t b) {
      const int nOrder = KeyAt(a).compare(KeyAt(b));
      return nOrder != 0 ? nOrder < 0 : a < b;
    };
    std::sort(itNew, vecSorted.end(), oBefore);
    std::inplace_merge(vecSorted.begin(), itNew, vecSorted.end(), oBefore);
    m_pOrder->nCompared = 0;
  }

  [[nodiscard]] T* FindSorted(std::string_view strKey) const {
    const std::vector<std::uint32_t>& vecSorted = m_pOrder->vecSorted;
    const auto it = std::lower_bound(
        vecSorted.begin(), vecSorted.end(), strKey,
        [this](std::uint32_t nIndex, std::string_view str) { return KeyAt(nIndex) < str; });
    return it != vecSorted.end() && KeyAt(*it) == strKey ? m_vecChild[*it].get() : nullptr;
  }

  std::vector<std::unique_ptr<T>> m_vecChild;
  std::unique_ptr<COrder> m_pOrder;  // while documents are merged
};
