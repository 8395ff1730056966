// Requests from outside: the server transaction of RFC 3261 §17.2.2, what matches, where responses go, and who handles
// what.
#include "sipcarrier_peer.h"

namespace sip_test {
namespace {

using sipcarrier::GetCounters;
using sipcarrier::ServerTransactionId;

class ServerTest : public StackTest {
 protected:
  void Begin(milliseconds t1 = 100ms, const char* address = "127.0.0.1") {
    auto config = Quick(t1);
    config.local_address = address;
    StartWith(config);
    ASSERT_TRUE(sipcarrier::SetRequestHandler("NOTIFY", handler_));
    const std::string endpoint = sipcarrier::LocalEndpoints().at(0);
    port_ = std::stoi(endpoint.substr(endpoint.rfind(':') + 1));
  }
  static std::string Request(const std::string& method, const std::string& via) {
    return method + " sip:alice@h SIP/2.0\r\nVia: SIP/2.0/UDP " + via + "\r\nFrom: <sip:bob@example.com>;tag=1\r\n" +
           "To: <sip:alice@example.com>\r\nCall-ID: c@example.com\r\nCSeq: 7 " + method +
           "\r\nMax-Forwards: 0\r\nContent-Length: 0\r\n\r\n";
  }
  static std::string Branch() {
    static int last = 0;
    return ";branch=z9hG4bK" + std::to_string(++last);
  }
  static std::string Notify() { return Request("NOTIFY", "h;rport" + Branch()); }
  static std::string Ask(Peer& peer, const std::string& request) {
    peer.Send(request);
    return peer.Receive();
  }
  // On the I/O thread.
  static bool RespondThere(ServerTransactionId id, int status, const std::string& header = "a", const char* tag = "") {
    std::atomic<int> result{-1};
    const auto task = [&] { result = sipcarrier::Respond(id, status, "Word", {{"X-Mine", header}}, tag); };
    EXPECT_TRUE(sipcarrier::RunOnIoThread(task) && Eventually([&] { return result >= 0; }));
    return result == 1;
  }

