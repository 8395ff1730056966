// The key of an address of record.
#include <algorithm>
#include <iterator>
#include <string>
#include <string_view>
#include <vector>

#include "base/text.h"
#include "nsip/host.h"
#include "nsip/nsip.h"
#include "nsip/uri.h"

namespace nsip {
namespace {

// Equal for numbers that RFC 3966 §5.1.4 calls equal.
void append_tel_key(std::string_view text, std::string& key) {
  const std::string_view number = text.substr(0, text.find(';'));
  const auto is_separator = [](char c) {
    return std::string_view("-.()").find(c) != std::string_view::npos;
  };
  const std::size_t before = key.size();
  std::remove_copy_if(number.begin(), number.end(), std::back_inserter(key), is_separator);
  if (key.size() == before) key += number;  // separators only: no number, but a key it has
  std::vector<std::string_view> params;
  for (text.remove_prefix(number.size()); !text.empty();) {
    text.remove_prefix(1);
    params.push_back(text.substr(0, text.find(';')));
    text.remove_prefix(params.back().size());
  }
  std::sort(params.begin(), params.end(), [](std::string_view a, std::string_view b) {
    return base::LowerCase(a) < base::LowerCase(b);
  });
  for (const std::string_view param : params) (key += ';') += param;
  key = base::LowerCase(key);
}

}  // namespace
}  // namespace nsip

std::string nsip_aor_key(const nsip_uri& uri) {
  std::string key = base::LowerCase(uri.scheme) + ':';
  if (!nsip::is_sip_scheme(uri.scheme)) {
    if (key == "tel:") {
      nsip::append_tel_key(uri.opaque, key);
    } else {
      key += uri.opaque;
    }
    return key;
  }
  const int default_port = key == "sips:" ? 5061 : 5060;
  if (!uri.user.empty()) (key += nsip_uri_normal(uri.user)) += '@';
  key += nsip::canonical_host(uri.host);
  if (uri.port != 0 && uri.port != default_port) (key += ':') += std::to_string(uri.port);
  return key;
}
