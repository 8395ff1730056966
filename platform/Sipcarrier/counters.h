// The stack's counters: written by its threads, read by any.
#pragma once

#include <atomic>
#include <cstdint>

#include "Sipcarrier/Sipcarrier.h"

namespace sipcarrier {

struct LiveCounters {
  using Count = std::atomic<std::uint64_t>;
  Count sent{0};
  Count received{0};
  Count retransmitted{0};
  Count dropped_garbage{0};
  Count dropped_stray{0};
  Count timeouts{0};
  Count lost_no_memory{0};
  Count transactions{0};
  Count requests{0};
  Count requests_answered{0};
  Count requests_repeated{0};
  Count dropped_overload{0};
  Count server_transactions{0};

  static void Add(Count& count) noexcept { count.fetch_add(1, std::memory_order_relaxed); }

  [[nodiscard]] Counters Read() const {
    Counters result;
    result.sent = sent.load(std::memory_order_relaxed);
    result.received = received.load(std::memory_order_relaxed);
    result.retransmitted = retransmitted.load(std::memory_order_relaxed);
    result.dropped_garbage = dropped_garbage.load(std::memory_order_relaxed);
    result.dropped_stray = dropped_stray.load(std::memory_order_relaxed);
    result.timeouts = timeouts.load(std::memory_order_relaxed);
    result.lost_no_memory = lost_no_memory.load(std::memory_order_relaxed);
    result.transactions = transactions.load(std::memory_order_relaxed);
    result.requests = requests.load(std::memory_order_relaxed);
    result.requests_answered = requests_answered.load(std::memory_order_relaxed);
    result.requests_repeated = requests_repeated.load(std::memory_order_relaxed);
    result.dropped_overload = dropped_overload.load(std::memory_order_relaxed);
    result.server_transactions = server_transactions.load(std::memory_order_relaxed);
    return result;
  }
};

}  // namespace sipcarrier
