// Vorelkit: mutex, text conversion and the allocation forms of the component.
#pragma once

#include <cstddef>
#include <new>
#include <string>
#include <string_view>
#include <utility>

#include "base/mutex.h"
#include "visibility.h"

// A plain mutex (Lock, Unlock); a thread must not take it twice. What it guards says so with the
// marks of base/mutex.h.
class VkMutex : public base::Mutex {};

// Holds a VkMutex for a scope.
class [[nodiscard]] TOLVANE_SCOPED_CAPABILITY VkLocker {
 public:
  explicit VkLocker(VkMutex& oMutex) TOLVANE_ACQUIRE(oMutex) : m_oMutex(oMutex) { m_oMutex.Lock(); }
  ~VkLocker() TOLVANE_RELEASE() { m_oMutex.Unlock(); }
  VkLocker(const VkLocker&) = delete;
  VkLocker& operator=(const VkLocker&) = delete;

 private:
  VkMutex& m_oMutex;
};

class TOLVANE_PUBLIC VkStrBuilder {
 public:
  // UTF-8 to the system's wide form. Bytes that are not UTF-8 become U+FFFD, one for each byte.
  static std::wstring Utf8ToUnicodeW(std::string_view strUtf8);
};

namespace vorelkit {
// For tests: the next `nth` vktNew from now (1: the very next) of this process gives null, as if
// memory had run out; 0 switches that off. `count` many in a row fail from there on.
TOLVANE_PUBLIC void FailAllocation(std::size_t nth, std::size_t count = 1);
[[nodiscard]] TOLVANE_PUBLIC bool AllocationShallFail() noexcept;  // for vktNew only
}  // namespace vorelkit

// A new T, or null when memory is exhausted, also when the constructor throws std::bad_alloc. Any
// other exception of the constructor is passed on.
template <typename T, typename... Args>
[[nodiscard]] T* vktNew(Args&&... args) {
  if (vorelkit::AllocationShallFail()) return nullptr;
  try {
    return new T(std::forward<Args>(args)...);
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

// Deletes and accepts null.
template <typename T>
void vktDelete(T* pObject) {
  delete pObject;
}
