#include "Sipcarrier/server_message.h"

#include <algorithm>
#include <array>
#include <memory>

#include "base/random.h"
#include "base/text.h"
#include "Sipcarrier/target.h"

namespace sipcarrier {
namespace {

constexpr std::string_view kCookie = "z9hG4bK";
constexpr int kSipPort = 5060;
// A list of options longer than this is no honest one, and an answer must not grow with it.
constexpr std::size_t kMaxOptions = 512;

std::string_view Param(const nsip_param_list& params, const char* name) {
  const nsip_generic_param* param = nullptr;
  return nsip_generic_param_get_byname(params, name, &param) == 0 ? param->value
                                                                  : std::string_view();
}

int SentByPort(const nsip_via& via) { return via.port == 0 ? kSipPort : via.port; }

bool AsksForPort(const nsip_via& via) {
  return nsip_generic_param_get_byname(via.params, "rport", nullptr) == 0;
}

// 128 random bits (RFC 3261 §19.3). false when the system gives none.
bool MakeTag(std::string& tag) {
  std::array<unsigned char, 16> bytes{};
  if (!base::FillRandom(bytes)) return false;
  tag = base::HexText(bytes);
  return true;
}

}  // namespace

std::string TransactionKey(const nsip_message& request) {
  const nsip_via& via = *request.vias.front();
  const std::string_view branch = Param(via.params, "branch");
  std::string key;
  // No part of a message holds a line end.
  const auto add = [&key](std::string_view part) { (key += part) += '\n'; };
  add(request.sip_method);
  add(base::LowerCase(via.host));
  add(std::to_string(SentByPort(via)));
  if (branch.starts_with(kCookie) && branch.size() > kCookie.size()) {
    add(branch);
    return key;
  }
  add(nsip_uri_text(*request.req_uri));
  add(Param(request.from->params, "tag"));
  add(Param(request.to->params, "tag"));
  add(request.call_id);
  add(std::to_string(request.cseq_number));
  add(via.transport);
  for (const nsip_generic_param& param : via.params) {
    add(param.name);
    add(param.value);
  }
  return key;
}

void NoteSource(nsip_via& via, const SocketAddress& from) {
  std::erase_if(via.params, [](const nsip_generic_param& param) {
    return base::EqualNoCase(param.name, "received");
  });
  const bool asked = AsksForPort(via);
  for (nsip_generic_param& param : via.params) {
    if (!base::EqualNoCase(param.name, "rport")) continue;
    param.value = std::to_string(from.port());
    param.has_value = true;
  }
  SocketAddress named;
  if (!asked && SocketAddress::FromLiteral(via.host, from.port(), named) && named == from) return;
  std::string host = from.Host();
  std::erase_if(host, [](char c) { return c == '[' || c == ']'; });  // RFC 3261 §25.1
  via.params.push_back({"received", std::move(host), true});
}

SocketAddress ResponseAddress(const nsip_via& via, const SocketAddress& from) {
  SocketAddress to = from;
  if (!AsksForPort(via)) to.set_port(static_cast<std::uint16_t>(SentByPort(via)));
  return to;
}

bool WriteHead(const nsip_message& request, std::string& head) {
  nsip_message answer;
  answer.status_code = 100;
  for (const auto& via : request.vias) answer.vias.push_back(std::make_unique<nsip_via>(*via));
  const auto copy = [](const nsip_from& address) {
    auto result = std::make_unique<nsip_from>();
    result->displayname = address.displayname;
    result->url = std::make_unique<nsip_uri>(*address.url);
    result->params = address.params;
    return result;
  };
  answer.from = copy(*request.from);
  answer.to = copy(*request.to);
  answer.call_id = request.call_id;
  answer.cseq_number = request.cseq_number;
  answer.cseq_method = request.cseq_method;
  return nsip_message_to_str(answer, head) == 0;
}

bool WriteResponse(std::string_view head, int status, std::string_view reason,
                   const std::vector<nsip_header>& headers, std::string_view to_tag,
                   std::string& text) {
  std::string why;
  const auto response = nsip_message_parse(head, why);
  if (response == nullptr) return false;
  response->status_code = status;
  response->reason_phrase = reason;
  if (nsip_generic_param_get_byname(response->to->params, "tag", nullptr) != 0) {
    std::string tag(to_tag);
    if (tag.empty() && !MakeTag(tag)) return false;
    if (!nsip_is_token(tag)) return false;
    response->to->params.push_back({"tag", std::move(tag), true});
  }
  for (const nsip_header& header : headers) {
    response->headers.items.push_back(std::make_unique<nsip_header>(header));
  }
  return nsip_message_to_str(*response, text) == 0;
}

std::string RequiredOptions(const nsip_message& request) {
  std::string result;
  nsip_header* header = nullptr;
  for (int at = -1;
       (at = nsip_message_header_get_byname(&request, "Require", at + 1, &header)) >= 0;) {
    std::string_view rest = header->hvalue;
    while (!rest.empty() && result.size() < kMaxOptions) {
      const std::size_t comma = std::min(rest.find(','), rest.size());
      const std::string_view option = base::Trim(rest.substr(0, comma));
      rest.remove_prefix(std::min(comma + 1, rest.size()));
      if (!nsip_is_token(option) || option.size() > kMaxOptions) continue;
      if (!result.empty()) result += ", ";
      result += option;
    }
  }
  return result;
}

}  // namespace sipcarrier
