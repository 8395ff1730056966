// Challenges and credentials (RFC 3261 §20.44, §25.1): scheme LWS name=value *("," name=value).
#include <string>
#include <string_view>
#include <utility>

#include "base/text.h"
#include "nsip/chars.h"
#include "nsip/nsip.h"
#include "nsip/params.h"
#include "nsip/quoted.h"

namespace nsip {
namespace {

// Takes one name=value off the text.
bool take_auth_param(std::string_view& text, nsip_generic_param& param) {
  std::size_t length = span_of(text, kToken);
  param.name = text.substr(0, length);
  text = base::TrimLeft(text.substr(length));
  if (length == 0 || !text.starts_with('=')) {
    return false;
  }
  text = base::TrimLeft(text.substr(1));
  const bool quoted = text.starts_with('"');
  length = quoted ? quoted_length(text) : span_of(text, kToken);
  if (length == 0) {
    return false;
  }
  param.value = quoted ? unquote(text.substr(0, length)) : std::string(text.substr(0, length));
  param.has_value = true;
  text = base::TrimLeft(text.substr(length));
  return true;
}

}  // namespace
}  // namespace nsip

bool nsip_auth_params_parse(std::string_view text, std::string& scheme, nsip_param_list& params) {
  text = base::Trim(text);
  const std::size_t length = nsip::span_of(text, nsip::kToken);
  if (length == 0 || length == text.size() || !base::IsBlank(text[length]) ||
      text.size() > kNsipMaxMessage || !nsip::is_clean(text)) {
    return false;
  }
  const std::string_view word = text.substr(0, length);
  text = base::TrimLeft(text.substr(length));
  nsip_param_list result;
  for (;;) {
    nsip_generic_param param;
    if (!nsip::take_auth_param(text, param) || !nsip::add_param(result, std::move(param))) {
      return false;
    }
    if (text.empty()) {
      break;
    }
    if (text.front() != ',') {
      return false;
    }
    text = base::TrimLeft(text.substr(1));
  }
  scheme = word;
  params = std::move(result);
  return true;
}
