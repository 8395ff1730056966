// Reading of messages (RFC 3261 §7, §25): start line, headers, body, in one pass over the text.
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "base/text.h"
#include "nsip/address.h"
#include "nsip/chars.h"
#include "nsip/header_names.h"
#include "nsip/nsip.h"
#include "nsip/quoted.h"
#include "nsip/via.h"

namespace nsip {
namespace {

constexpr std::string_view kVersion = "SIP/2.0";
constexpr std::size_t kUsualHeaders = 8;
constexpr std::size_t kMaxHeaders = 256;  // header lines, and entries of one kind of list

// Reads one text; for one call, on one thread. The text must outlive the reader.
class MessageReader {
 public:
  explicit MessageReader(std::string_view text)
      : rest_(text), message_(std::make_unique<nsip_message>()) {}

  // Null when the text is no message; reason() says why then.
  std::unique_ptr<nsip_message> read();
  [[nodiscard]] const char* reason() const { return reason_; }

 private:
  bool fail(const char* reason) {
    reason_ = reason;
    return false;
  }

  bool next_line(std::string_view& line);
  bool read_start_line();
  bool read_status_line(std::string_view line);
  bool read_request_line(std::string_view line);
  bool read_headers();
  bool read_header(std::string_view name, std::string_view value);
  bool read_single(HeaderId id, std::string_view value);
  bool read_number(std::string_view value, std::uint32_t limit, const char* reason,
                   std::uint32_t& number);
  bool read_address(std::string_view value, const char* reason, std::unique_ptr<nsip_from>& out);
  bool read_call_id(std::string_view value);
  bool read_cseq(std::string_view value);
  bool read_vias(std::string_view value);
  bool read_contacts(std::string_view value);
  bool read_addresses(std::string_view value, const char* reason,
                      std::vector<std::unique_ptr<nsip_from>>& out);
  bool split(std::string_view value, std::size_t present);  // into entries_
  bool check_mandatory();
  bool read_body();

