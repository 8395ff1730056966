#include "Sipcarrier/sip_conf_value.h"

#include <algorithm>
#include <charconv>
#include <cstdint>

namespace sipcarrier {

bool SplitValue(std::string_view value, std::vector<ValuePiece>& pieces) {
  while (!value.empty()) {
    if (value.starts_with("$${")) {
      pieces.push_back({false, value.substr(1, 2)});
      value.remove_prefix(3);
    } else if (value.starts_with("${")) {
      const std::size_t end = value.find('}');
      if (end == std::string_view::npos) return false;
      const std::string_view key = value.substr(2, end - 2);
      if (key.empty() || key.find("${") != std::string_view::npos) return false;
      pieces.push_back({true, key});
      value.remove_prefix(end + 1);
    } else {
      const std::size_t end = std::min(value.find('$', 1), value.size());
      pieces.push_back({false, value.substr(0, end)});
      value.remove_prefix(end);
    }
  }
  return true;
}

bool FillValue(std::string_view value, const std::map<std::string, std::string>* cells,
               std::string& filled) {
  std::vector<ValuePiece> pieces;
  if (!SplitValue(value, pieces)) return false;
  filled.clear();
  for (const ValuePiece& piece : pieces) {
    if (!piece.is_key) {
      filled += piece.text;
      continue;
    }
    if (cells == nullptr) return false;
    const auto cell = cells->find(std::string(piece.text));
    if (cell == cells->end()) return false;
    filled += cell->second;
    // Enough to know that it is too long, before many cells become a flood.
    if (filled.size() > kMaxTemplateBytes) return false;
  }
  return !HasControl(filled);
}

bool HasControl(std::string_view text) {
  return std::any_of(text.begin(), text.end(),
                     [](unsigned char c) { return c < 0x20 || c == 0x7F; });
}

bool IsDeltaSeconds(std::string_view text) {
  std::uint32_t seconds = 0;
  const char* end = text.data() + text.size();
  const auto [at, error] = std::from_chars(text.data(), end, seconds);
  return error == std::errc() && at == end;
}

std::size_t HeaderBytes(std::string_view name, std::string_view value) {
  return name.size() + value.size() + std::string_view(": \r\n").size();
}

}  // namespace sipcarrier
