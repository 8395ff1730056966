// What the elements of a reginfo document do alike with the elements below them: own them, copy
// them by value, find and merge them by key.
//
// T is an element class. In a list it has Key(), what tells it from its siblings, and for Merge an
// operation Merge(T&&) that takes over a newer element of the same key and throws nothing.
//
// A copy that gets no memory for one of the elements is made without it. Only the copy of a list
// throws std::bad_alloc, when there is none for the list itself.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <new>
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
    if (this != &oOther) m_pChild = CRegChild(oOther).m_pChild;
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
    if (this != &oOther) m_vecChild = CRegChildren(oOther).m_vecChild;
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
  [[nodiscard]] T* Find(std::string_view strKey) const { return Find(strKey, m_vecChild.size()); }
  [[nodiscard]] const auto& All() const { return m_vecChild; }

  // Appends it and takes ownership; null is ignored. Without memory for the list it is deleted, and
  // false.
  bool Add(T* pChild) noexcept {
    std::unique_ptr<T> pOwned(pChild);
    if (pOwned == nullptr) return true;
    try {
      m_vecChild.push_back(std::move(pOwned));
    } catch (const std::bad_alloc&) {
      return false;
    }
    return true;
  }
  void Clear() noexcept { m_vecChild.clear(); }
  template <typename Predicate>
  void RemoveIf(Predicate oPredicate) noexcept {
    std::erase_if(m_vecChild, [&](const auto& pChild) { return oPredicate(*pChild); });
  }

  // Takes over the elements of a newer list: each goes into the first one here that has its key and
  // was here before, or else to the end, or away when there is no memory for that.
  void Merge(CRegChildren& oNewer) noexcept {
    const std::size_t nOwn = m_vecChild.size();
    const std::vector<std::uint32_t> vecSorted = Sorted(oNewer.m_vecChild.size());
    for (auto& pNewer : oNewer.m_vecChild) {
      T* const pOwn =
          vecSorted.empty() ? Find(pNewer->Key(), nOwn) : FindSorted(pNewer->Key(), vecSorted);
      if (pOwn != nullptr) {
        pOwn->Merge(std::move(*pNewer));
      } else {
        Add(pNewer.release());
      }
    }
  }

 private:
  // From so many look-ups on sorting costs less than searching.
  static constexpr std::size_t kWorthSorting = 16;

  [[nodiscard]] std::string_view KeyAt(std::uint32_t nIndex) const {
    return m_vecChild[nIndex]->Key();
  }

  [[nodiscard]] T* Find(std::string_view strKey, std::size_t nCount) const {
    const auto itEnd = m_vecChild.begin() + static_cast<std::ptrdiff_t>(nCount);
    const auto it = std::find_if(m_vecChild.begin(), itEnd,
                                 [&](const auto& pChild) { return pChild->Key() == strKey; });
    return it != itEnd ? it->get() : nullptr;
  }

  // The places of the elements in the order of their keys, of equal ones the first in front. Empty,
  // and the plain search has to do, for few look-ups or without memory. Sorting and not hashing:
  // the keys are the peer's choice, and no choice of keys makes this slow.
  [[nodiscard]] std::vector<std::uint32_t> Sorted(std::size_t nLookUps) const noexcept {
    std::vector<std::uint32_t> vecSorted;
    if (nLookUps < kWorthSorting) return vecSorted;
    try {
      vecSorted.resize(m_vecChild.size());
    } catch (const std::bad_alloc&) {
      return vecSorted;
    }
    for (std::uint32_t i = 0; i < vecSorted.size(); ++i) vecSorted[i] = i;
    std::sort(vecSorted.begin(), vecSorted.end(), [this](std::uint32_t a, std::uint32_t b) {
      const int nOrder = KeyAt(a).compare(KeyAt(b));
      return nOrder != 0 ? nOrder < 0 : a < b;
    });
    return vecSorted;
  }

  [[nodiscard]] T* FindSorted(std::string_view strKey,
                              const std::vector<std::uint32_t>& vecSorted) const {
    const auto it = std::lower_bound(
        vecSorted.begin(), vecSorted.end(), strKey,
        [this](std::uint32_t nIndex, std::string_view str) { return KeyAt(nIndex) < str; });
    return it != vecSorted.end() && KeyAt(*it) == strKey ? m_vecChild[*it].get() : nullptr;
  }

  std::vector<std::unique_ptr<T>> m_vecChild;
};
