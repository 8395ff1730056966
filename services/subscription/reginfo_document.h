// A reginfo document (RFC 3680 §5) as ranges of its text, so that a few values can be changed and
// everything else stays as it came.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "services/subscription/text_edits.h"

namespace subscription {

struct ReginfoAttribute {
  std::string value;  // escapes undone; empty: absent, or nothing in it
  TextRange range;    // between the quotes
};

struct ReginfoContact {
  TextRange range;  // with the white space in front
  ReginfoAttribute id;
  ReginfoAttribute state;
  ReginfoAttribute event;
  std::string uri;  // text of the first <uri>, without white space around it
};

struct ReginfoRegistration {
  TextRange range;              // with the white space in front
  std::size_t content_end = 0;  // where the end tag begins; the range's end when there is none
  ReginfoAttribute aor;
  ReginfoAttribute id;
  ReginfoAttribute state;
  std::size_t contacts_begin = 0;  // its contacts: a stretch of the document's
  std::size_t contacts_end = 0;
};

struct ReginfoDocument {
  TextRange range;  // of the root element
  std::size_t content_end = 0;
  ReginfoAttribute version;
  ReginfoAttribute state;
  std::vector<ReginfoRegistration> registrations;  // in the order of the text
  std::vector<ReginfoContact> contacts;
  // Where the root's namespace prefix and its colon stand in front of a name. Some registrars write
  // <ri:reginfo>, which a reader that looks at names alone does not find.
  std::vector<TextRange> prefixes;

  [[nodiscard]] bool full() const { return state.value == "full"; }
};

// Reads a text into an empty document. False and a reason when Domletlib refuses it (not
// well-formed, a document type, an encoding other than UTF-8 ...), when the root is no "reginfo"
// or lacks its version, or when its state is neither "full" nor "partial". Throws std::bad_alloc.
[[nodiscard]] bool ReadReginfo(std::string_view text, ReginfoDocument& document,
                               std::string& reason);

}  // namespace subscription
