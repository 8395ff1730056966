// Any bytes give a message or a reason; a message that is written and read again means the same.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "nsip/nsip.h"

namespace {

void Require(bool holds) {
  if (!holds) {
    std::abort();
  }
}

template <class List>
std::string Addresses(const List& list) {
  std::string text;
  for (const auto& address : list) {
    text += address->displayname + '\n' + nsip_from_text(*address) + '\n';
  }
  return text;
}

// Everything that a message says, one fact a line; no header value holds a line end.
std::string Meaning(nsip_message& msg) {
  std::string text = std::to_string(msg.status_code) + '\n' + msg.reason_phrase + '\n';
  text += msg.sip_method + '\n' + (msg.req_uri ? nsip_uri_text(*msg.req_uri) : "-") + '\n';
  text += msg.from->displayname + '\n' + nsip_from_text(*msg.from) + '\n';
  text += msg.to->displayname + '\n' + nsip_from_text(*msg.to) + '\n';
  for (const auto& via : msg.vias) {
    text += via->transport + ' ' + via->host + ' ' + std::to_string(via->port) + '\n';
    for (const nsip_generic_param& param : via->params) {
      text += param.name + (param.has_value ? "=" : "") + param.value + '\n';
    }
  }
  text += "routes\n" + Addresses(msg.routes) + "record\n" + Addresses(msg.record_routes);
  text += "contacts\n" + Addresses(msg.contacts) + (msg.contact_star ? "*\n" : "");
  text += msg.call_id + '\n' + std::to_string(msg.cseq_number) + msg.cseq_method + '\n';
  text += std::to_string(msg.max_forwards) + '\n';
  for (const auto& header : msg.headers.items) {
    Require(header->hvalue.find_first_of(std::string_view("\r\n\0", 3)) == std::string::npos);
    text += header->hname + '=' + header->hvalue + '\n';
  }
  nsip_from* entry = nullptr;
  for (int i = 0; nsip_message_get_p_associated_uri(&msg, i, &entry) >= 0; ++i) {
    text += entry == nullptr ? "-\n" : nsip_from_text(*entry) + '\n';
  }
  return text + msg.body;
}

void CheckMessage(std::string_view input) {
  std::string reason;
  const auto msg = nsip_message_parse(input, reason);
  Require((msg == nullptr) == !reason.empty());
  if (msg == nullptr) {
    return;
  }
  std::string text;
  if (nsip_message_to_str(*msg, text) != 0) {
    // Full names take more room than compact ones; nothing else may stand in the way.
    Require(input.size() > 4096);
    return;
  }
  const auto again = nsip_message_parse(text, reason);
  Require(again != nullptr);
  Require(Meaning(*msg) == Meaning(*again));
  std::string text_again;
  Require(nsip_message_to_str(*nsip_message_clone(*again), text_again) == 0 && text == text_again);
  for (const auto& header : msg->headers.items) {
    std::string scheme;
    nsip_param_list params;
    static_cast<void>(nsip_auth_params_parse(header->hvalue, scheme, params));
  }
}

// An address on its own, from texts that never were in a message.
void CheckAddress(std::string_view input) {
  nsip_from from;
  if (!nsip_from_parse(input, from)) {
    return;
  }
  const std::string text = nsip_from_text(from);
  nsip_from again;
  Require(!text.empty() && nsip_from_parse(text, again));
  Require(from.displayname == again.displayname && nsip_uri_equal(*from.url, *again.url));
  Require(text == nsip_from_text(again));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view input(reinterpret_cast<const char*>(data), size);
  CheckMessage(input);
  CheckAddress(input);
  return 0;
}
