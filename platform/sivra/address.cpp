#include "sivra/address.h"

#include <algorithm>
#include <limits>
#include <memory>

#include "base/text.h"

namespace sivra {

bool ReadNumber(std::string_view text, std::uint32_t& number) {
  std::uint64_t value = 0;
  for (const char c : text) {
    if (c < '0' || c > '9') {
      return false;
    }
    value = std::min<std::uint64_t>(value * 10 + static_cast<unsigned>(c - '0'),
                                    std::numeric_limits<std::uint32_t>::max());
  }
  number = static_cast<std::uint32_t>(value);
  return !text.empty();
}

const std::string* HeaderOf(const nsip_message& message, const char* name) {
  nsip_header* header = nullptr;
  return nsip_message_header_get_byname(&message, name, 0, &header) < 0 ? nullptr : &header->hvalue;
}

std::string_view ParamOf(const nsip_param_list& params, const char* name) {
  const nsip_generic_param* param = nullptr;
  return nsip_generic_param_get_byname(params, name, &param) == 0 ? param->value
                                                                  : std::string_view();
}

bool IsSip(const nsip_uri& uri) { return uri.scheme == "sip" || uri.scheme == "sips"; }

// A text without angle brackets is a URI as a whole: read as a From header,
// "sip:+49@example.com;user=phone" would lose its parameter to the header (RFC 3261 §20.10).
bool ReadAddress(const std::string& text, nsip_from& address) {
  if (text.find('<') == std::string::npos) {
    address.url = std::make_unique<nsip_uri>();
    if (!nsip_uri_parse(text, *address.url)) {
      return false;
    }
  } else if (!nsip_from_parse(text, address) || !address.url) {
    return false;
  }
  // tel: is no address of record by RFC 3261 §10.2, but networks hand it out as an associated URI
  // (RFC 7315 §4.1); whether they take it back is for them to say.
  return IsSip(*address.url) || address.url->scheme == "tel";
}

// A port stays: some addresses of record have one.
void MakeAddressOfRecord(nsip_from& address) {
  address.params.clear();
  nsip_uri& uri = *address.url;
  if (!IsSip(uri)) {
    return;
  }
  uri.password.clear();
  uri.headers.clear();
  std::erase_if(uri.params, [](const nsip_generic_param& param) {
    return base::EqualNoCase(param.name, "method") || base::EqualNoCase(param.name, "maddr") ||
           base::EqualNoCase(param.name, "ttl") || base::EqualNoCase(param.name, "transport") ||
           base::EqualNoCase(param.name, "lr");
  });
}

void SetAddress(nsip_uri& uri, const sipcarrier::Endpoint& local) {
  uri.host = local.host;
  uri.port = local.port;
  std::erase_if(uri.params, [](const nsip_generic_param& param) {
    return base::EqualNoCase(param.name, "transport");
  });
  if (!base::EqualNoCase(local.transport, "UDP")) {
    uri.params.push_back({"transport", local.transport, true});
  }
}

}  // namespace sivra
