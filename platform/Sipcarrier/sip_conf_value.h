// Values of template headers: literal text with keys of transfer cells in it, "sip;user=${key}".
#pragma once

#include <cstddef>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace sipcarrier {

// A template leaves most of a message (kNsipMaxMessage, 256 header lines) to the request that it is
// merged into.
inline constexpr std::size_t kMaxTemplateHeaders = 100;
inline constexpr std::size_t kMaxTemplateBytes = 16384;

struct ValuePiece {
  bool is_key = false;
  std::string_view text;  // the key, or what stands literally
};

// From left to right: "$${" is a literal "${", "${" begins a key that ends before the next "}", and
// all else is literal. false when a "${" has no "}", or none before the next "${", or an empty key.
// The pieces point into the value.
[[nodiscard]] bool SplitValue(std::string_view value, std::vector<ValuePiece>& pieces);

// The value with its keys replaced, each once: what a cell brings in is never looked at again.
// false when a cell is missing (or all are: null) or the result holds a control character.
[[nodiscard]] bool FillValue(std::string_view value,
                             const std::map<std::string, std::string>* cells, std::string& filled);

// Stricter than RFC 3261 §25.1, which lets a tab stand for a blank: nobody wants one in a template,
// and it is hard to see.
[[nodiscard]] bool HasControl(std::string_view text);

// delta-seconds (RFC 3261 §20.19): digits, below 2^32.
[[nodiscard]] bool IsDeltaSeconds(std::string_view text);

// The bytes of a header on the wire.
[[nodiscard]] std::size_t HeaderBytes(std::string_view name, std::string_view value);

}  // namespace sipcarrier
