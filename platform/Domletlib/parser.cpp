#include "parser.h"

#include <expat.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstring>
#include <memory>
#include <new>

#include "base/random.h"
#include "base/text.h"
#include "Domletlib.h"

namespace domlet {
namespace {

// The parser's own memory comes from operator new like everything else in the process, so that
// whoever limits or counts that sees all of it. A block carries its size in front, for the copy
// when it grows.
constexpr std::size_t kHead = alignof(std::max_align_t);

void* Allocate(std::size_t size) noexcept {
  if (size > SIZE_MAX - kHead) return nullptr;
  auto* block = static_cast<std::byte*>(::operator new(size + kHead, std::nothrow));
  if (block == nullptr) return nullptr;
  std::memcpy(block, &size, sizeof size);
  return block + kHead;
}

void Free(void* memory) noexcept {
  if (memory != nullptr) ::operator delete(static_cast<std::byte*>(memory) - kHead);
}

void* Reallocate(void* memory, std::size_t size) noexcept {
  void* grown = Allocate(size);
  if (grown == nullptr || memory == nullptr) return grown;
  std::size_t old = 0;
  std::memcpy(&old, static_cast<std::byte*>(memory) - kHead, sizeof old);
  std::memcpy(grown, memory, std::min(old, size));
  Free(memory);
  return grown;
}

constexpr XML_Memory_Handling_Suite kMemory{Allocate, Reallocate, Free};

struct ParserDeleter {
  void operator()(XML_Parser parser) const noexcept { XML_ParserFree(parser); }
};
using ParserPtr = std::unique_ptr<XML_ParserStruct, ParserDeleter>;

// A parser that has read its document, for the next one of this thread: making one costs more than
// reading a command. It keeps the buffers that it has grown, so one that has read a large document
// goes.
constexpr std::size_t kKeptAfter = 16384;
thread_local ParserPtr t_kept;

// What the parser's tables are hashed with. Drawn once: left alone, each parser asks the system.
unsigned long HashSalt() noexcept {
  static const unsigned long salt = [] {
    std::array<unsigned char, sizeof(unsigned long)> bytes{};
    unsigned long drawn = 0;
    if (base::FillRandom(bytes)) std::memcpy(&drawn, bytes.data(), sizeof drawn);
    return drawn;  // 0: the parser finds one itself
  }();
  return salt;
}

ParserPtr TakeParser() {
  ParserPtr parser = std::move(t_kept);
  if (parser != nullptr && XML_ParserReset(parser.get(), nullptr) != XML_TRUE) parser.reset();
  if (parser == nullptr) parser.reset(XML_ParserCreate_MM(nullptr, &kMemory, nullptr));
  if (parser == nullptr) throw std::bad_alloc();
  XML_SetHashSalt(parser.get(), HashSalt());
  return parser;
}

// Room is made beforehand for an element in so many bytes, and an attribute in half as many. A text
// that has more of them makes the tables grow; one full of "<" alone reserves for none that never
// come.
constexpr std::size_t kBytesForElement = 32;
// Room to spare that is not worth an allocation to be rid of.
constexpr std::size_t kSlack = 512;

std::string At(std::size_t line, std::size_t column, std::string_view reason) {
  std::string error = "line " + std::to_string(line) + ", column " + std::to_string(column) + ": ";
  return error.append(reason);
}

// One run of the parser over one text. The callbacks below are called from C: they let no exception
// out, but note that memory has run out and stop the parser.
class Builder {
 public:
  Builder(std::string_view text, Tree& tree) : text_(text), tree_(tree) {}

  bool Run(std::string& error) {
    parser_ = TakeParser();
    XML_Parser parser = parser_.get();
    XML_SetUserData(parser, this);
    XML_SetElementHandler(parser, OnStart, OnEnd);
    XML_SetCharacterDataHandler(parser, OnText);
    XML_SetStartDoctypeDeclHandler(parser, OnDoctype);
    XML_SetXmlDeclHandler(parser, OnDeclaration);

    Reserve();
    const auto length = static_cast<int>(text_.size());  // kMaxBytes at most
    const bool read = XML_Parse(parser, text_.data(), length, XML_TRUE) == XML_STATUS_OK;
    if (out_of_memory_ || (!read && XML_GetErrorCode(parser) == XML_ERROR_NO_MEMORY)) {
      throw std::bad_alloc();
    }
    if (read && refusal_ == nullptr) {
      if (text_.size() <= kKeptAfter) t_kept = std::move(parser_);
      return true;
    }
    if (refusal_ == nullptr) NotePosition();
    error = domlet::At(line_, column_,
                       refusal_ != nullptr ? refusal_ : XML_ErrorString(XML_GetErrorCode(parser)));
    return false;
  }

