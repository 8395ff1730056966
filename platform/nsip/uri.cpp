#include "nsip/uri.h"

#include <utility>

#include "base/text.h"
#include "nsip/chars.h"
#include "nsip/host.h"
#include "nsip/params.h"

namespace nsip {
namespace {

bool is_scheme(std::string_view text) {
  return !text.empty() && is(text.front(), kAlpha) && all_of(text, kScheme);
}

bool is_user(std::string_view text) { return !text.empty() && all_of_or_escaped(text, kUser); }

bool parse_userinfo(std::string_view text, nsip_uri& uri) {
  const std::size_t colon = text.find(':');
  uri.user = text.substr(0, colon);
  if (colon != std::string_view::npos) {
    // An empty password is none: it tells nobody anything.
    uri.password = text.substr(colon + 1);
  }
  return is_user(uri.user) && all_of_or_escaped(uri.password, kPassword);
}

// hname "=" hvalue, separated by '&'; a value can be empty.
bool is_uri_headers(std::string_view text) {
  for (;;) {
    const std::string_view header = text.substr(0, text.find('&'));
    const std::size_t equals = header.find('=');
    if (equals == 0 || equals == std::string_view::npos ||
        !all_of_or_escaped(header.substr(0, equals), kUriHeader) ||
        !all_of_or_escaped(header.substr(equals + 1), kUriHeader)) {
      return false;
    }
    if (header.size() == text.size()) {
      return true;
    }
    text.remove_prefix(header.size() + 1);
  }
}

// What stands behind "sip:". An '@' can only stand behind the user: elsewhere it must be escaped.
bool parse_sip_part(std::string_view text, nsip_uri& uri) {
  const std::size_t at = text.find('@');
  if (at != std::string_view::npos) {
    if (!parse_userinfo(text.substr(0, at), uri)) {
      return false;
    }
    text.remove_prefix(at + 1);
  }
  const std::size_t mark = text.find('?');
  if (mark != std::string_view::npos) {
    uri.headers = text.substr(mark + 1);
    if (!is_uri_headers(uri.headers)) {
      return false;
    }
    text = text.substr(0, mark);
  }
  const std::string_view hostport = text.substr(0, text.find(';'));
  return parse_hostport(hostport, false, uri.host, uri.port) &&
         parse_uri_params(text.substr(hostport.size()), uri.params);
}

}  // namespace

bool is_sip_scheme(std::string_view scheme) {
  return base::EqualNoCase(scheme, "sip") || base::EqualNoCase(scheme, "sips");
}

bool append_uri(const nsip_uri& uri, std::string& text) {
  if (!is_scheme(uri.scheme)) {
    return false;
  }
  text += uri.scheme;
  text += ':';
  if (!is_sip_scheme(uri.scheme)) {
    text += uri.opaque;
    return !uri.opaque.empty() && all_of_or_escaped(uri.opaque, kOpaque);
  }
  if (!uri.user.empty()) {
    text += uri.user;
    if (!uri.password.empty()) {
      text += ':';
      text += uri.password;
    }
    text += '@';
    if (!is_user(uri.user) || !all_of_or_escaped(uri.password, kPassword)) {
      return false;
    }
  } else if (!uri.password.empty()) {
    return false;
  }
  if (!append_hostport(uri.host, uri.port, text) || !append_uri_params(uri.params, text)) {
    return false;
  }
  if (!uri.headers.empty()) {
    text += '?';
    text += uri.headers;
    return is_uri_headers(uri.headers);
  }
  return true;
}

}  // namespace nsip

bool nsip::parse_uri(std::string_view text, nsip_uri& uri) {
  const std::size_t colon = text.find(':');
  if (text.size() > kNsipMaxMessage || colon == std::string_view::npos ||
      !is_scheme(text.substr(0, colon))) {
    return false;
  }
  uri.scheme = base::LowerCase(text.substr(0, colon));
  text.remove_prefix(colon + 1);
  if (is_sip_scheme(uri.scheme)) {
    return parse_sip_part(text, uri);
  }
  uri.opaque = text;
  return !text.empty() && all_of_or_escaped(text, kOpaque);
}

bool nsip_uri_parse(std::string_view text, nsip_uri& uri) {
  nsip_uri result;
  if (!nsip::parse_uri(text, result)) {
    return false;
  }
  uri = std::move(result);
  return true;
}

std::string nsip_uri_text(const nsip_uri& uri) {
  std::string text;
  if (!nsip::append_uri(uri, text)) {
    text.clear();
  }
  return text;
}
