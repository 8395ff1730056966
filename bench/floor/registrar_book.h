// What the registrar of the measurements knows of its bindings, and how punctual their clients are.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <unordered_map>

namespace bench {

using Nanoseconds = std::int64_t;  // on the monotonic clock

// How late refreshes come: what passed since the REGISTER before, beyond the share of the granted
// expiry at which the clients refresh.
struct Punctuality {
  Nanoseconds max_gap = 0;
  Nanoseconds max_late = 0;
  std::size_t late_over_1s = 0;  // bindings that were so once at least
};

// Bindings by their Contact, one REGISTER after the other. Not thread-safe.
class RegistrarBook {
 public:
  // Clients refresh at this share of the grant.
  explicit RegistrarBook(double refresh_at) : refresh_at_(refresh_at) {}

  enum class Kind { kNew, kRefresh, kRepeat, kRemoval };
  Kind Register(std::string_view contact, std::string_view call_id, std::uint32_t cseq,
                std::int64_t granted_s, Nanoseconds now);
  // The bindings, and with `counts` what has been counted as well.
  void Clear(bool counts);
  // Takes out what ran out.
  void Sweep(Nanoseconds now);

  [[nodiscard]] std::size_t bound() const { return bindings_.size(); }
  [[nodiscard]] std::uint64_t lapsed() const { return lapsed_; }
  [[nodiscard]] std::uint64_t cseq_not_above() const { return cseq_not_above_; }
  // Those that are overdue now count with what they are late already.
  [[nodiscard]] Punctuality Lateness(Nanoseconds now) const;

 private:
  struct Binding {
    std::uint64_t call = 0;
    std::uint32_t cseq = 0;
    bool late_over_1s = false;
    Nanoseconds granted = 0;
    Nanoseconds last = 0;
  };
  [[nodiscard]] Nanoseconds LateBy(const Binding& binding, Nanoseconds now) const;
  void NoteGap(Binding& binding, Nanoseconds now);

  const double refresh_at_;
  std::unordered_map<std::uint64_t, Binding> bindings_;  // by the hash of the Contact
  Punctuality punctuality_;
  std::uint64_t lapsed_ = 0;
  std::uint64_t cseq_not_above_ = 0;
};

}  // namespace bench
