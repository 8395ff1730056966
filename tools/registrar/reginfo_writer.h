// The document of RFC 3680 §5: the registrar's view of an address of record.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "registrar/reg_event.h"

namespace registrar {

inline constexpr char kRegInfoType[] = "application/reginfo+xml";

// One binding as it stands, or as it ended. Texts are as the wire brought them.
struct ContactRecord {
  std::uint64_t id = 0;  // of the binding; never used again
  ContactEvent event = ContactEvent::kRegistered;
  std::string uri;
  std::string display_name;
  std::string call_id;
  std::uint32_t cseq = 0;
  std::string q;
  std::vector<std::pair<std::string, std::string>> params;  // the other ones of the Contact
  int left = 0;                                             // seconds
  long registered_for = 0;                                  // seconds
  int retry_after = -1;                                     // seconds; negative: none
};

struct RegInfo {
  std::string version;
  bool full = true;
  std::string aor;
  std::string state;                                            // "init", "active", "terminated"
  std::vector<std::pair<std::string, ContactRecord>> contacts;  // each with the id to write
};

[[nodiscard]] std::string WriteRegInfo(const RegInfo& info);

}  // namespace registrar
