// The trace shows what is on the wire, byte for byte, but for the secrets.
#include "sipcarrier_peer.h"

namespace sip_test {
namespace {

struct Shown {
  std::mutex mutex;
  std::vector<std::string> sent;
  std::vector<std::string> received;
  std::string local;
  std::string remote;
};

class TraceTest : public StackTest {
 protected:
  void SetUp() override {
    auto config = Quick();
    config.trace = [this](const sipcarrier::TraceRecord& record) {
      const std::lock_guard lock(shown.mutex);
      (record.sent ? shown.sent : shown.received).emplace_back(record.text);
      shown.local = record.local;
      shown.remote = record.remote;
    };
    StartWith(config);
  }
  void TearDown() override { sipcarrier::Stop(0ms); }
  Shown shown;
};

struct Masking {
  const char* name;
  const char* value;
  const char* masked;
};

TEST_F(TraceTest, SecretsOfRequestsAreMaskedAndNothingElse) {
  const std::vector<Masking> cases = {
      {"Authorization",
       R"(Digest username="alice", realm="r", nonce="n", uri="sip:e", response="0123abcd", cnonce="c0", nc=00000001)",
       R"(Digest username="alice", realm="r", nonce="n", uri="sip:e", response="***", cnonce="***", nc=00000001)"},
      {"Proxy-Authorization", R"(digest RESPONSE = "a\"b",x=1,CNONCE=token)",
       R"(digest RESPONSE = "***",x=1,CNONCE=***)"},
      // The words inside quotes and other names are no parameters.
      {"Authorization",
       R"(Digest realm="a, response=\"x\", y", xresponse="kept", response-x="kept",response="s")",
       R"(Digest realm="a, response=\"x\", y", xresponse="kept", response-x="kept",response="***")"},
      {"Authorization", "Basic YWxpY2U6c2VjcmV0", "Basic ***"},
      {"X-Note", R"(response="kept", cnonce="kept")", R"(response="kept", cnonce="kept")"},
  };
  Peer peer;
  for (const Masking& c : cases) {
    auto request = MakeRequest(UriOf(peer));
    request->body = "Authorization: Digest response=\"a body is no header\"\r\n";
    ASSERT_EQ(nsip_message_set_header(request.get(), c.name, c.value), 0);
    const auto result = Send(std::move(request));
    const std::string wire = peer.Receive();
    EXPECT_EQ(peer.Receive(), wire);  // a retransmission is shown too
    ASSERT_TRUE(Eventually([&] {
      const std::lock_guard lock(shown.mutex);
      return shown.sent.size() >= 2;
    }));
    peer.Send(ResponseTo(wire, "200 OK"));
    ASSERT_TRUE(result->Wait());
    while (!peer.Receive(1ms).empty()) {
    }
    const std::lock_guard lock(shown.mutex);
    EXPECT_EQ(shown.sent[0], Replaced(wire, c.value, c.masked));
    EXPECT_EQ(shown.sent[1], shown.sent[0]);
    EXPECT_EQ(shown.local, sipcarrier::LocalEndpoints().at(0));
    EXPECT_EQ(shown.remote, "127.0.0.1:" + std::to_string(peer.port()));
    shown.sent.clear();
  }
}

TEST_F(TraceTest, SecretsOfReceivedMessagesAreMaskedHoweverTheyAreWritten) {
  Peer peer;
  const auto result = Send(UriOf(peer));
  const std::string answer = ResponseTo(peer.Receive(), "200 OK");
  const std::vector<Masking> cases = {
      {"Authentication-Info", R"(nextnonce="secret", qop=auth, rspauth="secret", cnonce="secret")",
       R"(nextnonce="***", qop=auth, rspauth="***", cnonce="***")"},
      {"AUTHENTICATION-INFO ", "qop=auth,\r\n nextnonce\r\n = \"secret\",\r\n\trspauth=secret",
       "qop=auth,\r\n nextnonce\r\n = \"***\",\r\n\trspauth=***"},
      {"authorization", "Digest\r\n response=\"secret\"", "Digest\r\n response=\"***\""},
      {"WWW-Authenticate", R"(Digest realm="r", nonce="shown", opaque="shown")",
       R"(Digest realm="r", nonce="shown", opaque="shown")"},
  };
  for (const Masking& c : cases) {
    const std::string line = std::string("\r\n") + c.name + ": ";
    peer.Send(Replaced(answer, "\r\nContent-Length", line + c.value + "\r\nContent-Length"));
    ASSERT_TRUE(Eventually([&] {
      const std::lock_guard lock(shown.mutex);
      return !shown.received.empty();
    })) << c.value;
    const std::lock_guard lock(shown.mutex);
    EXPECT_EQ(shown.received.front(),
              Replaced(answer, "\r\nContent-Length", line + c.masked + "\r\nContent-Length"));
    shown.received.clear();
  }
  EXPECT_TRUE(result->Wait());
}

}  // namespace
}  // namespace sip_test
