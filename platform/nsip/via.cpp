#include "nsip/via.h"

#include "base/text.h"
#include "nsip/chars.h"
#include "nsip/host.h"
#include "nsip/params.h"

namespace nsip {
namespace {

constexpr std::string_view kProtocol = "SIP/2.0";

// Takes a token and the '/' behind it off the text.
bool take_part(std::string_view& text, std::string_view expected) {
  const std::size_t slash = text.find('/');
  if (slash == std::string_view::npos ||
      !base::EqualNoCase(base::Trim(text.substr(0, slash)), expected)) {
    return false;
  }
  text.remove_prefix(slash + 1);
  return true;
}

}  // namespace

bool parse_via(std::string_view text, nsip_via& via) {
  if (!take_part(text, "SIP") || !take_part(text, "2.0")) {
    return false;
  }
  via.protocol = kProtocol;
  text = base::Trim(text);
  const std::size_t length = span_of(text, kToken);
  via.transport = text.substr(0, length);
  text.remove_prefix(length);
  if (length == 0 || text.empty() || !base::IsBlank(text.front())) {
    return false;
  }
  const std::string_view sent_by = text.substr(0, text.find(';'));
  return parse_hostport(base::Trim(sent_by), true, via.host, via.port) &&
         parse_params(text.substr(sent_by.size()), via.params);
}

bool append_via(const nsip_via& via, std::string& text) {
  if (!base::EqualNoCase(via.protocol, kProtocol) || !nsip_is_token(via.transport)) {
    return false;
  }
  text += kProtocol;
  text += '/';
  text += via.transport;
  text += ' ';
  return append_hostport(via.host, via.port, text) && append_params(via.params, text);
}

}  // namespace nsip
