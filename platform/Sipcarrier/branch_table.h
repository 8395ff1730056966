// The branches of our requests that are alive, and the transactions that they name.
#pragma once

#include <array>
#include <cstdint>
#include <deque>
#include <string_view>
#include <vector>

#include "base/clock.h"

namespace sipcarrier {

class ClientTransaction;

// "z9hG4bK" (RFC 3261 §8.1.1.7) and 32 hexadecimal digits: 96 random bits, which nobody guesses, and
// the place in the table, so that a response finds its transaction in one step.
using BranchText = std::array<char, 39>;

// Used by one thread. A place is taken by a transaction, then, for the time of timer K, by the mark
// of a completed one, which absorbs copies of its final response (RFC 3261 §17.1.2.2) at the cost
// of a few words.
class BranchTable {
 public:
  static constexpr std::uint32_t kNowhere = 0xffffffff;

  struct Found {
    bool known = false;
    ClientTransaction* transaction = nullptr;  // null: completed
  };

  // The place of the transaction from now on; kNowhere when the system gives no random numbers. May
  // throw std::bad_alloc.
  [[nodiscard]] std::uint32_t Add(ClientTransaction& transaction, BranchText& branch);
  [[nodiscard]] Found Find(std::string_view branch) const;
  void Remove(std::uint32_t place) noexcept;
  // Leaves the mark until `due`, which must not be before those of earlier calls. false: no memory
  // for it, and the place is free.
  [[nodiscard]] bool Complete(std::uint32_t place, base::Clock::time_point due) noexcept;

  // When the first mark is due; max() without one.
  [[nodiscard]] base::Clock::time_point NextDue() const {
    return completed_.empty() ? base::Clock::time_point::max() : completed_.front().due;
  }
  // Takes away the marks that are due; their number.
  std::size_t Expire(base::Clock::time_point now) noexcept;

 private:
  using Key = std::array<unsigned char, 12>;
  struct Place {
    Key key{};
    std::uint32_t next_free = kNowhere;
    bool used = false;
    ClientTransaction* transaction = nullptr;
  };
  struct Mark {
    base::Clock::time_point due;
    std::uint32_t place;
  };

  std::vector<Place> places_;
  std::uint32_t first_free_ = kNowhere;
  std::deque<Mark> completed_;
};

}  // namespace sipcarrier
