#include "services/subscription/reginfo_document.h"

#include <expat.h>

#include <algorithm>
#include <array>
#include <initializer_list>
#include <memory>
#include <new>

#include "Domletlib/Domletlib.h"

namespace subscription {
namespace {

constexpr std::string_view kSpace = " \t\r\n";
constexpr std::array<std::string_view, 6> kNames = {"reginfo", "registration", "contact",
                                                    "uri",     "display-name", "unknown-param"};

struct ParserDeleter {
  void operator()(XML_Parser parser) const noexcept { XML_ParserFree(parser); }
};

// One run over a text that is known to be well-formed and without a document type, so that a tag's
// attributes stand in it as the parser lists them. The callbacks let no exception out.
class Reader {
 public:
  Reader(std::string_view text, ReginfoDocument& document) : text_(text), document_(document) {}

  void Run() {
    parser_.reset(XML_ParserCreate(nullptr));
    if (parser_ == nullptr) throw std::bad_alloc();
    XML_SetUserData(parser_.get(), this);
    XML_SetElementHandler(parser_.get(), OnStart, OnEnd);
    XML_SetCharacterDataHandler(parser_.get(), OnText);
    const auto length = static_cast<int>(text_.size());
    if (XML_Parse(parser_.get(), text_.data(), length, XML_TRUE) != XML_STATUS_OK) {
      throw std::bad_alloc();  // nothing else is left to go wrong
    }
  }

  [[nodiscard]] bool is_reginfo() const noexcept { return is_reginfo_; }

 private:
  enum Level { kReginfo, kRegistration, kContact, kUri };

  template <typename Work>
  void Guard(const Work& work) noexcept {
    if (failed_) return;
    try {
      work();
    } catch (const std::bad_alloc&) {
      failed_ = true;
      XML_StopParser(parser_.get(), XML_FALSE);
    }
  }

  [[nodiscard]] TextRange Token() const noexcept {
    const auto begin = static_cast<std::size_t>(XML_GetCurrentByteIndex(parser_.get()));
    return {begin, begin + static_cast<std::size_t>(XML_GetCurrentByteCount(parser_.get()))};
  }

  [[nodiscard]] std::size_t WithSpaceBefore(std::size_t begin) const noexcept {
    return text_.find_last_not_of(kSpace, begin - 1) + 1;
  }

  // An element of RFC 3680 loses the root's prefix, any other keeps its name.
  std::string_view LocalName(std::string_view name, std::size_t position) {
    if (prefix_.empty() || name.substr(0, prefix_.size()) != prefix_) return name;
    const std::string_view local = name.substr(prefix_.size());
    if (std::find(kNames.begin(), kNames.end(), local) == kNames.end()) return name;
    document_.prefixes.push_back({position, position + prefix_.size()});
    return local;
  }

  struct Wanted {
    std::string_view name;
    ReginfoAttribute* attribute;
  };
  // Fills those of the tag's attributes that are wanted.
  void Attributes(const char** listed, TextRange tag, std::initializer_list<Wanted> wanted) {
    std::size_t at = text_.find_first_of(" \t\r\n/>", tag.begin);
    for (; *listed != nullptr; listed += 2) {
      at = text_.find_first_of("\"'", at);
      const std::size_t end = text_.find(text_[at], at + 1);
      for (const Wanted& want : wanted) {
        if (want.name == listed[0]) *want.attribute = {listed[1], {at + 1, end}};
      }
      at = end + 1;
    }
  }

