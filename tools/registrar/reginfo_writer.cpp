#include "registrar/reginfo_writer.h"

#include <functional>

#include "Domletlib/Domletlib.h"

namespace registrar {
namespace {

void Attribute(std::string& text, const char* name, std::string_view value) {
  text.append(" ").append(name).append("=\"").append(CXML::Escape(value)).append("\"");
}

void Element(std::string& text, const char* name, std::string_view value) {
  text.append("      <").append(name).append(">").append(CXML::Escape(value));
  text.append("</").append(name).append(">\n");
}

void AppendContact(std::string& text, const std::string& id, const ContactRecord& contact) {
  const bool gone = Terminates(contact.event);
  text += "    <contact";
  Attribute(text, "id", id);
  Attribute(text, "state", gone ? "terminated" : "active");
  Attribute(text, "event", Word(contact.event));
  Attribute(text, "duration-registered", std::to_string(contact.registered_for));
  if (!gone) Attribute(text, "expires", std::to_string(contact.left));
  if (contact.retry_after >= 0) {
    Attribute(text, "retry-after", std::to_string(contact.retry_after));
  }
  if (!contact.q.empty()) Attribute(text, "q", contact.q);
  if (!contact.call_id.empty()) {  // a binding that the operator made has none
    Attribute(text, "callid", contact.call_id);
    Attribute(text, "cseq", std::to_string(contact.cseq));
  }
  text += ">\n";
  Element(text, "uri", contact.uri);
  if (!contact.display_name.empty()) Element(text, "display-name", contact.display_name);
  for (const auto& [name, value] : contact.params) {
    text += "      <unknown-param";
    Attribute(text, "name", name);
    text.append(">").append(CXML::Escape(value)).append("</unknown-param>\n");
  }
  text += "    </contact>\n";
}

}  // namespace

const char* Word(ContactEvent event) {
  switch (event) {
    case ContactEvent::kRegistered:
      return "registered";
    case ContactEvent::kCreated:
      return "created";
    case ContactEvent::kRefreshed:
      return "refreshed";
    case ContactEvent::kShortened:
      return "shortened";
    case ContactEvent::kExpired:
      return "expired";
    case ContactEvent::kDeactivated:
      return "deactivated";
    case ContactEvent::kProbation:
      return "probation";
    case ContactEvent::kUnregistered:
      return "unregistered";
    case ContactEvent::kRejected:
      return "rejected";
  }
  return "";
}

std::string WriteRegInfo(const RegInfo& info) {
  std::string text = "<?xml version=\"1.0\"?>\n<reginfo xmlns=\"urn:ietf:params:xml:ns:reginfo\"";
  Attribute(text, "version", info.version);
  Attribute(text, "state", info.full ? "full" : "partial");
  text += ">\n  <registration";
  Attribute(text, "aor", info.aor);
  Attribute(text, "id", "r" + std::to_string(std::hash<std::string>{}(info.aor)));
  Attribute(text, "state", info.state);
  text += ">\n";
  for (const auto& [id, contact] : info.contacts) AppendContact(text, id, contact);
  return text + "  </registration>\n</reginfo>\n";
}

}  // namespace registrar
