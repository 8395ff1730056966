#include "Sipcarrier/sip_conf_reader.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <initializer_list>
#include <string_view>
#include <system_error>
#include <utility>

#include "base/text.h"
#include "Domletlib/Domletlib.h"
#include "Sipcarrier/sip_conf_value.h"
#include "Sipcarrier/target.h"

namespace sipcarrier {
namespace {

// --- the file ------------------------------------------------------------------------------------

class File {
 public:
  // Without O_NONBLOCK the open of a pipe would wait for a writer.
  explicit File(const std::string& path)
      : fd_(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY)) {}
  ~File() {
    if (fd_ >= 0) ::close(fd_);
  }
  File(const File&) = delete;
  File& operator=(const File&) = delete;
  [[nodiscard]] int fd() const { return fd_; }

 private:
  int fd_;
};

// The whole text, or a reason why there is none.
std::string ReadText(const std::string& path, std::string& text) {
  const auto failed = [](const char* what) {
    const std::string why = std::generic_category().message(errno);
    return std::string(what) + ": " + why;
  };
  const File file(path);
  if (file.fd() < 0) return failed("cannot be opened");
  struct stat status = {};
  if (::fstat(file.fd(), &status) != 0) return failed("cannot be looked at");
  if (!S_ISREG(status.st_mode)) return "is no regular file";
  text.resize(kMaxConfBytes + 1);
  std::size_t filled = 0;
  while (filled < text.size()) {
    const ssize_t count = ::read(file.fd(), text.data() + filled, text.size() - filled);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return failed("cannot be read");
    if (count == 0) break;
    filled += static_cast<std::size_t>(count);
  }
  text.resize(filled);
  if (filled <= kMaxConfBytes) return {};
  return "is longer than " + std::to_string(kMaxConfBytes) + " bytes; shorten it";
}

// --- words of the faults -------------------------------------------------------------------------

// A text of the file as a fault shows it: one line of a bearable length, whatever it holds.
std::string Quoted(std::string_view text) {
  constexpr std::size_t kMax = 60;
  std::size_t length = std::min(text.size(), kMax);
  // Not in the middle of a character.
  while (length < text.size() && length > 0 && (text[length] & 0xC0) == 0x80) --length;
  std::string quoted = "\"";
  quoted += text.substr(0, length);
  std::replace_if(
      quoted.begin(), quoted.end(),
      [](char c) {
        return HasControl({&c, 1});
      },
      '?');
  return quoted + (length < text.size() ? "...\"" : "\"");
}

std::string_view Trim(std::string_view text) {
  const std::size_t begin = std::min(text.find_first_not_of(' '), text.size());
  return text.substr(begin, text.find_last_not_of(' ') + 1 - begin);
}

// The first words of a text between elements; empty when it is white space only.
std::string_view FirstWords(std::string_view text) {
  text.remove_prefix(std::min(text.find_first_not_of(" \t\r\n"), text.size()));
  return text.substr(0, text.find_first_of("\t\r\n"));
}

// Headers that no template may set: those with a field of their own in a message, in any spelling,
// which the message itself knows best, and those that answer challenges.
bool IsStackOwned(const std::string& name) {
  nsip_message scratch;
  return nsip_message_set_header(&scratch, name.c_str(), "") != 0 ||
         base::EqualNoCase(name, "Authorization") || base::EqualNoCase(name, "Proxy-Authorization");
}

// --- the document --------------------------------------------------------------------------------

// One run over one document; for one call, on one thread.
class Reader {
 public:
  Reader(const std::string& path, std::vector<ConfMessage>& messages,
         std::vector<ConfFault>& faults)
      : path_(path), messages_(messages), faults_(faults) {}

  void Read() {
    std::string text;
    if (std::string reason = ReadText(path_, text); !reason.empty()) {
      return Fault(0, std::move(reason));
    }
    CXML root;
    if (root.SetDoc(std::string_view(text)) == 0) return ReadXmlError(root.LastError());
    root.NextElem();
    if (root.GetName() != "sip-messages") {
      return Fault(root.GetLine(),
                   "unknown element " + Quoted(root.GetName()) + "; the root is <sip-messages>");
    }
    CheckAttributes(root, {});
    CheckNoText(root);
    root.IntoElem();
    while (!Full() && root.NextElem() != 0) {
      if (root.GetName() == "message") {
        ReadMessage(root);
      } else {
        FaultElement(root, "<sip-messages> holds <message> elements");
      }
    }
  }

 private:
  [[nodiscard]] bool Full() const { return faults_.size() > kMaxConfFaults; }

  void Fault(int line, std::string reason) {
    if (Full()) return;
    if (faults_.size() == kMaxConfFaults) reason = "there are more faults; mend those above first";
    faults_.push_back({path_, line, std::move(reason)});
  }

  void FaultElement(const CXML& element, const char* expected) {
    Fault(element.GetLine(), "unknown element " + Quoted(element.GetName()) + "; " + expected);
  }

