// Addresses as registrations and subscriptions use them. Functions without state, for any thread;
// nothing is thrown but std::bad_alloc.
#pragma once

#include <string>
#include <string_view>

#include "nsip/nsip.h"
#include "Sipcarrier/Sipcarrier.h"

namespace sivra {

// Digits only, any number of them; what is above 2^32-1 reads as that. false: no number.
[[nodiscard]] bool ReadNumber(std::string_view text, std::uint32_t& number);

// The value of the first header of this name, or null.
[[nodiscard]] const std::string* HeaderOf(const nsip_message& message, const char* name);
// The value of the parameter; empty when there is none.
[[nodiscard]] std::string_view ParamOf(const nsip_param_list& params, const char* name);

[[nodiscard]] bool IsSip(const nsip_uri& uri);
// addr-spec or name-addr: sip:, sips: or tel:.
[[nodiscard]] bool ReadAddress(const std::string& text, nsip_from& address);
// Takes off what RFC 3261 §19.1.1 (table 1) bars from To and From.
void MakeAddressOfRecord(nsip_from& address);
// Where answers and requests from the other side are to arrive.
void SetAddress(nsip_uri& uri, const sipcarrier::Endpoint& local);

}  // namespace sivra
