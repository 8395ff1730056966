// An object that outlives everything.
#pragma once

#include <cstddef>
#include <new>
#include <utility>

namespace base {

// For a static object that threads, or the static objects of other libraries, may still use while
// the process ends: its destructor never runs. As a static of a function it is made, once, at the
// first call:
//
//   Registry& TheRegistry() {
//     static base::NeverDestroyed<Registry> registry;
//     return *registry;
//   }
template <class T>
class NeverDestroyed {
 public:
  template <class... Args>
  explicit NeverDestroyed(Args&&... args) {
    new (storage_) T(std::forward<Args>(args)...);
  }
  NeverDestroyed(const NeverDestroyed&) = delete;
  NeverDestroyed& operator=(const NeverDestroyed&) = delete;

  [[nodiscard]] T& operator*() noexcept { return *std::launder(reinterpret_cast<T*>(storage_)); }
  [[nodiscard]] T* operator->() noexcept { return &**this; }

 private:
  alignas(T) std::byte storage_[sizeof(T)];
};

}  // namespace base