  std::atomic<int> calls_{0};
  std::atomic<int> response_{0};  // the status that the handler responds with; 0: it does not
  std::atomic<ServerTransactionId> last_{0};
  const sipcarrier::RequestFn handler_ = [this](auto /*request*/, auto id, const auto& local) {
    EXPECT_TRUE(local.port == port_ && (response_ == 0 || sipcarrier::Respond(id, response_, "Word")));
    last_ = id;
    ++calls_;
  };
  int port_ = 0;
};

// clang-format off
// In the tables OTHER is the port of a second socket, HOST and ADDR what both sockets have, SOURCE where the request
// came from, as Via tells it.
TEST_F(ServerTest, TheStackRespondsWhereNoHandlerIsNeededAndToTheSourceOnly) {
  const struct { const char *method, *via, *from, *to, *status, *part; bool to_other; } cases[] = {
      {"OPTIONS", "h;rport", "", "", "200 OK", "Allow: NOTIFY, OPTIONS\r\n", false},
      {"MESSAGE", "h;rport", "", "", "405 ", "Allow: NOTIFY, OPTIONS\r\n", false},
      {"INVITE", "h;rport", "", "", "405 ", "Allow: NOTIFY, OPTIONS\r\n", false},
      {"CANCEL", "h;rport", "Max-", "Require: any\r\nMax-", "481 ", "", false},
      {"NOTIFY", "h;rport", "Max-", "Require: a1 , b\"2,\r\nRequire: c3\r\nMax-", "420 ", "ported: a1, c3\r\n", false},
      {"NOTIFY", "h;rport", "sip:alice@h", "tel:+15550100", "416 ", "", false},
      {"OPTIONS", "h;rport", "m>\r\nC", "m>;tag=old\r\nC", "200 ", ";tag=old\r\n", false},
      {"OPTIONS", "HOST:OTHER;rport", "", "", "200 ", "HOST:OTHER;SOURCE;branch=", false},
      {"OPTIONS", "h:OTHER;rport=9;received=192.0.2.1", "", "", "200 ", "h:OTHER;SOURCE;branch=", false},
      {"OPTIONS", "h;maddr=192.0.2.1;rport", "", "", "200 ", "h;maddr=192.0.2.1;SOURCE;branch=", false},
      {"OPTIONS", "HOST:OTHER", "", "", "200 ", "HOST:OTHER;branch=", true},
      {"OPTIONS", "HOST:OTHER;received=192.0.2.1", "", "", "200 ", "HOST:OTHER;branch=", true},
      {"OPTIONS", "192.0.2.7:OTHER", "", "", "200 ", ";received=ADDR\r\nVia: SIP/2.0/UDP proxy;rport\r\n", true},
  };
  for (const std::string address : {"127.0.0.1", "::1"}) {
    const int family = address == "::1" ? AF_INET6 : AF_INET;
    Peer other(family);
    if (other.port() == 0) GTEST_SKIP() << "no IPv6 on this machine";
    Begin(100ms, address.c_str());
    Peer peer(family, port_);
    const auto filled = [&](std::string text) {
      for (const auto& [token, value] : {std::pair("HOST", family == AF_INET6 ? "[::1]" : address), {"ADDR", address},
               {"OTHER", std::to_string(other.port())}, {"SOURCE", "rport=" + std::to_string(peer.port())}}) {
        if (text.find(token) != std::string::npos) text = Replaced(text, token, value);
      }
      return text;
    };
    peer.Send(Request("ACK", "h"));
    for (const auto& c : cases) {
      const std::string via = filled(c.via) + Branch() + "\r\nVia: SIP/2.0/UDP proxy;rport";
      const std::string request = Replaced(Request(c.method, via), c.from, c.to);
      peer.Send(request);
      const std::string response = (c.to_other ? other : peer).Receive();
      EXPECT_TRUE(response.starts_with("SIP/2.0 " + std::string(c.status))) << c.method << response;
      EXPECT_NE(response.find(filled(c.part)), std::string::npos) << filled(c.part) << response;
      EXPECT_EQ(response.find("received=") == std::string::npos, std::string(c.part).starts_with("HOST:OTHER;b"));
      EXPECT_TRUE(HeaderLine(response, "To").starts_with("<sip:alice@example.com>;tag=")) << response;
      for (auto name : {"From", "Call-ID", "CSeq"}) EXPECT_EQ(HeaderLine(response, name), HeaderLine(request, name));
      peer.Send(request);
      EXPECT_EQ((c.to_other ? other : peer).Receive(), response) << "a copy gets the same bytes";
      EXPECT_EQ(Trace(true).back().text + Trace(false).back().text, response + request);
    }
    EXPECT_EQ(GetCounters().dropped_stray, 1U) << "the ACK";
    sipcarrier::Stop(0ms);
  }
  EXPECT_EQ(calls_, 0);
}

TEST_F(ServerTest, ACopyIsAbsorbedAndThenGetsTheResponseUntilTimerJ) {
  Begin(20ms);
  Peer peer(AF_INET, port_);
  const std::string request = Notify();
  for (int i = 0; i < 3; ++i) peer.Send(request);
  ASSERT_TRUE(Eventually([] { return GetCounters().requests_repeated == 2; }));
  EXPECT_TRUE(peer.Receive(1ms).empty());
  const ServerTransactionId id = last_;
  EXPECT_FALSE(sipcarrier::Respond(id, 200, "OK")) << "not the I/O thread";
  EXPECT_FALSE(RespondThere(id + 1, 200) || RespondThere(id, 180) || RespondThere(id, 200, "a\r\nInjected: b"));
  EXPECT_FALSE(RespondThere(id, 200, "a", "no token"));
  const auto responded = Clock::now();
  EXPECT_TRUE(RespondThere(id, 200, "value", "mine"));
  EXPECT_FALSE(RespondThere(id, 200)) << "a second response";
  const std::string response = peer.Receive();
  EXPECT_EQ(HeaderLine(response, "To") + HeaderLine(response, "X-Mine"), "<sip:alice@example.com>;tag=minevalue");
  EXPECT_EQ(Ask(peer, request), response);
  ASSERT_TRUE(Eventually([] { return GetCounters().server_transactions == 0; }));
  EXPECT_GE(Clock::now() - responded, 1280ms);
  EXPECT_EQ(calls_, 1);
  peer.Send(request);  // late: a new one; without a response it ends, too
  ASSERT_TRUE(Eventually([&] { return calls_ == 2; }));
  ASSERT_TRUE(Eventually([] { return GetCounters().server_transactions == 0; }));
  EXPECT_TRUE(last_ != id && !RespondThere(last_, 200));
}

TEST_F(ServerTest, BranchSentByAndMethodTellCopiesFromNewRequests) {
  Begin();
  Peer peer(AF_INET, port_);
  const std::string base = Request("OPTIONS", "h;rport;branch=z9hG4bKx");
  const std::string old = Request("OPTIONS", "h;rport;branch=77");  // of an element older than the cookie
  const struct { const std::string& first; const char *from, *to; bool fresh; } cases[] = {
      {base, "Call-ID: c", "Call-ID: d", false}, {base, "h;rport", "H:5060;rport", false},
      {base, "h;rport", "h:5061;rport", true}, {base, "h;rport", "g;rport", true}, {base, "bKx", "bKy", true},
      {old, "Max-Forwards: 0", "Max-Forwards: 1", false}, {old, "CSeq: 7", "CSeq: 8", true}, {old, "=77", "=78", true},
      {old, "Call-ID: c", "Call-ID: d", true}, {old, ";tag=1", ";tag=2", true},
      {old, "sip:alice@h", "sip:carol@h", true}, {old, "ce@example.com>", "ce@example.com>;tag=3", true},
  };
  for (const auto& c : cases) {
    const std::string response = Ask(peer, c.first);
    const std::string second = Ask(peer, Replaced(c.first, c.from, c.to));
    EXPECT_TRUE(second.starts_with("SIP/2.0 200") && (second != response) == c.fresh) << c.from << " " << c.to;
  }
}

TEST_F(ServerTest, AFloodHoldsNoMoreThanItsShareAndThoseWithAResponseMakeRoom) {
  Begin(500ms);
  Peer peer(AF_INET, port_);
  std::uint64_t taken = 0;
  const auto flood = [&](std::uint64_t count, int status) {
    response_ = status;
    for (const auto end = taken + count; taken < end;) {
      peer.Send(Notify());
      if (++taken % 64 == 0 || taken == end) Received(taken);
    }
    return GetCounters().dropped_overload;
  };
  flood(64, 200);
  EXPECT_EQ(flood(4096, 0), 0U) << "those with a response should have made room";
  EXPECT_EQ(flood(64, 0), 64U);
  EXPECT_TRUE(RespondThere(last_, 200));
  EXPECT_EQ(flood(1, 0), 64U);
  EXPECT_EQ(GetCounters().server_transactions, 4096U);
  // What a response would repeat is bounded, too; and no place is kept for what cannot be read.
  for (const auto& text : {Replaced(Notify(), "c@", std::string(5000, 'c') + "@"), Replaced(Notify(), "th: 0", "th: 9"),
                           Replaced(Notify(), "7 NOTIFY", "7 INFO")}) {
    peer.Send(text);
  }
  EXPECT_TRUE(Eventually([] { return GetCounters().dropped_garbage == 3; }));
  sipcarrier::Stop(10s);
  EXPECT_EQ(GetCounters().server_transactions, 0U);
}

TEST_F(ServerTest, AHandlerThatIsTakenAwayIsCalledNoMore) {
  Begin();
  Peer peer(AF_INET, port_);
  const auto set = [](const char* method, const sipcarrier::RequestFn& handler) {
    return sipcarrier::SetRequestHandler(method, handler);
  };
  for (const char* bad : {"NOTIFY", "INVITE", "ACK", "CANCEL", "NO TOKEN"}) EXPECT_FALSE(set(bad, handler_)) << bad;
  EXPECT_TRUE(set("NOTIFY", nullptr));
  std::atomic<int> entered{0};
  std::atomic<int> left{0};
  ASSERT_TRUE(set("NOTIFY", [&](auto /*request*/, auto /*id*/, const auto& /*local*/) {
    if (++entered == 1) throw std::bad_alloc();
    std::this_thread::sleep_for(100ms);
    ++left;
  }));
  const std::string request = Notify();
  peer.Send(request);
  ASSERT_TRUE(Eventually([&] { return GetCounters().lost_no_memory == 1; }));
  peer.Send(request);  // not seen yet by anybody
  ASSERT_TRUE(Eventually([&] { return entered == 2; }));
  EXPECT_TRUE(set("NOTIFY", nullptr));
  EXPECT_EQ(left, 1) << "it returned while a call was under way";
  // From inside the call; what the handler holds lives until it returns.
  const auto held = std::make_shared<std::atomic<int>>(0);
  ASSERT_TRUE(set("NOTIFY", [held, set](auto /*request*/, auto id, const auto& /*local*/) {
    EXPECT_TRUE(set("NOTIFY", nullptr) && sipcarrier::Respond(id, 489, "Bad Event"));
    ++*held;
  }));
  EXPECT_TRUE(Ask(peer, Notify()).starts_with("SIP/2.0 489 "));
  EXPECT_TRUE(Eventually([&] { return *held == 1 && held.use_count() == 1; }));
  EXPECT_TRUE(Ask(peer, Notify()).starts_with("SIP/2.0 405 "));
  ASSERT_TRUE(set("NOTIFY", handler_));
  std::thread sender([&] {
    for (int i = 0; i < 2000; ++i) peer.Send(Notify());
  });
  sipcarrier::Stop(0ms);
  const int calls = calls_;
  sender.join();
  EXPECT_FALSE(set("NOTIFY", handler_)) << "not started";
  EXPECT_EQ(calls_, calls);
}
// clang-format on

}  // namespace
}  // namespace sip_test