 private:
  // One look over the text, so that most documents need one allocation for each table.
  void Reserve() {
    std::size_t elements = 0;
    for (std::size_t at = text_.find('<'); at != std::string_view::npos;
         at = text_.find('<', at + 1)) {
      if (text_.substr(at + 1, 1) != "/") ++elements;
    }
    const auto attrs = static_cast<std::size_t>(std::count(text_.begin(), text_.end(), '='));
    tree_.nodes.reserve(std::min(elements, 1 + text_.size() / kBytesForElement));
    tree_.attrs.reserve(std::min(attrs, 1 + 2 * text_.size() / kBytesForElement));
  }

  // Runs a callback's work unless the run is already lost.
  template <typename Work>
  void Guard(const Work& work) noexcept {
    if (out_of_memory_ || refusal_ != nullptr) return;
    try {
      work();
    } catch (const std::bad_alloc&) {
      out_of_memory_ = true;
      XML_StopParser(parser_.get(), XML_FALSE);
    }
  }

  void Refuse(const char* reason) noexcept {
    refusal_ = reason;
    NotePosition();  // now, since stopping moves it on
    XML_StopParser(parser_.get(), XML_FALSE);
  }

  void NotePosition() noexcept {
    line_ = XML_GetCurrentLineNumber(parser_.get());
    column_ = XML_GetCurrentColumnNumber(parser_.get()) + 1;
  }

  [[nodiscard]] std::uint32_t Position() const noexcept {
    return static_cast<std::uint32_t>(XML_GetCurrentByteIndex(parser_.get()));
  }

  // The attributes as the parser gives them and as they stand in the start tag, hand in hand.
  void TakeAttrs(Node& node, const char** attrs) {
    constexpr std::string_view kSpace = " \t\r\n";
    std::size_t at = node.begin + 1 + node.name_length;
    for (; *attrs != nullptr; attrs += 2, ++node.attr_count) {
      Attr attr;
      at = text_.find_first_not_of(kSpace, at);
      attr.name.begin = static_cast<std::uint32_t>(at - node.begin);
      attr.name.length = static_cast<std::uint32_t>(std::strlen(attrs[0]));
      at = text_.find_first_of("\"'", at + attr.name.length) + 1;
      const std::size_t end = text_.find(text_[at - 1], at);
      const std::string_view value(attrs[1]);
      if (text_.substr(at, end - at) == value) {
        attr.value.begin = static_cast<std::uint32_t>(at - node.begin);
        attr.value.length = static_cast<std::uint32_t>(value.size());
      } else {
        attr.value = tree_.Keep(value);
      }
      tree_.attrs.push_back(attr);
      at = end + 1;
    }
  }

  // In the source, when it stands there in one piece straight behind the start tag and in front of
  // the first child.
  [[nodiscard]] Range TakeText(const Node& node, std::uint32_t begin, std::string_view text) {
    const std::size_t limit = node.first_child == kNone
                                  ? node.content_end
                                  : tree_.nodes[static_cast<std::size_t>(node.first_child)].begin;
    if (!text.empty() &&
        (begin + text.size() > limit || text_.substr(begin, text.size()) != text)) {
      return tree_.Keep(text);
    }
    Range range;
    range.begin = begin - node.begin;
    range.length = static_cast<std::uint32_t>(text.size());
    return range;
  }

  void Start(const char* name, const char** attrs) {
    if (depth_ == CXML::kMaxDepth) return Refuse("elements are nested too deep");
    Node node;
    node.begin = Position();
    node.name_length = static_cast<std::uint32_t>(std::strlen(name));
    node.parent = open_;
    node.first_attr = static_cast<std::uint32_t>(tree_.attrs.size());
    TakeAttrs(node, attrs);
    const auto index = static_cast<std::int32_t>(tree_.nodes.size());
    tree_.nodes.push_back(node);
    if (open_ != kNone) {
      Node& parent = tree_.nodes[static_cast<std::size_t>(open_)];
      (parent.last_child == kNone ? parent.first_child
                                  : tree_.nodes[static_cast<std::size_t>(parent.last_child)].next) =
          index;
      parent.last_child = index;
    }
    open_ = index;
    Level& level = levels_[static_cast<std::size_t>(depth_++)];
    level.text = pending_.size();
    level.content = node.begin + static_cast<std::uint32_t>(XML_GetCurrentByteCount(parser_.get()));
  }

