// Names of headers: compact forms and those that have a field of their own in a message.
#pragma once

#include <string_view>

namespace nsip {

enum class HeaderId {
  kOther,
  kVia,
  kFrom,
  kTo,
  kCallId,
  kCSeq,
  kContact,
  kRoute,
  kRecordRoute,
  kMaxForwards,
  kContentLength,
};

// The full name of a compact form; any other name as it is.
[[nodiscard]] std::string_view full_header_name(std::string_view name);
// kOther for headers that stand in the list of a message.
[[nodiscard]] HeaderId header_id(std::string_view name);
[[nodiscard]] bool same_header_name(std::string_view a, std::string_view b);

}  // namespace nsip
