// Branch parameters: the name of a client transaction on the wire.
#pragma once

#include <string>

namespace sipcarrier {

// The magic cookie of RFC 3261 §8.1.1.7 and 128 random bits: whoever cannot see the request cannot
// answer it. false when the system gives no randomness. May throw std::bad_alloc.
[[nodiscard]] bool MakeBranch(std::string& branch);

}  // namespace sipcarrier
