// A message as an object: its life, copies, and the questions asked of it.
#include <cstddef>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "base/text.h"
#include "nsip/chars.h"
#include "nsip/header_names.h"
#include "nsip/nsip.h"
#include "nsip/quoted.h"

namespace {

constexpr std::string_view kPAssociatedUri = "P-Associated-URI";

std::unique_ptr<nsip_from> copy(const std::unique_ptr<nsip_from>& from) {
  if (from == nullptr) {
    return nullptr;
  }
  auto result = std::make_unique<nsip_from>();
  result->displayname = from->displayname;
  result->params = from->params;
  if (from->url != nullptr) {
    result->url = std::make_unique<nsip_uri>(*from->url);
  }
  return result;
}

template <class T>
std::unique_ptr<T> copy(const std::unique_ptr<T>& part) {
  return part == nullptr ? nullptr : std::make_unique<T>(*part);
}

template <class T>
std::vector<std::unique_ptr<T>> copy(const std::vector<std::unique_ptr<T>>& parts) {
  std::vector<std::unique_ptr<T>> result;
  result.reserve(parts.size());
  for (const auto& part : parts) {
    result.push_back(copy(part));
  }
  return result;
}

}  // namespace

struct nsip_message::Cache {
  std::string source;                               // the header values, one a line
  std::vector<std::unique_ptr<nsip_from>> entries;  // null: cannot be read
};

nsip_message::nsip_message() = default;
nsip_message::~nsip_message() = default;

std::unique_ptr<nsip_message> nsip_message_clone(const nsip_message& msg) {
  auto result = std::make_unique<nsip_message>();
  result->status_code = msg.status_code;
  result->reason_phrase = msg.reason_phrase;
  result->sip_method = msg.sip_method;
  result->req_uri = copy(msg.req_uri);
  result->from = copy(msg.from);
  result->to = copy(msg.to);
  result->vias = copy(msg.vias);
  result->routes = copy(msg.routes);
  result->record_routes = copy(msg.record_routes);
  result->contacts = copy(msg.contacts);
  result->contact_star = msg.contact_star;
  result->call_id = msg.call_id;
  result->cseq_number = msg.cseq_number;
  result->cseq_method = msg.cseq_method;
  result->max_forwards = msg.max_forwards;
  result->headers.items = copy(msg.headers.items);
  result->body = msg.body;
  return result;
}

int nsip_message_header_get_byname(const nsip_message* msg, const char* name, int pos,
                                   nsip_header** hdr) {
  if (hdr != nullptr) {
    *hdr = nullptr;
  }
  if (msg == nullptr || name == nullptr) {
    return -1;
  }
  const auto& items = msg->headers.items;
  for (std::size_t i = pos < 0 ? 0 : static_cast<std::size_t>(pos); i < items.size(); ++i) {
    if (items[i] != nullptr && nsip::same_header_name(items[i]->hname, name)) {
      if (hdr != nullptr) {
        *hdr = items[i].get();
      }
      return static_cast<int>(i);
    }
  }
  return -1;
}

int nsip_message_get_contact(const nsip_message* msg, int pos, nsip_contact** contact) {
  const bool found =
      msg != nullptr && pos >= 0 && static_cast<std::size_t>(pos) < msg->contacts.size();
  if (contact != nullptr) {
    *contact = found ? msg->contacts[static_cast<std::size_t>(pos)].get() : nullptr;
  }
  return found ? pos : -1;
}

int nsip_message_get_p_associated_uri(nsip_message* msg, int pos, nsip_from** hdr) {
  if (hdr != nullptr) {
    *hdr = nullptr;
  }
  if (msg == nullptr || pos < 0) {
    return -1;
  }
  // A walk starts at 0: only there the headers are looked at again, or a walk would cost its
  // square.
  if (pos == 0 || msg->cache == nullptr) {
    std::string source;
    for (const auto& header : msg->headers.items) {
      if (header != nullptr && base::EqualNoCase(header->hname, kPAssociatedUri)) {
        source += header->hvalue;
        source += '\n';
      }
    }
    if (msg->cache == nullptr || msg->cache->source != source) {
      auto cache = std::make_unique<nsip_message::Cache>();
      cache->source = std::move(source);
      std::string_view rest = cache->source;
      while (!rest.empty()) {
        const std::string_view line = rest.substr(0, rest.find('\n'));
        rest.remove_prefix(line.size() + 1);
        std::vector<std::string_view> texts;
        // The header may be empty (RFC 7315 §5.1). A rest with an open quote is an entry that
        // cannot be read.
        if (!base::Trim(line).empty() && !nsip::split_list(line, texts)) {
          texts.back() = {};
        }
        for (const std::string_view text : texts) {
          auto entry = std::make_unique<nsip_from>();
          cache->entries.push_back(nsip_from_parse(text, *entry) ? std::move(entry) : nullptr);
        }
      }
      msg->cache = std::move(cache);
    }
  }
  const auto& entries = msg->cache->entries;
  if (static_cast<std::size_t>(pos) >= entries.size()) {
    return -1;
  }
  if (hdr != nullptr) {
    *hdr = entries[static_cast<std::size_t>(pos)].get();
  }
  return pos;
}

int nsip_message_set_header(nsip_message* msg, const char* name, const char* value) {
  if (msg == nullptr || name == nullptr || value == nullptr || !nsip_is_token(name) ||
      nsip::header_id(name) != nsip::HeaderId::kOther || !nsip::is_clean(value)) {
    return -1;
  }
  auto header = std::make_unique<nsip_header>();
  header->hname = nsip::full_header_name(name);
  header->hvalue = value;
  const int pos = nsip_message_header_get_byname(msg, name, 0, nullptr);
  if (pos >= 0) {
    msg->headers.items[static_cast<std::size_t>(pos)] = std::move(header);
  } else {
    msg->headers.items.push_back(std::move(header));
  }
  return 0;
}
