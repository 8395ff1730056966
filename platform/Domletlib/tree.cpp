#include "tree.h"

#include <algorithm>

#include "Domletlib.h"
#include "escape.h"

namespace domlet {
namespace {

// Room for one more element, growing by doubling; and for `more` bytes, so that what follows cannot
// throw.
void MakeRoom(std::vector<Node>& nodes) {
  if (nodes.size() == nodes.capacity()) nodes.reserve(std::max<std::size_t>(8, nodes.size() * 2));
}
void MakeRoom(std::string& text, std::size_t more) {
  const std::size_t need = text.size() + more;
  if (need > text.capacity()) text.reserve(std::max(need, text.capacity() * 2));
}

}  // namespace

std::int32_t Tree::Find(std::int32_t first, std::string_view name) const noexcept {
  while (first != kNone && Name(At(first)) != name) first = At(first).next;
  return first;
}

const Attr* Tree::FindAttr(const Node& node, std::string_view name) const noexcept {
  const Attr* const first = attrs.data() + node.first_attr;
  const Attr* const end = first + node.attr_count;
  const Attr* const found =
      std::find_if(first, end, [&](const Attr& attr) { return Value(node, attr.name) == name; });
  return found != end ? found : nullptr;
}

int Tree::DepthOf(std::int32_t node) const noexcept {
  int depth = 0;
  for (; node != kNone; node = At(node).parent) ++depth;
  return depth;
}

std::size_t Tree::Memory() const noexcept {
  return source.capacity() + values.capacity() + nodes.capacity() * sizeof(Node) +
         attrs.capacity() * sizeof(Attr);
}

Tree Tree::Cut(std::int32_t top) const {
  std::int32_t last = top;
  while (At(last).last_child != kNone) last = At(last).last_child;
  const std::uint32_t first_attr = At(top).first_attr;

  Tree cut;
  cut.source.assign(source, At(top).begin, At(top).end - At(top).begin);
  cut.nodes.assign(nodes.begin() + top, nodes.begin() + last + 1);
  cut.attrs.assign(attrs.begin() + first_attr,
                   attrs.begin() + At(last).first_attr + At(last).attr_count);
  const auto keep = [&](Range& range) {
    if (range.in_values != 0) range = cut.Keep(Value(Node(), range));
  };
  const auto move = [top](std::int32_t& index) { index -= index != kNone ? top : 0; };
  cut.nodes.front().parent = cut.nodes.front().next = kNone;
  for (Node& node : cut.nodes) {
    for (std::uint32_t* offset : {&node.begin, &node.content_end, &node.end}) {
      *offset -= At(top).begin;
    }
    node.first_attr -= first_attr;
    for (std::int32_t* index : {&node.parent, &node.first_child, &node.last_child, &node.next}) {
      move(*index);
    }
    keep(node.text);
  }
  for (Attr& attr : cut.attrs) keep(attr.value);
  return cut;
}

Range Tree::Keep(std::string_view text) {
  Range range;
  range.begin = static_cast<std::uint32_t>(values.size());
  range.length = static_cast<std::uint32_t>(text.size());
  range.in_values = 1;
  values.append(text);
  return range;
}

// The source has become longer by `length` at `position`, which is inside `parent` and behind all
// its children: makes the offsets right again, except those of `parent` itself.
void Tree::MoveBehind(std::int32_t parent, std::uint32_t position, std::uint32_t length) noexcept {
  bool last = At(parent).next == kNone;
  for (std::int32_t up = At(parent).parent; up != kNone; up = At(up).parent) {
    Node& node = nodes[static_cast<std::size_t>(up)];
    node.content_end += length;
    node.end += length;
    last = last && node.next == kNone;
  }
  if (last) return;  // nothing stands behind: the way that documents are written
  for (Node& node : nodes) {
    if (node.begin < position) continue;
    node.begin += length;
    node.content_end += length;
    node.end += length;
  }
}

bool Tree::Append(std::int32_t parent, std::string_view name, std::string_view text) {
  if (!IsName(name) || text.size() > CXML::kMaxBytes) return false;
  if (parent == kNone ? !nodes.empty() : DepthOf(parent) >= CXML::kMaxDepth) return false;

  Escaped value = Escape(text);
  std::string markup;
  markup.append("<").append(name);
  const std::size_t tag = markup.size();
  markup.append(">").append(value.markup).append("</").append(name).append(">");

  // A <parent/> that was read becomes <parent></parent> first.
  const bool closed = parent != kNone && At(parent).content_end == At(parent).end;
  std::string end_tag;
  if (closed) end_tag.append("</").append(Name(At(parent))).append(">");
  if (source.size() + markup.size() + end_tag.size() > CXML::kMaxBytes) return false;

  MakeRoom(nodes);
  MakeRoom(source, markup.size() + end_tag.size());
  MakeRoom(values, value.text.size());
  // From here on nothing throws.
  std::uint32_t position = 0;
  const auto added = static_cast<std::int32_t>(nodes.size());
  if (parent == kNone) {
    source.assign(markup);
  } else {
    Node& above = nodes[static_cast<std::size_t>(parent)];
    const std::uint32_t behind = above.end;
    auto grown = static_cast<std::uint32_t>(markup.size() + end_tag.size());
    if (closed) {
      // The "/" goes; the ">" behind it stays and ends the start tag.
      source.erase(behind - 2, 1);
      source.insert(behind - 1, end_tag);
      position = behind - 1;
      grown -= 1;
    } else {
      position = above.content_end;
    }
    source.insert(position, markup);
    above.content_end = position + static_cast<std::uint32_t>(markup.size());
    above.end = behind + grown;
    MoveBehind(parent, position, grown);
    (above.last_child == kNone ? above.first_child
                               : nodes[static_cast<std::size_t>(above.last_child)].next) = added;
    above.last_child = added;
  }

  Node node;
  node.begin = position;
  node.end = position + static_cast<std::uint32_t>(markup.size());
  node.name_length = static_cast<std::uint32_t>(name.size());
  node.content_end = position + static_cast<std::uint32_t>(tag + 1 + value.markup.size());
  node.text = Keep(value.text);
  node.first_attr = static_cast<std::uint32_t>(attrs.size());
  node.parent = parent;
  nodes.push_back(node);
  written = true;
  return true;
}

}  // namespace domlet
