// A document as the library keeps it: the text once, and flat tables of offsets into it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace domlet {

inline constexpr std::int32_t kNone = -1;

// A stretch of a text: of the source, counted from its element's begin, when it stands there as it
// is, which most texts do; otherwise of the values.
struct Range {
  std::uint32_t begin = 0;
  std::uint32_t length : 31 = 0;
  std::uint32_t in_values : 1 = 0;
};

// An element. Its name is the `name_length` bytes behind the "<" at `begin`.
struct Node {
  std::uint32_t begin = 0;        // first byte of the start tag in the source
  std::uint32_t content_end = 0;  // first byte of the end tag; `end` when there is none: <name/>
  std::uint32_t end = 0;          // behind the last byte of the element
  std::uint32_t name_length = 0;
  Range text;                    // what stands directly inside, escapes undone
  std::uint32_t first_attr = 0;  // its attributes stand together
  std::uint32_t attr_count = 0;
  std::int32_t parent = kNone;
  std::int32_t first_child = kNone;
  std::int32_t last_child = kNone;
  std::int32_t next = kNone;  // the next sibling
};

struct Attr {
  Range name;
  Range value;  // escapes undone
};

// Invariants:
//  1. `source` is the whole document and well-formed, or empty with no node; node 0 is then the
//  root.
//  2. Every node's byte range is that element in `source`, exactly; nodes cut out of it are
//  documents.
//  3. `values` only grows; ranges in it never move. A range of the source lies in its element's
//  start tag or between that and the first child, where nothing is ever put in.
//  4. Unless `written`, the nodes stand in document order: an element and all below it are one
//  stretch of them, and so are their attributes.
// Not thread-safe; a value.
struct Tree {
  std::string source;
  std::string values;
  std::vector<Node> nodes;
  std::vector<Attr> attrs;
  bool written = false;  // since it was read

  [[nodiscard]] std::string_view Name(const Node& node) const noexcept {
    return std::string_view(source).substr(node.begin + 1, node.name_length);
  }
  [[nodiscard]] std::string_view Value(const Node& node, Range range) const noexcept {
    if (range.in_values != 0) return std::string_view(values).substr(range.begin, range.length);
    return std::string_view(source).substr(node.begin + range.begin, range.length);
  }
  [[nodiscard]] std::string_view Text(const Node& node) const noexcept {
    return Value(node, node.text);
  }
  [[nodiscard]] const Node& At(std::int32_t index) const noexcept {
    return nodes[static_cast<std::size_t>(index)];
  }

  // The first sibling of this name from `first` on, or kNone.
  [[nodiscard]] std::int32_t Find(std::int32_t first, std::string_view name) const noexcept;

  // The element's attribute of this name, or null.
  [[nodiscard]] const Attr* FindAttr(const Node& node, std::string_view name) const noexcept;

  // The bytes of memory that it takes.
  [[nodiscard]] std::size_t Memory() const noexcept;

  // The element and all below it as a tree of its own, with `top` as node 0 and the others in their
  // order. Not for one that was written to. Throws std::bad_alloc.
  [[nodiscard]] Tree Cut(std::int32_t top) const;

  // Keeps a copy in the values. Throws std::bad_alloc with nothing changed.
  Range Keep(std::string_view text);

  // Appends an element with this text to the parent, or makes it the root of an empty tree (kNone).
  // False, and nothing changed, when the name is none or a limit would be passed. Throws
  // std::bad_alloc with nothing changed.
  bool Append(std::int32_t parent, std::string_view name, std::string_view text);

 private:
  [[nodiscard]] int DepthOf(std::int32_t node) const noexcept;
  void MoveBehind(std::int32_t parent, std::uint32_t position, std::uint32_t length) noexcept;
};

}  // namespace domlet
