#include "nsip/params.h"

#include <utility>

#include "base/text.h"
#include "nsip/chars.h"
#include "nsip/quoted.h"

namespace nsip {
namespace {

constexpr std::size_t kUsualParams = 2;

bool is_uri_param_text(std::string_view text) {
  return !text.empty() && all_of_or_escaped(text, kUriParam);
}

bool is_param_value(std::string_view text) {
  if (text.starts_with('"')) {
    return quoted_length(text) == text.size() && is_clean(text);
  }
  return !text.empty() && all_of(text, kPlainValue);
}

void append_param(const nsip_generic_param& param, std::string& text) {
  text += ';';
  text += param.name;
  if (param.has_value) {
    text += '=';
    text += param.value;
  }
}

}  // namespace

bool add_param(nsip_param_list& params, nsip_generic_param&& param) {
  if (params.size() >= kMaxParams || find_param(params, param.name) != nullptr) {
    return false;
  }
  if (params.empty()) params.reserve(kUsualParams);
  params.push_back(std::move(param));
  return true;
}

bool parse_params(std::string_view text, nsip_param_list& params) {
  text = base::Trim(text);
  while (!text.empty()) {
    if (text.front() != ';') {
      return false;
    }
    text = base::TrimLeft(text.substr(1));
    std::size_t length = span_of(text, kToken);
    if (length == 0) {
      return false;
    }
    nsip_generic_param param;
    param.name = text.substr(0, length);
    text = base::TrimLeft(text.substr(length));
    if (text.starts_with('=')) {
      text = base::TrimLeft(text.substr(1));
      length = text.starts_with('"') ? quoted_length(text) : span_of(text, kPlainValue);
      if (length == 0) {
        return false;
      }
      param.value = text.substr(0, length);
      param.has_value = true;
      text = base::TrimLeft(text.substr(length));
    }
    if (!add_param(params, std::move(param))) {
      return false;
    }
  }
  return true;
}

bool parse_uri_params(std::string_view text, nsip_param_list& params) {
  while (!text.empty()) {
    if (text.front() != ';') {
      return false;
    }
    text.remove_prefix(1);
    const std::string_view whole = text.substr(0, text.find(';'));
    text.remove_prefix(whole.size());
    const std::size_t equals = whole.find('=');
    nsip_generic_param param;
    param.name = whole.substr(0, equals);
    if (equals != std::string_view::npos) {
      param.value = whole.substr(equals + 1);
      param.has_value = true;
    }
    if (!is_uri_param_text(param.name) || (param.has_value && !is_uri_param_text(param.value)) ||
        !add_param(params, std::move(param))) {
      return false;
    }
  }
  return true;
}

bool append_params(const nsip_param_list& params, std::string& text) {
  if (params.size() > kMaxParams) {
    return false;
  }
  for (const nsip_generic_param& param : params) {
    if (!nsip_is_token(param.name) || (param.has_value && !is_param_value(param.value))) {
      return false;
    }
    append_param(param, text);
  }
  return true;
}

bool append_uri_params(const nsip_param_list& params, std::string& text) {
  if (params.size() > kMaxParams) {
    return false;
  }
  for (const nsip_generic_param& param : params) {
    if (!is_uri_param_text(param.name) || (param.has_value && !is_uri_param_text(param.value))) {
      return false;
    }
    append_param(param, text);
  }
  return true;
}

const nsip_generic_param* find_param(const nsip_param_list& params, std::string_view name) {
  for (const nsip_generic_param& param : params) {
    if (base::EqualNoCase(param.name, name)) {
      return &param;
    }
  }
  return nullptr;
}

}  // namespace nsip

int nsip_generic_param_get_byname(const nsip_param_list& params, const char* name,
                                  const nsip_generic_param** param) {
  const nsip_generic_param* found = name == nullptr ? nullptr : nsip::find_param(params, name);
  if (param != nullptr) {
    *param = found;
  }
  return found == nullptr ? -1 : 0;
}
