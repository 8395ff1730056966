// Texts that cross the boundary of the library as plain memory.
#include <cstring>
#include <new>
#include <string>

#include "nsip/nsip.h"

namespace {

int give_text(const std::string& text, char** out) {
  if (text.empty()) {
    return -1;
  }
  *out = static_cast<char*>(::operator new(text.size() + 1));
  std::memcpy(*out, text.c_str(), text.size() + 1);
  return 0;
}

}  // namespace

int nsip_from_to_str(const nsip_from* hdr, char** text) {
  if (text == nullptr) {
    return -1;
  }
  *text = nullptr;
  return hdr == nullptr ? -1 : give_text(nsip_from_text(*hdr), text);
}

int nsip_uri_to_str(const nsip_uri* uri, char** text) {
  if (text == nullptr) {
    return -1;
  }
  *text = nullptr;
  return uri == nullptr ? -1 : give_text(nsip_uri_text(*uri), text);
}

void nsip_free(void* text) { ::operator delete(text); }
