#include "Sipcarrier/target.h"

#include <algorithm>

#include "base/text.h"

namespace sipcarrier {
namespace {

constexpr std::uint16_t kSipPort = 5060;

}  // namespace

const nsip_uri* NextHop(const nsip_message& request) {
  if (!request.routes.empty() && request.routes.front() != nullptr) {
    return request.routes.front()->url.get();
  }
  return request.req_uri.get();
}

bool ChooseTarget(const nsip_uri& uri, Target& target, std::string& reason) {
  const nsip_generic_param* param = nullptr;
  if (uri.scheme == "sips") {
    reason = "transport not available: a sips URI needs TLS";
    return false;
  }
  if (uri.scheme != "sip") {
    reason = "cannot send to a \"" + uri.scheme + "\" URI";
    return false;
  }
  if (nsip_generic_param_get_byname(uri.params, "transport", &param) == 0 &&
      !base::EqualNoCase(param->value, "udp")) {
    reason = "transport not available: " + param->value;
    return false;
  }
  std::string_view host = uri.host;
  if (nsip_generic_param_get_byname(uri.params, "maddr", &param) == 0 && !param->value.empty()) {
    host = param->value;
  }
  if (host.empty() || uri.port < 0 || uri.port > 65535) {
    reason = "the URI names no host or no valid port";
    return false;
  }
  target.host = base::LowerCase(host);
  target.port = uri.port == 0 ? kSipPort : static_cast<std::uint16_t>(uri.port);
  target.literal = {};
  SocketAddress::FromLiteral(target.host, target.port, target.literal);
  return true;
}

}  // namespace sipcarrier
