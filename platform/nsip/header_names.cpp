#include "nsip/header_names.h"

#include "base/text.h"
#include "nsip/chars.h"

namespace nsip {

// RFC 3261 §7.3.3, and the later ones that IANA lists.
std::string_view full_header_name(std::string_view name) {
  if (name.size() != 1) {
    return name;
  }
  switch (base::LowerCase(name.front())) {
    case 'a':
      return "Accept-Contact";
    case 'b':
      return "Referred-By";
    case 'c':
      return "Content-Type";
    case 'd':
      return "Request-Disposition";
    case 'e':
      return "Content-Encoding";
    case 'f':
      return "From";
    case 'i':
      return "Call-ID";
    case 'j':
      return "Reject-Contact";
    case 'k':
      return "Supported";
    case 'l':
      return "Content-Length";
    case 'm':
      return "Contact";
    case 'n':
      return "Identity-Info";
    case 'o':
      return "Event";
    case 'r':
      return "Refer-To";
    case 's':
      return "Subject";
    case 't':
      return "To";
    case 'u':
      return "Allow-Events";
    case 'v':
      return "Via";
    case 'x':
      return "Session-Expires";
    case 'y':
      return "Identity";
    default:
      return name;
  }
}

HeaderId header_id(std::string_view name) {
  struct Entry {
    std::string_view name;
    HeaderId id;
  };
  static constexpr Entry kEntries[] = {
      {"Via", HeaderId::kVia},
      {"From", HeaderId::kFrom},
      {"To", HeaderId::kTo},
      {"Call-ID", HeaderId::kCallId},
      {"CSeq", HeaderId::kCSeq},
      {"Contact", HeaderId::kContact},
      {"Route", HeaderId::kRoute},
      {"Record-Route", HeaderId::kRecordRoute},
      {"Max-Forwards", HeaderId::kMaxForwards},
      {"Content-Length", HeaderId::kContentLength},
  };
  name = full_header_name(name);
  for (const Entry& entry : kEntries) {
    if (base::EqualNoCase(entry.name, name)) {
      return entry.id;
    }
  }
  return HeaderId::kOther;
}

bool same_header_name(std::string_view a, std::string_view b) {
  return base::EqualNoCase(full_header_name(a), full_header_name(b));
}

}  // namespace nsip
