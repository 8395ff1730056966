// The road of REGISTERs through the stack. The I/O thread alone has what is on the wire; what
// callers want of it crosses by value through one queue, which is drained in a batch.
#pragma once

#include <atomic>
#include <cstddef>
#include <memory>
#include <vector>

#include "base/intrusive_list.h"
#include "base/mutex.h"
#include "base/never_destroyed.h"
#include "sivra/entry.h"

namespace sivra {

// Entries by the address of record of their From. Inserting never fails: without memory for more
// buckets the chains grow.
class AddressIndex {
 public:
  void Insert(Entry& entry) noexcept;
  void Remove(Entry& entry) noexcept;
  // In no order; `visit` gives true when it has had enough.
  template <class Visit>
  void ForEach(std::size_t key, Visit visit) const {
    if (buckets_.empty()) {
      return;
    }
    for (Entry* at = buckets_[key & (buckets_.size() - 1)]; at != nullptr;
         at = at->next_by_address_) {
      if (at->identity().from_key() == key && visit(*at)) {
        return;
      }
    }
  }

 private:
  void Grow() noexcept;

  std::vector<Entry*> buckets_;  // a power of two of them
  std::size_t count_ = 0;
};

// Add to Release: any thread, the library lock held, which is what keeps the orders of one entry in
// a row. They change nothing of the entry itself: an order lies in the queue until the I/O thread
// takes it, or, while no stack runs, is carried out before the call returns. A pointer to an entry
// is good until its Release.
class Wire final : sipcarrier::IoInbox {
 public:
  static Wire& Instance();

  // May throw std::bad_alloc; then nothing has happened.
  [[nodiscard]] Entry* Add(SharedIdentity identity);
  void Readdress(Entry& entry, SharedIdentity identity);
  void Send(Entry& entry, std::unique_ptr<nsip_message> message);
  // Needs no memory.
  void Release(Entry& entry) noexcept;
  // Entries alive, released ones that still finish included.
  [[nodiscard]] std::size_t count() const { return count_.load(std::memory_order_relaxed); }

  // The I/O thread's alone.
  [[nodiscard]] const AddressIndex& by_address() const { return by_address_; }

 private:
  friend class base::NeverDestroyed<Wire>;
  // What a caller wants of the I/O thread: a REGISTER to send, or another identity.
  struct Order;
  using Orders = base::IntrusiveList<Order, Order>;
  static constexpr std::size_t kKeptOrders = 256;

  Wire() = default;
  void OnIoInbox() noexcept override;
  void Post(Entry& entry, SharedIdentity identity, std::unique_ptr<nsip_message> message);
  void CarryOut(Order& order) noexcept;
  void Depart(Entry& entry) noexcept;
  void OnOutcome(Entry& entry, sipcarrier::Outcome outcome) noexcept;
  [[nodiscard]] bool Conclude(Entry& entry, sipcarrier::Outcome outcome) noexcept;
  void Erase(Entry& entry) noexcept;
  void Trim() noexcept;
  static void Free(Orders& orders) noexcept;
  [[nodiscard]] SharedEndpoint Share(const sipcarrier::Endpoint& local);

  std::atomic<std::size_t> count_{0};

  // What crosses. A leaf: nothing is called with it held.
  base::Mutex mutex_;
  Orders orders_ TOLVANE_GUARDED_BY(mutex_);
  base::IntrusiveList<Entry, ReleasedTag> released_ TOLVANE_GUARDED_BY(mutex_);
  // Used ones, so that what one thread allocates another need not free.
  Orders spare_ TOLVANE_GUARDED_BY(mutex_);
  std::size_t spares_ TOLVANE_GUARDED_BY(mutex_) = 0;

  // The I/O thread's.
  AddressIndex by_address_;
  SharedEndpoint local_;  // the one that was used last: nearly all entries have the same
};

}  // namespace sivra
