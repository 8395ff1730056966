// The trace shows what is on the wire, byte for byte, but for the secrets.
#include "sipcarrier_peer.h"

namespace sip_test {
namespace {

struct Masking {
  const char* name;
  const char* value;
  const char* masked;
};

// clang-format off
const Masking kRequests[] = {
    {"Authorization",
     R"(Digest username="alice", realm="r", nonce="n", uri="sip:e", response="0123abcd", cnonce="c0", nc=00000001)",
     R"(Digest username="alice", realm="r", nonce="n", uri="sip:e", response="***", cnonce="***", nc=00000001)"},
    {"Proxy-Authorization", R"(digest RESPONSE = "a\"b",x=1,CNONCE=token)",
                            R"(digest RESPONSE = "***",x=1,CNONCE=***)"},
    // The words inside quotes and other names are no parameters.
    {"Authorization", R"(Digest realm="a, response=\"x\", y", xresponse="kept", response-x="kept",response="s")",
                      R"(Digest realm="a, response=\"x\", y", xresponse="kept", response-x="kept",response="***")"},
    {"Authorization", "Basic YWxpY2U6c2VjcmV0", "Basic ***"},
    {"X-Note", R"(response="kept", cnonce="kept")", R"(response="kept", cnonce="kept")"},
};
const Masking kResponses[] = {
    {"Authentication-Info", R"(nextnonce="secret", qop=auth, rspauth="secret", cnonce="secret")",
                            R"(nextnonce="***", qop=auth, rspauth="***", cnonce="***")"},
    {"AUTHENTICATION-INFO ", "qop=auth,\r\n nextnonce\r\n = \"secret\",\r\n\trspauth=secret",
                             "qop=auth,\r\n nextnonce\r\n = \"***\",\r\n\trspauth=***"},
    {"authorization", "Digest\r\n response=\"secret\"", "Digest\r\n response=\"***\""},
    {"WWW-Authenticate", R"(Digest realm="r", nonce="shown", opaque="shown")",
                         R"(Digest realm="r", nonce="shown", opaque="shown")"},
};
// clang-format on

TEST_F(StackTest, TheTraceMasksTheSecretsAndNothingElse) {
  StartWith(Quick());
  Peer peer;
  for (const Masking& c : kRequests) {
    const std::size_t before = Trace(true).size();
    auto request = MakeRequest(UriOf(peer));
    request->body = "Authorization: Digest response=\"a body is no header\"\r\n";
    ASSERT_EQ(nsip_message_set_header(request.get(), c.name, c.value), 0);
    const auto result = Send(std::move(request));
    const std::string wire = peer.Receive();
    EXPECT_EQ(peer.Receive(), wire);  // a retransmission is shown too
    peer.Send(ResponseTo(wire, "200 OK"));
    ASSERT_TRUE(result->Wait());
    while (!peer.Receive(1ms).empty()) {
    }
    const auto sent = Trace(true);
    ASSERT_GE(sent.size(), before + 2);
    for (std::size_t i = before; i < sent.size(); ++i) {
      EXPECT_EQ(sent[i].text, Replaced(wire, c.value, c.masked));
    }
    EXPECT_EQ(sent[before].local, sipcarrier::LocalEndpoints().at(0));
    EXPECT_EQ(sent[before].remote, "127.0.0.1:" + std::to_string(peer.port()));
  }

  const auto result = Send(UriOf(peer));
  const std::string response = ResponseTo(peer.Receive(), "200 OK");
  std::size_t before = Trace(false).size();
  for (const Masking& c : kResponses) {
    const auto with = [&](const char* value) {
      return Replaced(response, "\r\nContent-Length",
                      "\r\n" + std::string(c.name) + ": " + value + "\r\nContent-Length");
    };
    peer.Send(with(c.value));
    ASSERT_TRUE(Eventually([&] { return Trace(false).size() > before; })) << c.value;
    EXPECT_EQ(Trace(false).at(before++).text, with(c.masked));
  }
  EXPECT_TRUE(result->Wait());
}

}  // namespace
}  // namespace sip_test
