// Random names on the wire: branch parameters and tags.
#pragma once

#include <string>

namespace sipcarrier {

// The magic cookie of RFC 3261 §8.1.1.7 and 128 random bits: whoever cannot see the request cannot
// answer it. false when the system gives no randomness. May throw std::bad_alloc.
[[nodiscard]] bool MakeBranch(std::string& branch);
// The same for a tag (RFC 3261 §19.3).
[[nodiscard]] bool MakeTag(std::string& tag);

}  // namespace sipcarrier