  void End() {
    Node& node = tree_.nodes[static_cast<std::size_t>(open_)];
    // For <name/> the position is behind the tag already and nothing is left to count.
    node.content_end = Position();
    node.end =
        node.content_end + static_cast<std::uint32_t>(XML_GetCurrentByteCount(parser_.get()));
    const Level& level = levels_[static_cast<std::size_t>(--depth_)];
    node.text = TakeText(node, level.content, std::string_view(pending_).substr(level.text));
    pending_.resize(level.text);
    open_ = node.parent;
  }

  static Builder& Of(void* user) noexcept { return *static_cast<Builder*>(user); }

  static void XMLCALL OnStart(void* user, const char* name, const char** attrs) noexcept {
    Of(user).Guard([&] { Of(user).Start(name, attrs); });
  }
  static void XMLCALL OnEnd(void* user, const char* /*name*/) noexcept {
    Of(user).Guard([&] { Of(user).End(); });
  }
  static void XMLCALL OnText(void* user, const char* text, int length) noexcept {
    Of(user).Guard([&] { Of(user).pending_.append(text, static_cast<std::size_t>(length)); });
  }
  static void XMLCALL OnDoctype(void* user, const char* /*name*/, const char* /*system_id*/,
                                const char* /*public_id*/, int /*internal*/) noexcept {
    Of(user).Guard([&] { Of(user).Refuse("a document type declaration is not accepted"); });
  }
  static void XMLCALL OnDeclaration(void* user, const char* /*version*/, const char* encoding,
                                    int /*standalone*/) noexcept {
    if (encoding == nullptr) return;
    // A sub-document is a stretch of the source without the declaration, so it has to mean the same
    // without it.
    if (base::EqualNoCase(encoding, "UTF-8") || base::EqualNoCase(encoding, "US-ASCII")) return;
    Of(user).Guard([&] { Of(user).Refuse("an encoding other than UTF-8 is not accepted"); });
  }

  std::string_view text_;
  Tree& tree_;
  ParserPtr parser_;
  std::int32_t open_ = kNone;  // the innermost open element
  int depth_ = 0;
  // The texts of the open elements, outermost first. The innermost one is at the end, and only it
  // grows.
  std::string pending_;
  struct Level {
    std::size_t text = 0;       // where its text begins in `pending_`
    std::uint32_t content = 0;  // behind its start tag, in the document
  };
  std::array<Level, CXML::kMaxDepth> levels_{};
  const char* refusal_ = nullptr;  // ours; the parser's own reasons are with the parser
  std::size_t line_ = 0;
  std::size_t column_ = 0;
  bool out_of_memory_ = false;
};

}  // namespace

bool Parse(std::string_view text, Tree& tree, std::string& error) {
  if (text.size() > CXML::kMaxBytes) {
    error = At(1, 1, "the document is too long");
    return false;
  }
  // Also keeps the two-byte encodings out, of which every document has such bytes.
  if (const std::size_t nul = text.find('\0'); nul != std::string_view::npos) {
    const std::string_view before = text.substr(0, nul);
    const auto lines = static_cast<std::size_t>(std::count(before.begin(), before.end(), '\n'));
    const std::size_t line_begin = lines == 0 ? 0 : before.rfind('\n') + 1;
    error = At(lines + 1, nul - line_begin + 1, "a NUL byte is not accepted");
    return false;
  }
  if (!Builder(text, tree).Run(error)) return false;
  // What was reserved by a guess, or by doubling, is kept for as long as the document.
  if (tree.Memory() > kSlack + tree.nodes.size() * sizeof(Node) + tree.attrs.size() * sizeof(Attr) +
                          tree.values.size()) {
    tree.nodes.shrink_to_fit();
    tree.attrs.shrink_to_fit();
    tree.values.shrink_to_fit();
  }
  tree.source.assign(text);
  return true;
}

}  // namespace domlet

void CXML::TrimThread() noexcept { domlet::t_kept.reset(); }
