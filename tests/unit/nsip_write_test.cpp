// Writing of messages: the form, that it reads the same, and that nothing can be injected.
#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>

#include "nsip/nsip.h"

namespace {

std::unique_ptr<nsip_message> Read(const std::string& text) {
  std::string reason;
  auto msg = nsip_message_parse(text, reason);
  EXPECT_NE(msg, nullptr) << reason;
  return msg;
}

constexpr char kRequest[] =
    "REGISTER sip:example.com SIP/2.0\r\n"
    "Via: SIP/2.0/UDP 192.0.2.1:5060;branch=z9hG4bK1;rport\r\nVia: SIP/2.0/TCP [::1]\r\n"
    "Route: <sip:p1;lr>\r\nRoute: \"P, 2\" <sip:p2;lr>;x=\"y z\"\r\nRecord-Route: <sip:r;lr>\r\n"
    "From: Alice <sip:alice@example.com>;tag=1\r\nTo: <sip:alice@example.com>\r\n"
    "Call-ID: abc@192.0.2.1\r\nCSeq: 4294967295 REGISTER\r\nMax-Forwards: 0\r\n"
    "Contact: <sip:alice@192.0.2.1:5060>;expires=60\r\n"
    "Supported: path\r\nx-Odd-CASE: a,  \"b\"\r\nContent-Length: 4\r\n\r\na\r\nb";

TEST(NsipWrite, AFullMessageComesOutAsItCame) {
  const auto msg = Read(kRequest);
  std::string text;
  ASSERT_EQ(nsip_message_to_str(*msg, text), 0);
  EXPECT_EQ(text, kRequest);

  // A copy is complete and stands alone.
  const auto copy = nsip_message_clone(*msg);
  msg->from->url->user = "changed";
  msg->vias[0]->host = "changed";
  msg->headers.items[0]->hvalue = "changed";
  ASSERT_EQ(nsip_message_to_str(*copy, text), 0);
  EXPECT_EQ(text, kRequest);
}

TEST(NsipWrite, NothingGoesOutThatWouldReadAsSomethingElse) {
  const std::string inject = "x\r\nRoute: <sip:evil>";
  const std::string nul("x\0y", 3);
  using Message = nsip_message;
  // clang-format off
  const std::function<void(Message&)> changes[] = {
      // missing parts
      [](Message& m) { m.sip_method.clear(); }, [](Message& m) { m.req_uri.reset(); },
      [](Message& m) { m.to->url.reset(); }, [](Message& m) { m.vias.clear(); },
      [](Message& m) { m.call_id.clear(); }, [](Message& m) { m.cseq_method.clear(); },
      // line ends and NUL in each kind of text
      [&](Message& m) { m.sip_method = m.cseq_method = inject; }, [&](Message& m) { m.req_uri->user = inject; },
      [&](Message& m) { m.from->displayname = inject; }, [&](Message& m) { m.from->params[0].name = inject; },
      [&](Message& m) { m.from->params[0].value = "\"" + inject + "\""; }, [&](Message& m) { m.call_id = inject; },
      [&](Message& m) { m.vias[0]->host = inject; }, [&](Message& m) { m.vias[0]->params[0].value = nul; },
      [&](Message& m) { m.contacts[0]->url->headers = inject; },
      [&](Message& m) { m.headers.items[0]->hname = inject; },
      [&](Message& m) { m.headers.items[0]->hvalue = inject; }, [&](Message& m) { m.headers.items[0]->hvalue = nul; },
      [&](Message& m) {
        m.status_code = 200;
        m.reason_phrase = inject;
      },
      // what would be read as another part
      [](Message& m) { m.call_id = "a b"; }, [](Message& m) { m.cseq_method = "INVITE"; },
      [](Message& m) { m.max_forwards = 256; }, [](Message& m) { m.contact_star = true; },
      [](Message& m) { m.from->params[0].value = R"("a";x="b")"; },
      [](Message& m) { m.vias[0]->host = "h, SIP/2.0/UDP i"; },
      [](Message& m) { m.headers.items[0]->hname = "l"; }, [](Message& m) { m.headers.items[0]->hname = "a:b"; },
      [](Message& m) { m.body.assign(kNsipMaxMessage, 'x'); }};
  // clang-format on
  for (const auto& change : changes) {
    const auto msg = Read(kRequest);
    change(*msg);
    std::string text = "kept";
    EXPECT_EQ(nsip_message_to_str(*msg, text), -1) << "change " << &change - changes;
    EXPECT_EQ(text, "kept");
  }
}

}  // namespace
