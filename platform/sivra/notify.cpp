#include "sivra/notify.h"

#include <algorithm>
#include <array>
#include <utility>

#include "base/text.h"
#include "sivra/address.h"

namespace sivra {
namespace {

// "word;name=value;..."
bool ReadWord(const std::string& text, std::string_view& word, nsip_param_list& params) {
  const std::size_t end = std::min(text.find(';'), text.size());
  word = base::Trim(std::string_view(text).substr(0, end));
  // Parameters stand behind an address in the same form.
  nsip_from address;
  if (word.empty() || !nsip_from_parse("<sip:a>" + text.substr(end), address)) {
    return false;
  }
  params = std::move(address.params);
  return true;
}

std::optional<std::uint32_t> NumberOf(const nsip_param_list& params, const char* name) {
  std::uint32_t number = 0;
  return ReadNumber(ParamOf(params, name), number) ? std::optional(number) : std::nullopt;
}

// Whether the list (RFC 3261 §20.1) names the type; parameters do not count.
bool Accepts(std::string_view accept, std::string_view type) {
  while (!accept.empty()) {
    const std::string_view entry = accept.substr(0, accept.find(','));
    accept.remove_prefix(std::min(entry.size() + 1, accept.size()));
    if (base::EqualNoCase(base::Trim(entry.substr(0, entry.find(';'))), type)) {
      return true;
    }
  }
  return false;
}

}  // namespace

NotifyAnswer CheckNotify(const nsip_message& notify, const std::string& event,
                         const std::string& accept) {
  const std::string* const named = HeaderOf(notify, "Event");
  std::string_view word;
  nsip_param_list params;
  // The names of packages are compared byte by byte (RFC 6665 §8.2.1).
  if (named == nullptr || !ReadWord(*named, word, params) || word != event) {
    return {489, "Bad Event", {{"Allow-Events", event}}};
  }
  // None of ours has an id.
  if (!ParamOf(params, "id").empty()) {
    return {481, "Subscription Does Not Exist", {}};
  }
  SubscriptionState state;
  if (!ReadSubscriptionState(notify, state)) {
    return {400, "Subscription-State Missing", {}};
  }
  if (notify.body.empty()) {
    return {};
  }
  const std::string* const encoding = HeaderOf(notify, "Content-Encoding");
  if (encoding != nullptr && !base::EqualNoCase(base::Trim(*encoding), "identity")) {
    return {415, "Unsupported Media Type", {{"Accept", accept}, {"Accept-Encoding", "identity"}}};
  }
  const std::string* const type = HeaderOf(notify, "Content-Type");
  if (type == nullptr ||
      !Accepts(accept, base::Trim(std::string_view(*type).substr(0, type->find(';'))))) {
    return {415, "Unsupported Media Type", {{"Accept", accept}}};
  }
  return {};
}

bool ReadSubscriptionState(const nsip_message& notify, SubscriptionState& state) {
  using Reason = SubscriptionState::Reason;
  static constexpr std::array<std::pair<std::string_view, Reason>, 7> kReasons{{
      {"rejected", Reason::kFinal},
      {"noresource", Reason::kFinal},
      {"invariant", Reason::kFinal},
      {"deactivated", Reason::kAgain},
      {"timeout", Reason::kAgain},
      {"probation", Reason::kLater},
      {"giveup", Reason::kLater},
  }};
  const std::string* const value = HeaderOf(notify, "Subscription-State");
  std::string_view word;
  nsip_param_list params;
  if (value == nullptr || !ReadWord(*value, word, params) || !nsip_is_token(word)) {
    return false;
  }
  // A state that we do not know is one in which the subscription goes on.
  state.terminated = base::EqualNoCase(word, "terminated");
  state.reason_text = ParamOf(params, "reason");
  for (const auto& [name, reason] : kReasons) {
    if (base::EqualNoCase(state.reason_text, name)) {
      state.reason = reason;
    }
  }
  state.expires = NumberOf(params, "expires");
  state.retry_after = NumberOf(params, "retry-after");
  return true;
}

}  // namespace sivra
