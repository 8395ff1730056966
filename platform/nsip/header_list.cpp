// Header lists and the headers in them.
#include <cstddef>
#include <memory>

#include "nsip/chars.h"
#include "nsip/nsip.h"

namespace {

bool in_list(const nsip_list* list, int pos) {
  return list != nullptr && pos >= 0 && static_cast<std::size_t>(pos) < list->items.size();
}

}  // namespace

int nsip_list_eol(const nsip_list* list, int pos) { return in_list(list, pos) ? 0 : 1; }

nsip_header* nsip_list_get(const nsip_list* list, int pos) {
  return in_list(list, pos) ? list->items[static_cast<std::size_t>(pos)].get() : nullptr;
}

int nsip_list_add(nsip_list* list, nsip_header* header, int pos) {
  if (list == nullptr || header == nullptr || !nsip_is_token(header->hname) ||
      !nsip::is_clean(header->hvalue)) {
    return -1;
  }
  auto& items = list->items;
  // Room first: the header must stay the caller's when memory runs out.
  if (items.size() == items.capacity()) {
    items.reserve(2 * items.size() + 4);
  }
  const auto where = in_list(list, pos) ? items.begin() + pos : items.end();
  items.emplace(where, header);
  return static_cast<int>(items.size());
}

int nsip_list_remove(nsip_list* list, int pos) {
  if (!in_list(list, pos)) {
    return -1;
  }
  auto& items = list->items;
  const auto where = items.begin() + pos;
  // The caller owns the header from here on, so no one deletes it here.
  static_cast<void>(where->release());
  items.erase(where);
  return static_cast<int>(items.size());
}

int nsip_header_clone(const nsip_header* header, nsip_header** copy) {
  if (copy == nullptr) {
    return -1;
  }
  *copy = nullptr;
  if (header == nullptr) {
    return -1;
  }
  *copy = std::make_unique<nsip_header>(*header).release();
  return 0;
}

void nsip_header_free(nsip_header* header) { delete header; }
