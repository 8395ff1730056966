// A text with changes: what no change touches stays as it is, byte for byte.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace subscription {

struct TextRange {
  std::size_t begin = 0;
  std::size_t end = 0;  // behind the last byte
};

// Positions are those of the unchanged text. A range that is replaced or moved takes the changes
// inside it along; apart from that ranges do not overlap. Not thread-safe; the text must outlive
// it. Throws std::bad_alloc.
class TextEdits {
 public:
  explicit TextEdits(std::string_view text) : text_(text) {}

  // An empty range inserts.
  void Replace(TextRange range, std::string text);
  // With the changes made inside it so far, to a place that lies outside.
  void Move(TextRange range, std::size_t to);
  [[nodiscard]] std::string Result() { return Render({0, text_.size()}); }

 private:
  struct Edit {
    TextRange range;
    std::string text;
  };
  [[nodiscard]] std::string Render(TextRange range);

  std::string_view text_;
  std::vector<Edit> edits_;
};

}  // namespace subscription