  // "line L, column C: reason".
  void ReadXmlError(std::string_view error) {
    int line = 0;
    constexpr std::string_view kLine = "line ";
    if (error.starts_with(kLine)) {
      const char* begin = error.data() + kLine.size();
      const char* end = error.data() + error.size();
      const char* behind = std::from_chars(begin, end, line).ptr;
      error.remove_prefix(static_cast<std::size_t>(behind - error.data()));
      if (error.starts_with(", ")) error.remove_prefix(2);
    }
    Fault(line, "cannot be read as XML, " + std::string(error));
  }

  // Every one of these must be there, and no other.
  void CheckAttributes(const CXML& element, std::initializer_list<const char*> names) {
    const std::string where = " of <" + element.GetName() + ">";
    for (int i = 0; !Full(); ++i) {
      const std::string name = element.GetAttribName(i);
      if (name.empty()) break;
      if (std::find(names.begin(), names.end(), name) == names.end()) {
        Fault(element.GetLine(), "unknown attribute " + Quoted(name) + where);
      }
    }
    for (const char* name : names) {
      if (element.GetAttrib(name).empty()) {
        Fault(element.GetLine(),
              "the attribute \"" + std::string(name) + "\"" + where + " is missing or empty");
      }
    }
  }

  void CheckNoText(const CXML& element) {
    const std::string text = element.GetData();
    if (const std::string_view words = FirstWords(text); !words.empty()) {
      Fault(element.GetLine(), "<" + element.GetName() + "> holds the text " + Quoted(words) +
                                   " where only elements belong");
    }
  }

  void ReadMessage(const CXML& element) {
    ConfMessage message{element.GetAttrib("kind"), element.GetAttrib("method"), {}, 0};
    message.line = element.GetLine();
    CheckAttributes(element, {"kind", "method"});
    CheckNoText(element);
    CXML header = element;
    header.IntoElem();
    std::size_t bytes = 0;
    // A second one would reach the wire beside the one that the request's own takes the place of.
    std::array<std::pair<const char*, bool>, 2> single = {
        {{"Expires", false}, {"User-Agent", false}}};
    while (!Full() && header.NextElem() != 0) {
      if (header.GetName() != "header") {
        FaultElement(header, "<message> holds <header> elements");
        continue;
      }
      ConfMessage::Header read = ReadHeader(header);
      for (auto& [name, has] : single) {
        if (base::EqualNoCase(read.name, name) && std::exchange(has, true)) {
          Fault(read.line, "a second " + std::string(name) + " header in one message; leave one");
        }
      }
      bytes += HeaderBytes(read.name, read.value);
      if (message.headers.size() == kMaxTemplateHeaders || bytes > kMaxTemplateBytes) {
        return Fault(read.line,
                     "the headers of this message become too many from here on; it may "
                     "have " +
                         std::to_string(kMaxTemplateHeaders) + ", of " +
                         std::to_string(kMaxTemplateBytes) + " bytes in all");
      }
      message.headers.push_back(std::move(read));
    }
    messages_.push_back(std::move(message));
  }

  ConfMessage::Header ReadHeader(const CXML& element) {
    ConfMessage::Header header{element.GetAttrib("name"), {}, element.GetLine()};
    const std::string text = element.GetData();
    header.value = Trim(text);
    CheckAttributes(element, {"name"});
    if (!header.name.empty()) CheckName(header);
    CheckValue(header);
    CXML inside = element;
    inside.IntoElem();
    if (inside.NextElem() != 0) {
      FaultElement(inside, "a <header> holds its value and no elements");
    }
    return header;
  }

  void CheckName(const ConfMessage::Header& header) {
    if (!nsip_is_token(header.name)) {
      Fault(header.line, "the header name " + Quoted(header.name) +
                             " is no token: letters, digits and -.!%*_+`'~ only");
    } else if (IsStackOwned(header.name)) {
      Fault(header.line, "the header " + Quoted(header.name) + " is the stack's own; take it out");
    }
  }

  void CheckValue(const ConfMessage::Header& header) {
    if (header.value.find_first_of("\r\n") != std::string::npos) {
      return Fault(header.line, "the value of the header " + Quoted(header.name) +
                                    " is broken over lines; write it in one line, close to the "
                                    "tags");
    }
    if (HasControl(header.value)) {
      return Fault(header.line, "the value of the header " + Quoted(header.name) +
                                    " holds a tab or another control character; use blanks");
    }
    std::vector<ValuePiece> pieces;
    if (!SplitValue(header.value, pieces)) {
      return Fault(header.line, "in the value of the header " + Quoted(header.name) +
                                    " a \"${\" has no key or no \"}\"; a plain \"${\" is written "
                                    "\"$${\"");
    }
    const bool has_cell =
        std::any_of(pieces.begin(), pieces.end(), [](const auto& piece) { return piece.is_key; });
    if (base::EqualNoCase(header.name, "Expires") && !has_cell && !IsDeltaSeconds(header.value)) {
      Fault(header.line, "the value of the Expires header is " + Quoted(header.value) +
                             "; it has to be a number of seconds from 0 to 4294967295");
    }
  }

  const std::string& path_;
  std::vector<ConfMessage>& messages_;
  std::vector<ConfFault>& faults_;
};

}  // namespace

void ReadConf(const std::string& path, std::vector<ConfMessage>& messages,
              std::vector<ConfFault>& faults) {
  Reader(path, messages, faults).Read();
}

}  // namespace sipcarrier
