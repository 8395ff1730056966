#include "Sipcarrier/branch.h"

#include <array>

#include "base/random.h"
#include "base/text.h"

namespace sipcarrier {
namespace {

// Appends 128 random bits.
bool AppendRandom(std::string& text) {
  std::array<unsigned char, 16> bytes{};
  if (!base::FillRandom(bytes)) return false;
  base::AppendHex(text, bytes);
  return true;
}

}  // namespace

bool MakeBranch(std::string& branch) {
  branch = "z9hG4bK";
  return AppendRandom(branch);
}

bool MakeTag(std::string& tag) {
  tag.clear();
  return AppendRandom(tag);
}

}  // namespace sipcarrier
