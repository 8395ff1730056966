// Writing of messages: the form, that it reads the same, and that nothing can be injected.
#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

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
    "Via: SIP/2.0/UDP 192.0.2.1:5060;branch=z9hG4bK1;rport\r\n"
    "Via: SIP/2.0/TCP [::1]\r\n"
    "Route: <sip:p1;lr>\r\n"
    "Route: \"P, 2\" <sip:p2;lr>;x=\"y z\"\r\n"
    "Record-Route: <sip:r;lr>\r\n"
    "From: Alice <sip:alice@example.com>;tag=1\r\n"
    "To: <sip:alice@example.com>\r\n"
    "Call-ID: abc@192.0.2.1\r\n"
    "CSeq: 4294967295 REGISTER\r\n"
    "Max-Forwards: 0\r\n"
    "Contact: <sip:alice@192.0.2.1:5060>;expires=60\r\n"
    "Supported: path\r\n"
    "x-Odd-CASE: a,  \"b\"\r\n"
    "Content-Length: 4\r\n"
    "\r\n"
    "a\r\nb";

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
  using Change = std::function<void(nsip_message&)>;
  const std::string inject = "x\r\nRoute: <sip:evil>";
  const std::string nul("x\0y", 3);
  const auto header = [](std::string name, std::string value) {
    return std::make_unique<nsip_header>(nsip_header{std::move(name), std::move(value)});
  };
  const std::vector<Change> changes = {
      // missing parts
      [](nsip_message& m) { m.sip_method.clear(); }, [](nsip_message& m) { m.req_uri.reset(); },
      [](nsip_message& m) { m.to->url.reset(); }, [](nsip_message& m) { m.vias.clear(); },
      [](nsip_message& m) { m.call_id.clear(); }, [](nsip_message& m) { m.cseq_method.clear(); },
      // line ends and NUL in each kind of text
      [&](nsip_message& m) { m.sip_method = m.cseq_method = inject; },
      [&](nsip_message& m) { m.req_uri->user = inject; },
      [&](nsip_message& m) { m.from->displayname = inject; },
      [&](nsip_message& m) { m.from->params[0].value = "\"" + inject + "\""; },
      [&](nsip_message& m) { m.from->params[0].name = inject; },
      [&](nsip_message& m) { m.vias[0]->host = inject; },
      [&](nsip_message& m) { m.vias[0]->params[0].value = nul; },
      [&](nsip_message& m) { m.call_id = inject; },
      [&](nsip_message& m) { m.contacts[0]->url->headers = inject; },
      [&](nsip_message& m) { m.headers.items[0]->hname = inject; },
      [&](nsip_message& m) { m.headers.items[0]->hvalue = inject; },
      [&](nsip_message& m) { m.headers.items[0]->hvalue = nul; },
      [&](nsip_message& m) {
        m.status_code = 200;
        m.reason_phrase = inject;
      },
      // what would be read as another part
      [](nsip_message& m) { m.call_id = "a b"; }, [](nsip_message& m) { m.cseq_method = "INVITE"; },
      [](nsip_message& m) { m.max_forwards = 256; }, [](nsip_message& m) { m.contact_star = true; },
      [](nsip_message& m) { m.from->params[0].value = R"("a";x="b")"; },
      [](nsip_message& m) { m.vias[0]->host = "h, SIP/2.0/UDP i"; },
      [&](nsip_message& m) { m.headers.items.push_back(header("l", "0")); },
      [&](nsip_message& m) { m.headers.items.push_back(header("a:b", "")); },
      [](nsip_message& m) { m.body.assign(kNsipMaxMessage, 'x'); }};
  for (std::size_t i = 0; i < changes.size(); ++i) {
    const auto msg = Read(kRequest);
    changes[i](*msg);
    std::string text = "kept";
    EXPECT_EQ(nsip_message_to_str(*msg, text), -1) << "change " << i << ": " << text;
    EXPECT_EQ(text, "kept");
  }
}

}  // namespace
