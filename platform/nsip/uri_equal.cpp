// Comparison of URIs (RFC 3261 §19.1.4).
#include <algorithm>
#include <array>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "base/text.h"
#include "nsip/chars.h"
#include "nsip/host.h"
#include "nsip/nsip.h"
#include "nsip/params.h"
#include "nsip/uri.h"

// '%' itself stays escaped, or "%2541" would become "%41".
std::string nsip_uri_normal(std::string_view text) {
  using namespace nsip;
  constexpr std::string_view kHex = "0123456789ABCDEF";
  std::string result;
  result.reserve(text.size());
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '%' || text.size() - i < 3 || !is(text[i + 1], kHexDigit) ||
        !is(text[i + 2], kHexDigit)) {
      result += text[i];
      continue;
    }
    const int value = hex_value(text[i + 1]) * 16 + hex_value(text[i + 2]);
    const char c = static_cast<char>(value);
    if (is(c, kReserved) || c == '%') {
      result += '%';
      result += kHex[static_cast<std::size_t>(value / 16)];
      result += kHex[static_cast<std::size_t>(value % 16)];
    } else {
      result += c;
    }
    i += 2;
  }
  return result;
}

namespace nsip {
namespace {

bool equal_with_case(std::string_view a, std::string_view b) {
  return a == b || nsip_uri_normal(a) == nsip_uri_normal(b);
}

bool equal_without_case(std::string_view a, std::string_view b) {
  return base::EqualNoCase(a, b) || base::EqualNoCase(nsip_uri_normal(a), nsip_uri_normal(b));
}

const nsip_generic_param* find_equal_name(const nsip_param_list& params, std::string_view name) {
  const auto found = std::find_if(params.begin(), params.end(), [name](const auto& param) {
    return equal_without_case(param.name, name);
  });
  return found == params.end() ? nullptr : &*found;
}

// These change where or how a request goes, so one that has them never equals one that has not.
bool must_be_in_both(std::string_view name) {
  constexpr std::array<std::string_view, 5> kNames = {"transport", "user", "ttl", "method",
                                                      "maddr"};
  return std::any_of(kNames.begin(), kNames.end(), [name](std::string_view special) {
    return equal_without_case(name, special);
  });
}

// Everything in a that b has must be equal there; what b has not must not be one of the special
// ones.
bool params_agree(const nsip_param_list& a, const nsip_param_list& b) {
  return std::all_of(a.begin(), a.end(), [&b](const nsip_generic_param& param) {
    const nsip_generic_param* other = find_equal_name(b, param.name);
    if (other == nullptr) {
      return !must_be_in_both(param.name);
    }
    return param.has_value == other->has_value && equal_without_case(param.value, other->value);
  });
}

// Headers are never ignored, but their order is.
std::vector<std::string> sorted_headers(std::string_view text) {
  std::vector<std::string> headers;
  while (!text.empty()) {
    const std::string_view header = text.substr(0, text.find('&'));
    headers.push_back(base::LowerCase(nsip_uri_normal(header)));
    text.remove_prefix(std::min(text.size(), header.size() + 1));
  }
  std::sort(headers.begin(), headers.end());
  return headers;
}

}  // namespace
}  // namespace nsip

bool nsip_uri_equal(const nsip_uri& a, const nsip_uri& b) {
  if (!base::EqualNoCase(a.scheme, b.scheme)) {
    return false;
  }
  if (!nsip::is_sip_scheme(a.scheme)) {
    return a.opaque == b.opaque;
  }
  return nsip::equal_with_case(a.user, b.user) && nsip::equal_with_case(a.password, b.password) &&
         nsip::same_host(a.host, b.host) && a.port == b.port &&
         nsip::params_agree(a.params, b.params) && nsip::params_agree(b.params, a.params) &&
         nsip::sorted_headers(a.headers) == nsip::sorted_headers(b.headers);
}
