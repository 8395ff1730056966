// The few bytes of SIP that the floor's two programs read and write. They talk to clients of this
// folder's measurements only: one header on a line, full names in their usual spelling.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

namespace bench {

// The lines of one message, without their ends; empty where the message has none.
struct SipLines {
  std::string_view start;
  std::string_view via;  // the topmost
  std::string_view from;
  std::string_view to;
  std::string_view call_id;
  std::string_view cseq;
  std::string_view contact;
  std::string_view expires;
  std::string_view credentials;
  std::string_view challenge;
};
// False when it is no message or lacks what a response needs.
[[nodiscard]] bool ReadLines(std::string_view text, SipLines& lines);

// The number behind this text in the line, or `otherwise`.
[[nodiscard]] std::int64_t NumberBehind(std::string_view line, std::string_view text,
                                        std::int64_t otherwise);
// The quoted value behind a parameter's name, `="` included; empty when there is none.
[[nodiscard]] std::string_view QuotedBehind(std::string_view line, std::string_view name);
// What stands between < and >.
[[nodiscard]] std::string_view UriOf(std::string_view line);

// Writes one message piece by piece; what does not fit is cut off.
class SipWriter {
 public:
  explicit SipWriter(std::span<char> room) : room_(room) {}
  SipWriter& operator<<(std::string_view text) {
    used_ += text.copy(room_.data() + used_, room_.size() - used_);
    return *this;
  }
  SipWriter& operator<<(std::uint64_t number);
  SipWriter& Hex(std::uint64_t number);  // 16 digits
  [[nodiscard]] std::size_t size() const { return used_; }

 private:
  std::span<char> room_;
  std::size_t used_ = 0;
};

// 64 bits from a seed that it moves on; for names on the wire, not for secrets.
[[nodiscard]] std::uint64_t NextRandom(std::uint64_t& seed);

}  // namespace bench
