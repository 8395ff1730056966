// Reading of messages: what is taken, what is refused and why, and that it ends in time.
#include <gtest/gtest.h>

#include <ctime>
#include <memory>
#include <string>

#include "nsip/nsip.h"

namespace {

using namespace std::string_literals;

constexpr char kStatus[] = "SIP/2.0 200 OK\r\n";
constexpr char kMandatory[] =
    "Via: SIP/2.0/UDP h;branch=z9hG4bK1\r\nFrom: <sip:a@b>;tag=1\r\nTo: <sip:a@b>\r\nCall-ID: c@d\r\n"
    "CSeq: 7 REGISTER\r\n";

std::string Response(const std::string& headers, const std::string& body = "") {
  return kStatus + std::string(kMandatory) + headers + "\r\n" + body;
}

std::unique_ptr<nsip_message> Read(const std::string& text) {
  std::string reason;
  auto msg = nsip_message_parse(text, reason);
  EXPECT_NE(msg, nullptr) << reason;
  return msg;
}

// Empty when the text is a message.
std::string Reason(const std::string& text) {
  std::string reason;
  const auto msg = nsip_message_parse(text, reason);
  EXPECT_EQ(msg == nullptr, !reason.empty()) << text;
  return reason;
}

TEST(NsipRead, Responses) {
  const auto msg = Read("SIP/2.0 499 \xE5\xA5\xBD : ok\r\n"s + kMandatory + "Contact: *\r\n\r\nall\r\n\r\n of it");
  EXPECT_EQ(std::to_string(msg->status_code) + msg->reason_phrase, "499\xE5\xA5\xBD : ok");
  EXPECT_TRUE(msg->contact_star && msg->max_forwards == -1 && msg->body == "all\r\n\r\n of it");
  EXPECT_EQ(Read("SIP/2.0 200 \r\n"s + kMandatory + "\r\n")->reason_phrase, "");
}

TEST(NsipRead, ReasonsToRefuse) {
  EXPECT_EQ(Reason("SIP/7.0 200 OK\r\n\r\n"), "SIP version is not 2.0");
  EXPECT_EQ(Reason("\r\n\r\n"), "no start line");
  EXPECT_NE(Reason(Response("X: a\n")), "");
  EXPECT_EQ(Reason(kStatus + " folded: x\r\n"s + kMandatory + "\r\n"), "bad header line");
}

TEST(NsipRead, MandatoryHeaders) {
  const std::string all = kMandatory;
  for (std::size_t start = 0, end = 0; start < all.size(); start = end) {
    end = all.find("\r\n", start) + 2;
    const std::string name = all.substr(start, all.find(':', start) - start);
    const std::string before = kStatus + all.substr(0, start);
    EXPECT_EQ(Reason(before + all.substr(end) + "\r\n"), "no " + name);
    EXPECT_EQ(Reason(before + name + ":\r\n" + all.substr(end) + "\r\n"), "bad " + name);
  }
  const std::string head = kStatus + all.substr(0, all.find("CSeq")) + "CSeq: ";
  for (const char* cseq : {"4294967296 A", "-1 A", "1", "A", "1 A B", "1A", "99999999999999999999 A"}) {
    EXPECT_EQ(Reason(head + cseq + "\r\n\r\n"), "bad CSeq") << cseq;
  }
  EXPECT_EQ(Read(head + "4294967295 A\r\n\r\n")->cseq_number, 4294967295U);
}

// Cut anywhere, it is no message or, from the end of its headers on, one with less of a body.
TEST(NsipRead, EveryPrefixIsReadOrRefused) {
  const std::string text = Response("Subject: x\r\n", "body");
  const std::size_t headers = text.find("\r\n\r\n") + 4;
  for (std::size_t size = 0; size <= text.size(); ++size) {
    EXPECT_EQ(Reason(text.substr(0, size)).empty(), size >= headers) << size;
  }
}

TEST(NsipRead, Bounds) {
  const std::string body(kNsipMaxMessage - Response("").size(), 'x');
  EXPECT_EQ(Reason(Response("", body)), "");
  EXPECT_EQ(Reason(Response("", body + "x")), "message is too long");
  std::string headers;
  for (int i = 0; i < 251; ++i) headers += "X: y\r\n";
  EXPECT_EQ(Reason(Response(headers)), "");
  EXPECT_EQ(Reason(Response(headers + "X: y\r\n")), "too many headers");
  std::string contacts = "Contact: sip:a";
  for (int i = 0; i < 255; ++i) contacts += ",sip:a";
  EXPECT_EQ(Reason(Response(contacts + "\r\n")), "");
  EXPECT_EQ(Reason(Response(contacts + ",sip:a\r\n")), "bad Contact");
}

// Processor time, since the machine may be busy.
std::clock_t TimeToRead(std::string header, const std::string& pattern, std::size_t size) {
  while (header.size() < size) header += pattern;
  const std::string text = Response(header + ">\r\n");
  const std::clock_t start = std::clock();
  std::string reason;
  const auto msg = nsip_message_parse(text, reason);
  int pos = 0;
  while (msg && nsip_message_get_p_associated_uri(msg.get(), pos, nullptr) >= 0) ++pos;
  return std::clock() - start;
}

// Texts that make careless readers start over again and again: eight times the text may cost eight
// times the time, not its square. What is too short to measure is fast enough.
TEST(NsipRead, TimeGrowsWithTheTextOnly) {
  // clang-format off
  const char* const beginnings[] = {
      "Contact: ", "Contact: <sip:", "Contact: <sip:a@b>", "Contact: <sip:a@b?", "P-Associated-URI: ", "X: a"};
  const char* const patterns[] = {
      "<", "\"", "\"\\\"", ",", "a\"<", ";", " ;a=b ", "a%41.", "a=b&", "a,", "<sip:a@b>,", "\r\n ", "\r\n a",
      "\r\nX: a", "\r"};
  // clang-format on
  for (const char* beginning : beginnings) {
    for (const char* pattern : patterns) {
      const std::clock_t large = TimeToRead(beginning, pattern, 60000);
      if (large <= CLOCKS_PER_SEC / 20) continue;
      EXPECT_LT(large, 24 * TimeToRead(beginning, pattern, 7500)) << beginning << pattern;
    }
  }
}

}  // namespace
