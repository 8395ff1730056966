// Any bytes give a message or a reason; a message that is written and read again means the same.
#include <cstdint>
#include <cstdlib>
#include <sstream>
#include <string>
#include <string_view>

#include "nsip/nsip.h"

namespace {

void Require(bool holds) {
  if (!holds) std::abort();
}

std::string Address(const nsip_from& address) { return address.displayname + '\n' + nsip_from_text(address) + '\n'; }

// Everything that a message says, one fact a line; no header value holds a line end.
std::string Meaning(nsip_message& msg) {
  std::ostringstream text;
  text << msg.status_code << '\n' << msg.reason_phrase << '\n' << msg.sip_method << '\n';
  text << (msg.req_uri ? nsip_uri_text(*msg.req_uri) : "-") << '\n';
  text << Address(*msg.from) << Address(*msg.to) << msg.call_id << '\n' << msg.cseq_number;
  text << msg.cseq_method << '\n' << msg.max_forwards << msg.contact_star << '\n';
  for (const auto& via : msg.vias) {
    text << via->transport << ' ' << via->host << ' ' << via->port << '\n';
    for (const auto& p : via->params) text << p.name << p.has_value << p.value << '\n';
  }
  for (const auto* list : {&msg.routes, &msg.record_routes, &msg.contacts}) {
    text << "list\n";
    for (const auto& address : *list) text << Address(*address);
  }
  for (const auto& header : msg.headers.items) {
    Require(header->hvalue.find_first_of(std::string_view("\r\n\0", 3)) == std::string::npos);
    text << header->hname << '=' << header->hvalue << '\n';
  }
  nsip_from* entry = nullptr;
  for (int i = 0; nsip_message_get_p_associated_uri(&msg, i, &entry) >= 0; ++i) {
    text << (entry == nullptr ? "-\n" : Address(*entry));
  }
  return text.str() + msg.body;
}

void CheckMessage(std::string_view input) {
  std::string reason;
  const auto msg = nsip_message_parse(input, reason);
  Require((msg == nullptr) == !reason.empty());
  if (msg == nullptr) return;
  std::string text;
  // Full names take more room than compact ones; nothing else may stand in the way.
  if (nsip_message_to_str(*msg, text) != 0) return Require(input.size() > 4096);
  const auto again = nsip_message_parse(text, reason);
  Require(again != nullptr && Meaning(*msg) == Meaning(*again));
  std::string text_again;
  Require(nsip_message_to_str(*nsip_message_clone(*again), text_again) == 0 && text == text_again);
  for (const auto& header : msg->headers.items) {
    nsip_param_list params;
    static_cast<void>(nsip_auth_params_parse(header->hvalue, reason, params));
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view input(reinterpret_cast<const char*>(data), size);
  CheckMessage(input);
  nsip_from from;  // an address on its own, from texts that never were in a message
  nsip_from again;
  if (!nsip_from_parse(input, from)) return 0;
  Require(nsip_from_parse(nsip_from_text(from), again) && Address(from) == Address(again));
  Require(nsip_uri_equal(*from.url, *again.url));
  const std::string key = nsip_aor_key(*from.url);
  nsip_uri of_key;
  Require(key == nsip_aor_key(*again.url) && nsip_uri_parse(key, of_key) && nsip_aor_key(of_key) == key);
  return 0;
}
