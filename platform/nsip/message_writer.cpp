// Writing of messages: every part is checked again, since fields can be filled by hand, so that
// nothing goes out that would be read as something else.
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "nsip/address.h"
#include "nsip/chars.h"
#include "nsip/header_names.h"
#include "nsip/nsip.h"
#include "nsip/uri.h"
#include "nsip/via.h"

namespace nsip {
namespace {

constexpr std::string_view kEnd = "\r\n";

bool append_start_line(const nsip_message& msg, std::string& text) {
  if (msg.status_code == 0) {
    if (!nsip_is_token(msg.sip_method) || msg.req_uri == nullptr ||
        msg.cseq_method != msg.sip_method) {
      return false;
    }
    text += msg.sip_method;
    text += ' ';
    if (!append_uri(*msg.req_uri, text)) {
      return false;
    }
    text += " SIP/2.0\r\n";
    return true;
  }
  if (msg.status_code < 100 || msg.status_code > 699 || !is_clean(msg.reason_phrase)) {
    return false;
  }
  text += "SIP/2.0 ";
  append_number(static_cast<std::uint32_t>(msg.status_code), text);
  text += ' ';
  text += msg.reason_phrase;
  text += kEnd;
  return true;
}

bool append_vias(const nsip_message& msg, std::string_view first_via, std::string& text) {
  if (!first_via.empty()) {
    text += "Via: ";
    text += first_via;
    text += kEnd;
  }
  for (const auto& via : msg.vias) {
    text += "Via: ";
    if (via == nullptr || !append_via(*via, text)) {
      return false;
    }
    text += kEnd;
  }
  return !msg.vias.empty() || !first_via.empty();
}

bool append_address_line(std::string_view name, const nsip_from* address, std::string& text) {
  text += name;
  if (address == nullptr || !append_address(*address, text)) {
    return false;
  }
  text += kEnd;
  return true;
}

bool append_addresses(std::string_view name,
                      const std::vector<std::unique_ptr<nsip_from>>& addresses, std::string& text) {
  for (const auto& address : addresses) {
    if (!append_address_line(name, address.get(), text)) {
      return false;
    }
  }
  return true;
}

bool append_contacts(const nsip_message& msg, std::string& text) {
  if (msg.contact_star) {
    text += "Contact: *\r\n";
    return msg.contacts.empty();
  }
  return append_addresses("Contact: ", msg.contacts, text);
}

bool append_call(const nsip_message& msg, std::string& text) {
  if (!is_call_id(msg.call_id) || !nsip_is_token(msg.cseq_method) || msg.max_forwards > 255) {
    return false;
  }
  text += "Call-ID: ";
  text += msg.call_id;
  text += "\r\nCSeq: ";
  append_number(msg.cseq_number, text);
  text += ' ';
  text += msg.cseq_method;
  text += kEnd;
  if (msg.max_forwards >= 0) {
    text += "Max-Forwards: ";
    append_number(static_cast<std::uint32_t>(msg.max_forwards), text);
    text += kEnd;
  }
  return true;
}

// Headers that have a field of their own must not come a second time from the list.
bool append_others(const nsip_message& msg, std::string& text) {
  for (const auto& header : msg.headers.items) {
    if (header == nullptr || !nsip_is_token(header->hname) || !is_clean(header->hvalue) ||
        header_id(header->hname) != HeaderId::kOther) {
      return false;
    }
    text += full_header_name(header->hname);
    text += ": ";
    text += header->hvalue;
    text += kEnd;
  }
  return true;
}

}  // namespace
}  // namespace nsip

int nsip_message_to_str(const nsip_message& msg, std::string& text, std::string_view first_via) {
  std::string result;
  result.reserve(1024 + msg.body.size());
  if (!nsip::append_start_line(msg, result) || !nsip::append_vias(msg, first_via, result) ||
      !nsip::append_addresses("Route: ", msg.routes, result) ||
      !nsip::append_addresses("Record-Route: ", msg.record_routes, result) ||
      !nsip::append_address_line("From: ", msg.from.get(), result) ||
      !nsip::append_address_line("To: ", msg.to.get(), result) || !nsip::append_call(msg, result) ||
      !nsip::append_contacts(msg, result) || !nsip::append_others(msg, result)) {
    return -1;
  }
  result += "Content-Length: ";
  result += std::to_string(msg.body.size());
  result += "\r\n\r\n";
  result += msg.body;
  if (result.size() > kNsipMaxMessage) {
    return -1;
  }
  text = std::move(result);
  return 0;
}
