#include "registrar/response.h"

#include <algorithm>

#include "registrar/digest.h"

namespace registrar {
namespace {

constexpr std::size_t kMaxResponses = 65536;
constexpr std::chrono::seconds kResponseLife{32};
constexpr std::uint16_t kSipPort = 5060;

const char* UsualPhrase(int status) {
  switch (status) {
    case 100:
      return "Trying";
    case 200:
      return "OK";
    case 301:
      return "Moved Permanently";
    case 302:
      return "Moved Temporarily";
    case 400:
      return "Bad Request";
    case 401:
      return "Unauthorized";
    case 403:
      return "Forbidden";
    case 404:
      return "Not Found";
    case 405:
      return "Method Not Allowed";
    case 406:
      return "Not Acceptable";
    case 407:
      return "Proxy Authentication Required";
    case 408:
      return "Request Timeout";
    case 416:
      return "Unsupported URI Scheme";
    case 420:
      return "Bad Extension";
    case 423:
      return "Interval Too Brief";
    case 480:
      return "Temporarily Unavailable";
    case 481:
      return "Call/Transaction Does Not Exist";
    case 486:
      return "Busy Here";
    case 489:
      return "Bad Event";
    case 500:
      return "Server Internal Error";
    case 503:
      return "Service Unavailable";
    case 504:
      return "Server Time-out";
    case 600:
      return "Busy Everywhere";
    default:
      return "Scripted Response";
  }
}

const nsip_generic_param* Param(const nsip_param_list& params, const char* name) {
  const nsip_generic_param* param = nullptr;
  return nsip_generic_param_get_byname(params, name, &param) == 0 ? param : nullptr;
}

void SetParam(nsip_param_list& params, const char* name, std::string value) {
  for (nsip_generic_param& param : params) {
    const nsip_generic_param* same = nullptr;
    if (nsip_generic_param_get_byname({param}, name, &same) == 0) {
      param.value = std::move(value);
      param.has_value = true;
      return;
    }
  }
  params.push_back({name, std::move(value), true});
}

// The sent-by host as a literal without brackets.
std::string_view BareHost(std::string_view host) {
  if (host.size() >= 2 && host.front() == '[' && host.back() == ']') {
    return host.substr(1, host.size() - 2);
  }
  return host;
}

}  // namespace

bool HasWhatAResponseNeeds(const nsip_message& request) {
  return request.status_code == 0 && !request.sip_method.empty() && !request.vias.empty() &&
         request.vias.front() && request.from && request.to && request.to->url &&
         !request.call_id.empty() && !request.cseq_method.empty();
}

std::string WriteResponse(const nsip_message& request, Response response, const Peer& from) {
  const std::unique_ptr<nsip_message> message = nsip_message_clone(request);
  message->status_code = response.status;
  message->reason_phrase = response.reason.empty() ? UsualPhrase(response.status) : response.reason;
  message->sip_method.clear();
  message->req_uri.reset();
  message->routes.clear();
  if (response.to_tag.empty()) message->record_routes.clear();
  message->contacts = std::move(response.contacts);
  message->contact_star = false;
  message->headers.items.clear();
  message->body.clear();
  message->max_forwards = -1;

  nsip_via& via = *message->vias.front();
  const bool rport = Param(via.params, "rport") != nullptr;
  if (rport || BareHost(via.host) != from.Host()) SetParam(via.params, "received", from.Host());
  if (rport) SetParam(via.params, "rport", std::to_string(from.Port()));
  if (Param(message->to->params, "tag") == nullptr) {
    message->to->params.push_back(
        {"tag", response.to_tag.empty() ? RandomHex(6) : response.to_tag, true});
  }

  std::string text;
  if (nsip_message_to_str(*message, text) != 0) return {};
  std::string lines;
  for (const auto& [name, value] : response.headers) {
    lines.append(name).append(": ").append(value).append("\r\n");
  }
  // Scripted headers may be ones that a message keeps in fields of its own, or wrong on purpose, so
  // they go into the text.
  const std::size_t end = text.find("\r\n\r\n");
  if (end != std::string::npos) text.insert(end + 2, lines);
  return text;
}

Peer ResponseTarget(const nsip_message& request, const Peer& from) {
  Peer target = from;
  const nsip_via& via = *request.vias.front();
  if (Param(via.params, "rport") == nullptr) {
    target.SetPort(via.port > 0 && via.port <= 65535 ? static_cast<std::uint16_t>(via.port)
                                                     : kSipPort);
  }
  return target;
}

std::string TransactionKey(const nsip_message& request) {
  const nsip_via& via = *request.vias.front();
  const nsip_generic_param* branch = Param(via.params, "branch");
  std::string key = request.sip_method + "\n" + via.host + ":" + std::to_string(via.port) + "\n";
  if (branch != nullptr && branch->value.starts_with(kMagicCookie)) return key + branch->value;
  // A branch without the cookie tells nothing; then the message as a whole does.
  const nsip_generic_param* tag = Param(request.from->params, "tag");
  key.append(request.call_id).append("\n").append(std::to_string(request.cseq_number));
  if (tag != nullptr) key.append("\n").append(tag->value);
  if (request.req_uri) key.append("\n").append(nsip_uri_text(*request.req_uri));
  return key;
}

const ResponseCache::Entry* ResponseCache::Find(const std::string& key) const {
  const auto found = entries_.find(key);
  return found == entries_.end() ? nullptr : &found->second;
}

void ResponseCache::Put(const std::string& key, Entry entry, Clock::time_point now) {
  while (entries_.size() >= kMaxResponses) DropOldest();
  order_.emplace_back(now, key);
  entries_.insert_or_assign(key, std::move(entry));
}

void ResponseCache::Settle(const std::string& key) {
  if (const auto found = entries_.find(key); found != entries_.end()) found->second.settled = true;
}

void ResponseCache::Expire(Clock::time_point now) {
  while (!order_.empty() && order_.front().first + kResponseLife <= now) DropOldest();
}

void ResponseCache::Clear() {
  entries_.clear();
  order_.clear();
}

void ResponseCache::DropOldest() {
  entries_.erase(order_.front().second);
  order_.pop_front();
}

}  // namespace registrar
