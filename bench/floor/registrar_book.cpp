#include "floor/registrar_book.h"

#include <algorithm>
#include <functional>

namespace bench {
namespace {

constexpr Nanoseconds kSecond = 1'000'000'000;

}  // namespace

RegistrarBook::Kind RegistrarBook::Register(std::string_view contact, std::string_view call_id,
                                            std::uint32_t cseq, std::int64_t granted_s,
                                            Nanoseconds now) {
  const std::uint64_t key = std::hash<std::string_view>()(contact);
  const std::uint64_t call = std::hash<std::string_view>()(call_id);
  const auto [at, made] = bindings_.try_emplace(key);
  Binding& binding = at->second;
  const bool same_call = !made && binding.call == call;
  if (same_call && cseq == binding.cseq && granted_s > 0) return Kind::kRepeat;
  if (same_call && cseq < binding.cseq) ++cseq_not_above_;
  if (!made) NoteGap(binding, now);
  if (granted_s <= 0) {
    bindings_.erase(at);
    return Kind::kRemoval;
  }
  binding.call = call;
  binding.cseq = cseq;
  binding.granted = granted_s * kSecond;
  binding.last = now;
  return made ? Kind::kNew : Kind::kRefresh;
}

Nanoseconds RegistrarBook::LateBy(const Binding& binding, Nanoseconds now) const {
  const auto due = static_cast<Nanoseconds>(refresh_at_ * static_cast<double>(binding.granted));
  return std::max<Nanoseconds>(now - binding.last - due, 0);
}

void RegistrarBook::NoteGap(Binding& binding, Nanoseconds now) {
  const Nanoseconds late = LateBy(binding, now);
  punctuality_.max_gap = std::max(punctuality_.max_gap, now - binding.last);
  punctuality_.max_late = std::max(punctuality_.max_late, late);
  if (late > kSecond && !binding.late_over_1s) {
    binding.late_over_1s = true;
    ++punctuality_.late_over_1s;
  }
  if (now - binding.last > binding.granted) ++lapsed_;
}

void RegistrarBook::Clear(bool counts) {
  bindings_.clear();
  if (!counts) return;
  punctuality_ = {};
  lapsed_ = 0;
  cseq_not_above_ = 0;
}

void RegistrarBook::Sweep(Nanoseconds now) {
  for (auto at = bindings_.begin(); at != bindings_.end();) {
    if (now - at->second.last > at->second.granted) {
      NoteGap(at->second, now);
      at = bindings_.erase(at);
    } else {
      ++at;
    }
  }
}

Punctuality RegistrarBook::Lateness(Nanoseconds now) const {
  Punctuality result = punctuality_;
  for (const auto& [key, binding] : bindings_) {
    const Nanoseconds late = LateBy(binding, now);
    result.max_gap = std::max(result.max_gap, now - binding.last);
    result.max_late = std::max(result.max_late, late);
    if (late > kSecond && !binding.late_over_1s) ++result.late_over_1s;
  }
  return result;
}

}  // namespace bench
