#include "nsip/address.h"

#include <utility>

#include "base/text.h"
#include "nsip/chars.h"
#include "nsip/params.h"
#include "nsip/quoted.h"
#include "nsip/uri.h"

namespace nsip {
namespace {

// *(token LWS): what may stand before "<" without quotes. Runs of spaces would not survive that
// way.
bool is_token_sequence(std::string_view text) {
  for (;;) {
    const std::string_view word = text.substr(0, text.find(' '));
    if (!nsip_is_token(word)) {
      return false;
    }
    if (word.size() == text.size()) {
      return true;
    }
    text.remove_prefix(word.size() + 1);
  }
}

bool parse_uri_into(std::string_view text, nsip_from& from) {
  from.url = std::make_unique<nsip_uri>();
  return parse_uri(text, *from.url);
}

// addr-spec: a ';' starts header parameters; a URI that holds ',' or '?' must stand in "<>" (RFC
// 3261 §20.10).
bool parse_addr_spec(std::string_view text, nsip_from& from) {
  const std::string_view uri = text.substr(0, text.find(';'));
  return uri.find_first_of(",?") == std::string_view::npos &&
         parse_uri_into(base::TrimRight(uri), from) &&
         parse_params(text.substr(uri.size()), from.params);
}

// The text from "<" on.
bool parse_bracketed(std::string_view text, nsip_from& from) {
  const std::size_t end = text.find('>');
  return text.starts_with('<') && end != std::string_view::npos &&
         parse_uri_into(text.substr(1, end - 1), from) &&
         parse_params(text.substr(end + 1), from.params);
}

}  // namespace

bool parse_address(std::string_view text, nsip_from& from) {
  if (text.starts_with('"')) {
    const std::size_t length = quoted_length(text);
    if (length == 0) {
      return false;
    }
    from.displayname = unquote(text.substr(0, length));
    return parse_bracketed(base::TrimLeft(text.substr(length)), from);
  }
  const std::size_t open = text.find('<');
  const std::size_t quote = text.find('"');
  if (open == std::string_view::npos || quote < open) {
    // A quote before the "<" can be that of a parameter's value, which may hold any "<".
    if (parse_addr_spec(text, from)) {
      return true;
    }
    if (open == std::string_view::npos) {
      return false;
    }
    from = nsip_from();
  }
  from.displayname = base::TrimRight(text.substr(0, open));
  return parse_bracketed(text.substr(open), from);
}

bool append_address(const nsip_from& from, std::string& text) {
  if (from.url == nullptr || !is_clean(from.displayname)) {
    return false;
  }
  if (!from.displayname.empty()) {
    text += is_token_sequence(from.displayname) ? from.displayname : quote(from.displayname);
    text += ' ';
  }
  // Always in "<>", so that parameters of the URI and of the header stay apart.
  text += '<';
  if (!append_uri(*from.url, text)) {
    return false;
  }
  text += '>';
  return append_params(from.params, text);
}

}  // namespace nsip

bool nsip_from_parse(std::string_view text, nsip_from& from) {
  text = base::Trim(text);
  if (text.size() > kNsipMaxMessage || !nsip::is_clean(text)) {
    return false;
  }
  nsip_from result;
  if (!nsip::parse_address(text, result)) {
    return false;
  }
  from = std::move(result);
  return true;
}

std::string nsip_from_text(const nsip_from& from) {
  std::string text;
  if (!nsip::append_address(from, text)) {
    text.clear();
  }
  return text;
}
