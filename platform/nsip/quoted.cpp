#include "nsip/quoted.h"

#include "base/text.h"
#include "nsip/chars.h"

namespace nsip {

std::size_t quoted_length(std::string_view text) {
  if (!text.starts_with('"')) {
    return 0;
  }
  for (std::size_t i = 1; i < text.size(); ++i) {
    if (text[i] == '\\') {
      ++i;
    } else if (text[i] == '"') {
      return i + 1;
    }
  }
  return 0;
}

std::string unquote(std::string_view quoted) {
  std::string plain;
  plain.reserve(quoted.size());
  for (std::size_t i = 1; i + 1 < quoted.size(); ++i) {
    if (quoted[i] == '\\') {
      ++i;
    }
    plain += quoted[i];
  }
  return plain;
}

std::string quote(std::string_view plain) {
  std::string quoted;
  quoted.reserve(plain.size() + 2);
  quoted += '"';
  for (const char c : plain) {
    if (c == '"' || c == '\\') {
      quoted += '\\';
    }
    quoted += c;
  }
  quoted += '"';
  return quoted;
}

bool split_list(std::string_view text, std::vector<std::string_view>& entries) {
  std::size_t start = 0;
  std::size_t i = 0;
  bool complete = true;
  while (i < text.size()) {
    std::size_t step = 1;
    if (text[i] == '"') {
      step = quoted_length(text.substr(i));
    } else if (text[i] == '<') {
      const std::size_t end = text.find('>', i);
      step = end == std::string_view::npos ? 0 : end - i + 1;
    } else if (text[i] == ',') {
      entries.push_back(base::Trim(text.substr(start, i - start)));
      start = i + 1;
    }
    if (step == 0) {
      complete = false;
      break;
    }
    i += step;
  }
  entries.push_back(base::Trim(text.substr(start)));
  return complete;
}

}  // namespace nsip