  void Start(std::string_view name, const char** attributes) {
    const TextRange tag = Token();
    const int depth = depth_++;
    if (depth == kReginfo) {
      const std::size_t colon = name.find(':');
      if (colon != std::string_view::npos) prefix_ = name.substr(0, colon + 1);
    }
    name = LocalName(name, tag.begin + 1);
    if (depth == kReginfo) {
      is_reginfo_ = name == "reginfo";
      document_.range = tag;
      Attributes(attributes, tag, {{"version", &document_.version}, {"state", &document_.state}});
    }
    // An element counts where RFC 3680 puts it: in a chain from the root on.
    if (depth != known_) return;
    if (depth == kReginfo && is_reginfo_) {
      known_ = kRegistration;
    } else if (depth == kRegistration && name == "registration") {
      known_ = kContact;
      ReginfoRegistration& registration = document_.registrations.emplace_back();
      registration.range.begin = WithSpaceBefore(tag.begin);
      registration.contacts_begin = document_.contacts.size();
      Attributes(
          attributes, tag,
          {{"aor", &registration.aor}, {"id", &registration.id}, {"state", &registration.state}});
    } else if (depth == kContact && name == "contact") {
      known_ = kUri;
      has_uri_ = false;
      ReginfoContact& contact = document_.contacts.emplace_back();
      contact.range.begin = WithSpaceBefore(tag.begin);
      Attributes(attributes, tag,
                 {{"id", &contact.id}, {"state", &contact.state}, {"event", &contact.event}});
    } else if (depth == kUri && name == "uri" && !has_uri_) {
      known_ = kUri + 1;
      has_uri_ = true;
    }
  }

  void End(std::string_view name) {
    const TextRange tag = Token();  // empty, and behind it, for <name/>
    if (tag.end > tag.begin) LocalName(name, tag.begin + 2);
    if (--depth_ + 1 != known_) return;
    known_ = depth_;
    if (depth_ == kReginfo) {
      document_.range.end = tag.end;
      document_.content_end = tag.begin;
    } else if (depth_ == kRegistration) {
      ReginfoRegistration& registration = document_.registrations.back();
      registration.range.end = tag.end;
      registration.content_end = tag.begin;
      registration.contacts_end = document_.contacts.size();
    } else if (depth_ == kContact) {
      document_.contacts.back().range.end = tag.end;
    } else if (depth_ == kUri) {
      std::string& uri = document_.contacts.back().uri;
      uri.erase(uri.find_last_not_of(kSpace) + 1);
      uri.erase(0, uri.find_first_not_of(kSpace));
    }
  }

  void Text(std::string_view text) {
    if (known_ == kUri + 1 && depth_ == known_) document_.contacts.back().uri.append(text);
  }

  static Reader& Of(void* user) noexcept { return *static_cast<Reader*>(user); }
  static void XMLCALL OnStart(void* user, const char* name, const char** attributes) noexcept {
    Of(user).Guard([&] { Of(user).Start(name, attributes); });
  }
  static void XMLCALL OnEnd(void* user, const char* name) noexcept {
    Of(user).Guard([&] { Of(user).End(name); });
  }
  static void XMLCALL OnText(void* user, const char* text, int length) noexcept {
    Of(user).Guard([&] { Of(user).Text({text, static_cast<std::size_t>(length)}); });
  }

  std::string_view text_;
  ReginfoDocument& document_;
  std::unique_ptr<XML_ParserStruct, ParserDeleter> parser_;
  std::string prefix_;  // of the root, with the colon
  int depth_ = 0;       // open elements
  int known_ = 0;       // how many of them, from the root on, are the ones that we look for
  bool is_reginfo_ = false;
  bool has_uri_ = false;  // the contact's first <uri> has begun
  bool failed_ = false;   // out of memory
};

}  // namespace

bool ReadReginfo(std::string_view text, ReginfoDocument& document, std::string& reason) {
  CXML xml;
  if (xml.SetDoc(text) == 0) {
    reason = xml.LastError();
    return false;
  }
  Reader reader(text, document);
  reader.Run();
  if (!reader.is_reginfo()) {
    reason = "the root element is no reginfo";
  } else if (document.version.value.empty()) {
    reason = "the document has no version";
  } else if (!document.full() && document.state.value != "partial") {
    reason = "the document's state is neither full nor partial";
  } else {
    return true;
  }
  return false;
}

}  // namespace subscription