  std::string_view rest_;
  std::unique_ptr<nsip_message> message_;
  const char* reason_ = "";
  std::vector<std::string_view> entries_;  // of the list that is being read; kept for its capacity
  unsigned seen_ = 0;                      // bits of the single-value headers read so far
  bool has_content_length_ = false;
  std::uint32_t content_length_ = 0;
};

bool MessageReader::next_line(std::string_view& line) {
  const std::size_t end = rest_.find('\r');
  if (end == std::string_view::npos || end + 1 == rest_.size()) {
    return fail("header section does not end");
  }
  line = rest_.substr(0, end);
  if (rest_[end + 1] != '\n' || !is_clean(line)) {
    return fail("control character in header section");
  }
  rest_.remove_prefix(end + 2);
  return true;
}

bool MessageReader::read_start_line() {
  // RFC 3261 §7.5.
  while (rest_.starts_with("\r\n")) {
    rest_.remove_prefix(2);
  }
  if (rest_.empty()) {
    return fail("no start line");
  }
  std::string_view line;
  if (!next_line(line)) {
    return false;
  }
  return base::EqualNoCase(line.substr(0, 4), "SIP/") ? read_status_line(line)
                                                      : read_request_line(line);
}

bool MessageReader::read_status_line(std::string_view line) {
  if (!base::EqualNoCase(line.substr(0, line.find(' ')), kVersion)) {
    return fail("SIP version is not 2.0");
  }
  line.remove_prefix(kVersion.size());
  // SP 3DIGIT SP, then the phrase, which may be empty.
  std::uint32_t code = 0;
  if (line.size() < 5 || line[0] != ' ' || line[4] != ' ' ||
      !parse_number(line.substr(1, 3), 699, code) || code < 100) {
    return fail("bad status line");
  }
  message_->status_code = static_cast<int>(code);
  message_->reason_phrase = line.substr(5);
  return true;
}

bool MessageReader::read_request_line(std::string_view line) {
  const std::size_t first = line.find(' ');
  const std::size_t last = line.rfind(' ');
  if (first == last) {
    return fail("bad request line");
  }
  if (!base::EqualNoCase(line.substr(last + 1), kVersion)) {
    return fail("SIP version is not 2.0");
  }
  message_->sip_method = line.substr(0, first);
  message_->req_uri = std::make_unique<nsip_uri>();
  if (!nsip_is_token(message_->sip_method)) {
    return fail("bad method");
  }
  if (!nsip_uri_parse(line.substr(first + 1, last - first - 1), *message_->req_uri)) {
    return fail("bad Request-URI");
  }
  return true;
}

bool MessageReader::read_headers() {
  std::string folded;
  std::string_view line;
  for (std::size_t count = 0;; ++count) {
    if (!next_line(line)) {
      return false;
    }
    if (line.empty()) {
      return true;
    }
    if (count == kMaxHeaders) {
      return fail("too many headers");
    }
    const std::size_t colon = line.find(':');
    const std::string_view name = base::TrimRight(line.substr(0, colon));
    if (colon == std::string_view::npos || !nsip_is_token(name)) {
      return fail("bad header line");
    }
    std::string_view value = base::Trim(line.substr(colon + 1));
    // A fold and the white space around it are one space (RFC 3261 §7.3.1).
    if (!rest_.empty() && base::IsBlank(rest_.front())) {
      folded = value;
      while (!rest_.empty() && base::IsBlank(rest_.front())) {
        if (!next_line(line)) {
          return false;
        }
        line = base::Trim(line);
        if (!line.empty() && !folded.empty()) {
          folded += ' ';
        }
        folded += line;
      }
      value = folded;
    }
    if (!read_header(name, value)) {
      return false;
    }
  }
}

bool MessageReader::read_header(std::string_view name, std::string_view value) {
  const HeaderId id = header_id(name);
  switch (id) {
    case HeaderId::kVia:
      return read_vias(value);
    case HeaderId::kContact:
      return read_contacts(value);
    case HeaderId::kRoute:
      return read_addresses(value, "bad Route", message_->routes);
    case HeaderId::kRecordRoute:
      return read_addresses(value, "bad Record-Route", message_->record_routes);
    case HeaderId::kOther: {
      auto header = std::make_unique<nsip_header>();
      header->hname = full_header_name(name);
      header->hvalue = value;
      auto& items = message_->headers.items;
      if (items.empty()) items.reserve(kUsualHeaders);
      items.push_back(std::move(header));
      return true;
    }
    default:
      return read_single(id, value);
  }
}

// A second one would leave it to the reader which of the two counts.
bool MessageReader::read_single(HeaderId id, std::string_view value) {
  const unsigned bit = 1U << static_cast<unsigned>(id);
  if ((seen_ & bit) != 0) {
    return fail("header of a single value stands twice");
  }
  seen_ |= bit;
  std::uint32_t number = 0;
  switch (id) {
    case HeaderId::kFrom:
      return read_address(value, "bad From", message_->from);
    case HeaderId::kTo:
      return read_address(value, "bad To", message_->to);
    case HeaderId::kCallId:
      return read_call_id(value);
    case HeaderId::kCSeq:
      return read_cseq(value);
    case HeaderId::kMaxForwards:
      if (!read_number(value, 255, "bad Max-Forwards", number)) {
        return false;
      }
      message_->max_forwards = static_cast<int>(number);
      return true;
    default:
      has_content_length_ = true;
      return read_number(value, kNsipMaxMessage, "bad Content-Length", content_length_);
  }
}

bool MessageReader::read_number(std::string_view value, std::uint32_t limit, const char* reason,
                                std::uint32_t& number) {
  return parse_number(value, limit, number) || fail(reason);
}

bool MessageReader::read_address(std::string_view value, const char* reason,
                                 std::unique_ptr<nsip_from>& out) {
  out = std::make_unique<nsip_from>();
  return parse_address(value, *out) || fail(reason);
}

bool MessageReader::read_call_id(std::string_view value) {
  if (!is_call_id(value)) {
    return fail("bad Call-ID");
  }
  message_->call_id = value;
  return true;
}

bool MessageReader::read_cseq(std::string_view value) {
  const std::size_t digits = span_of(value, kDigit);
  const std::string_view method = base::TrimLeft(value.substr(digits));
  if (method.size() == value.size() - digits || !nsip_is_token(method) ||
      !parse_number(value.substr(0, digits), UINT32_MAX, message_->cseq_number)) {
    return fail("bad CSeq");
  }
  message_->cseq_method = method;
  return true;
}

bool MessageReader::split(std::string_view value, std::size_t present) {
  entries_.clear();
  return split_list(value, entries_) && entries_.size() + present <= kMaxHeaders;
}

bool MessageReader::read_vias(std::string_view value) {
  if (!split(value, message_->vias.size())) {
    return fail("bad Via");
  }
  for (const std::string_view entry : entries_) {
    auto via = std::make_unique<nsip_via>();
    if (!parse_via(entry, *via)) {
      return fail("bad Via");
    }
    message_->vias.push_back(std::move(via));
  }
  return true;
}

bool MessageReader::read_contacts(std::string_view value) {
  constexpr const char* kReason = "bad Contact";
  // "*" stands alone (RFC 3261 §10.2.2).
  if (message_->contact_star) {
    return fail(kReason);
  }
  if (value == "*") {
    message_->contact_star = true;
    return message_->contacts.empty() || fail(kReason);
  }
  return read_addresses(value, kReason, message_->contacts);
}

bool MessageReader::read_addresses(std::string_view value, const char* reason,
                                   std::vector<std::unique_ptr<nsip_from>>& out) {
  if (!split(value, out.size())) {
    return fail(reason);
  }
  for (const std::string_view entry : entries_) {
    std::unique_ptr<nsip_from> address;
    if (!read_address(entry, reason, address)) {
      return false;
    }
    out.push_back(std::move(address));
  }
  return true;
}

bool MessageReader::check_mandatory() {
  if (message_->vias.empty()) {
    return fail("no Via");
  }
  if (message_->from == nullptr) {
    return fail("no From");
  }
  if (message_->to == nullptr) {
    return fail("no To");
  }
  if (message_->call_id.empty()) {
    return fail("no Call-ID");
  }
  if (message_->cseq_method.empty()) {
    return fail("no CSeq");
  }
  if (message_->status_code == 0 && message_->cseq_method != message_->sip_method) {
    return fail("CSeq names another method");
  }
  return true;
}

// RFC 3261 §18.3: over UDP the body goes to the end unless Content-Length tells less.
bool MessageReader::read_body() {
  if (has_content_length_ && content_length_ > rest_.size()) {
    return fail("body is shorter than Content-Length");
  }
  message_->body = has_content_length_ ? rest_.substr(0, content_length_) : rest_;
  return true;
}

std::unique_ptr<nsip_message> MessageReader::read() {
  if (rest_.size() > kNsipMaxMessage) {
    fail("message is too long");
    return nullptr;
  }
  if (!read_start_line() || !read_headers() || !check_mandatory() || !read_body()) {
    return nullptr;
  }
  return std::move(message_);
}

}  // namespace
}  // namespace nsip

std::unique_ptr<nsip_message> nsip_message_parse(std::string_view text, std::string& reason) {
  nsip::MessageReader reader(text);
  auto message = reader.read();
  reason = message == nullptr ? reader.reason() : "";
  return message;
}
