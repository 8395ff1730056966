// Client transactions on real sockets: the schedule of RFC 3261 §17.1.2, what matches, and what
// cannot be sent.
#include <random>
#include <set>

#include "sipcarrier_peer.h"

namespace sip_test {
namespace {

struct SendTimes {
  std::mutex mutex;
  std::vector<Clock::time_point> at;
  std::vector<std::string> texts;

  void Hook(sipcarrier::Config& config) {
    config.trace = [this](const sipcarrier::TraceRecord& record) {
      if (!record.sent) return;
      const std::lock_guard lock(mutex);
      at.push_back(Clock::now());
      texts.emplace_back(record.text);
    };
  }
};

// A timer never fires early; how late it may be is the machine's business, within reason.
void ExpectGap(Clock::duration gap, std::chrono::milliseconds expected) {
  EXPECT_GE(gap, expected - 2ms) << "instead of " << expected.count();
  EXPECT_LE(gap, expected + 60ms) << "instead of " << expected.count();
}

TEST_F(StackTest, SilenceBringsRetransmissionsByTimerEAndTheEndByTimerF) {
  SendTimes sends;
  auto config = Quick();
  sends.Hook(config);
  StartWith(config);
  Peer peer;
  const auto began = Clock::now();
  const auto result = Send(UriOf(peer));
  ASSERT_TRUE(result->Wait());
  EXPECT_EQ(result->kind(), Kind::kTimeout);
  EXPECT_FALSE(result->reason().empty());
  EXPECT_GE(result->at() - began, 1280ms);
  EXPECT_LE(result->at() - began, 1500ms);

  std::this_thread::sleep_for(150ms);  // longer than T2: nothing may follow
  const std::lock_guard lock(sends.mutex);
  ASSERT_GE(sends.at.size(), 12U);  // 18 on an idle machine
  ASSERT_LE(sends.at.size(), 18U);
  ExpectGap(sends.at[1] - sends.at[0], 20ms);
  ExpectGap(sends.at[2] - sends.at[1], 40ms);
  for (std::size_t i = 3; i < sends.at.size(); ++i) ExpectGap(sends.at[i] - sends.at[i - 1], 80ms);
  const std::string first = peer.Receive();
  for (std::size_t i = 1; i < sends.at.size(); ++i) EXPECT_EQ(peer.Receive(), first);
  EXPECT_EQ(sends.texts.front(), first);
  const auto counters = sipcarrier::GetCounters();
  EXPECT_EQ(counters.sent, sends.at.size());
  EXPECT_EQ(counters.retransmitted, sends.at.size() - 1);
  EXPECT_EQ(counters.timeouts, 1U);
  EXPECT_EQ(counters.transactions, 0U);
}

TEST_F(StackTest, EveryRequestHasAnUnguessableBranchItsSentByAndRport) {
  StartWith(Quick());
  Peer peer;
  const std::string start = "SIP/2.0/UDP " + sipcarrier::LocalEndpoints().at(0) + ";branch=z9hG4bK";
  std::set<std::string> branches;
  for (int i = 0; i < 40; ++i) {
    const auto result = Send(UriOf(peer));
    const std::string request = peer.Receive();
    const std::string via = HeaderLine(request, "Via");
    ASSERT_EQ(via.substr(0, start.size()), start);
    ASSERT_EQ(via.substr(start.size() + 32), ";rport");  // 128 bits before it
    branches.insert(via);
    peer.Send(ResponseTo(request, "200 OK"));
    ASSERT_TRUE(result->Wait());
  }
  EXPECT_EQ(branches.size(), 40U);
}

TEST_F(StackTest, AProvisionalResponseSlowsRetransmissionAndGoesNoFurther) {
  SendTimes sends;
  auto config = Quick();
  config.t2 = 300ms;
  sends.Hook(config);
  StartWith(config);
  Peer peer;
  const auto result = Send(UriOf(peer));
  const std::string request = peer.Receive();
  peer.Send(ResponseTo(request, "100 Trying"));
  peer.Send(ResponseTo(request, "180 Ringing"));
  ASSERT_TRUE(Eventually([&] {
    const std::lock_guard lock(sends.mutex);
    return sends.at.size() == 3;
  }));
  EXPECT_EQ(result->calls(), 0);
  {
    const std::lock_guard lock(sends.mutex);
    ExpectGap(sends.at[2] - sends.at[1], 300ms);
  }
  peer.Send(ResponseTo(request, "200 OK"));
  ASSERT_TRUE(result->Wait());
  EXPECT_EQ(result->status(), 200);
}

TEST_F(StackTest, OnlyTheOneWhoWasAskedCanAnswer) {
  StartWith(Quick());
  Peer peer;
  const auto result = Send(UriOf(peer));
  const std::string request = peer.Receive();
  const std::string answer = ResponseTo(request, "403 Forbidden");
  const std::string via = HeaderLine(request, "Via");
  const std::string endpoint = sipcarrier::LocalEndpoints().at(0);
  const std::vector<std::string> strays = {
      Replaced(answer, "branch=z9hG4bK", "branch=z9hG4bKx"),
      Replaced(answer, "7 REGISTER", "7 OPTIONS"),
      Replaced(answer, endpoint, "127.0.0.2" + endpoint.substr(endpoint.find(':'))),
      Replaced(answer, endpoint, "127.0.0.1:1"),
      Replaced(answer, endpoint, "127.0.0.1"),
      Replaced(answer, "Via: " + via, "Via: " + via + "\r\nVia: " + via),
      Replaced(answer, via.substr(via.find(";branch")), ";rport"),
      request,
  };
  for (const auto& stray : strays) peer.Send(stray);
  ASSERT_TRUE(Eventually([&] { return sipcarrier::GetCounters().received == strays.size(); }));
  EXPECT_EQ(sipcarrier::GetCounters().dropped_stray, strays.size());
  EXPECT_EQ(sipcarrier::GetCounters().dropped_garbage, 0U);
  EXPECT_EQ(result->calls(), 0);
  // RFC 3581 §4: a server fills rport and adds received; the sent-by stays.
  peer.Send(Replaced(answer, ";rport", ";received=192.0.2.7;rport=9"));
  ASSERT_TRUE(result->Wait());
  EXPECT_EQ(result->status(), 403);
}

TEST_F(StackTest, AFinalResponseCountsOnceAndItsCopiesAreAbsorbedUntilTimerK) {
  auto config = Quick();
  config.t4 = 300ms;
  StartWith(config);
  Peer peer;
  const auto result = Send(UriOf(peer));
  const std::string answer = ResponseTo(peer.Receive(), "200 OK");
  for (int i = 0; i < 3; ++i) peer.Send(answer);
  ASSERT_TRUE(result->Wait());
  ASSERT_TRUE(Eventually([] { return sipcarrier::GetCounters().received == 3; }));
  EXPECT_EQ(sipcarrier::GetCounters().transactions, 1U);
  EXPECT_EQ(sipcarrier::GetCounters().dropped_stray, 0U);
  const auto waited = Clock::now();
  ASSERT_TRUE(Eventually([] { return sipcarrier::GetCounters().transactions == 0; }));
  EXPECT_GE(Clock::now() - waited, 200ms);
  peer.Send(answer);
  EXPECT_TRUE(Eventually([] { return sipcarrier::GetCounters().dropped_stray == 1; }));
  EXPECT_EQ(result->calls(), 1);
  EXPECT_EQ(sipcarrier::GetCounters().retransmitted, 0U);
}

TEST_F(StackTest, ARefusalByTheNetworkEndsTheRequestAndNoOther) {
  StartWith(Quick());
  Peer live;
  const auto silent = Send(UriOf(live));
  ASSERT_FALSE(live.Receive().empty());
  for (int i = 0; i < 3; ++i) {
    int port = 0;
    {
      Peer gone;
      port = gone.port();
    }
    const auto began = Clock::now();
    const auto refused = Send("sip:127.0.0.1:" + std::to_string(port));
    ASSERT_TRUE(refused->Wait());
    EXPECT_EQ(refused->kind(), Kind::kUnsent);
    EXPECT_NE(refused->reason().find("127.0.0.1:" + std::to_string(port)), std::string::npos)
        << refused->reason();
    EXPECT_LT(refused->at() - began, 300ms);
  }
  EXPECT_EQ(silent->calls(), 0);
  const std::string again = live.Receive();  // it goes on being retransmitted
  live.Send(ResponseTo(again, "200 OK"));
  ASSERT_TRUE(silent->Wait());
  EXPECT_EQ(silent->status(), 200);
}

TEST_F(StackTest, IPv6AndBothFamiliesAtOnce) {
  Peer v6(AF_INET6);
  if (!v6.bound()) GTEST_SKIP() << "no IPv6 on this machine";
  Peer v4;
  auto config = Quick();
  config.local_address.clear();
  StartWith(config);
  ASSERT_EQ(sipcarrier::LocalEndpoints().size(), 2U);
  // Everything is bound, so Via and Contact show the address that the route to the registrar has.
  for (auto* peer : {&v4, &v6}) {
    const std::string host = peer == &v4 ? "127.0.0.1:" : "[::1]:";
    const std::string uri = "sip:" + host + std::to_string(peer->port());
    std::string seen;
    const auto result = Send(MakeRequest(uri),
                             [&seen](nsip_message& /*request*/, const sipcarrier::Endpoint& local) {
                               seen = local.host + ":" + std::to_string(local.port);
                               return true;
                             });
    const std::string request = peer->Receive();
    peer->Send(ResponseTo(request, "200 OK"));
    ASSERT_TRUE(result->Wait());
    EXPECT_EQ(result->status(), 200);
    EXPECT_EQ(seen.substr(0, host.size()), host);
    EXPECT_EQ(HeaderLine(request, "Via").rfind("SIP/2.0/UDP " + seen + ";", 0), 0U) << request;
    nsip_uri target;
    sipcarrier::Endpoint guess;
    ASSERT_TRUE(nsip_uri_parse(uri, target));
    ASSERT_TRUE(sipcarrier::GuessLocalEndpoint(target, guess));
    EXPECT_EQ(guess.host + ":" + std::to_string(guess.port), seen);
  }
}

TEST_F(StackTest, TheDestinationHeedsRouteMaddrAndNames) {
  auto config = Quick();
  config.local_address.clear();
  StartWith(config);
  Peer peer;
  const std::string port = std::to_string(peer.port());
  for (const std::string& uri : {"sip:example.com:" + port + ";maddr=127.0.0.1",
                                 "sip:LocalHost:" + port + ";transport=UDP"}) {
    const auto result = Send(uri);
    const std::string request = peer.Receive();
    ASSERT_FALSE(request.empty()) << uri;
    peer.Send(ResponseTo(request, "200 OK"));
    ASSERT_TRUE(result->Wait()) << uri;
    EXPECT_EQ(result->status(), 200) << uri << " " << result->reason();
  }
  // Of two addresses the first refuses, and the next one is asked (RFC 3263 §4.3), with a branch of
  // its own.
  Peer v6(AF_INET6);
  if (v6.bound()) {
    const auto moved = Send("sip:registrar.localhost:" + std::to_string(v6.port()));
    const std::string asked = v6.Receive();
    EXPECT_EQ(HeaderLine(asked, "Via").rfind("SIP/2.0/UDP [::1]:", 0), 0U) << asked;
    EXPECT_EQ(asked.find("Via:"), asked.rfind("Via:"));
    v6.Send(ResponseTo(asked, "200 OK"));
    ASSERT_TRUE(moved->Wait());
    EXPECT_EQ(moved->status(), 200);
  }
  auto routed = MakeRequest("sip:example.com");
  routed->routes.push_back(std::make_unique<nsip_route>());
  ASSERT_TRUE(nsip_from_parse("<" + UriOf(peer) + ";lr>", *routed->routes.back()));
  const auto result = Send(std::move(routed));
  const std::string request = peer.Receive();
  EXPECT_EQ(request.rfind("REGISTER sip:example.com SIP/2.0\r\n", 0), 0U) << request;
  peer.Send(ResponseTo(request, "200 OK"));
  EXPECT_TRUE(result->Wait());
}

TEST_F(StackTest, WhatCannotBeSentSaysWhy) {
  StartWith(Quick());
  Peer peer;
  using Case = std::pair<const char*, const char*>;
  for (const auto& [uri, reason] : std::vector<Case>{
           {"sips:127.0.0.1", "transport not available"},
           {"sip:127.0.0.1;transport=tcp", "transport not available: tcp"},
           {"sip:127.0.0.1;transport=TLS", "transport not available: TLS"},
           {"sip:127.0.0.1;transport=ws", "transport not available: ws"},
           {"tel:+15550100", "cannot send to a \"tel\" URI"},
           {"sip:[::1]", "no IPv6"},
           {"sip:name.onion", "cannot look up name.onion"},  // RFC 7686: never asked of a server
       }) {
    const auto result = Send(uri);
    ASSERT_TRUE(result->Wait()) << uri;
    EXPECT_EQ(result->kind(), Kind::kUnsent) << uri;
    EXPECT_NE(result->reason().find(reason), std::string::npos) << uri << " " << result->reason();
  }
  auto incomplete = MakeRequest(UriOf(peer));
  incomplete->cseq_method.clear();
  auto huge = MakeRequest(UriOf(peer));
  huge->body.assign(65250, 'x');  // no UDP datagram holds it
  for (auto* request : {&incomplete, &huge}) {
    const auto result = Send(std::move(*request));
    ASSERT_TRUE(result->Wait());
    EXPECT_EQ(result->kind(), Kind::kUnsent);
    EXPECT_FALSE(result->reason().empty());
  }
  for (const bool throws : {false, true}) {
    const auto result = Send(MakeRequest(UriOf(peer)), [throws](nsip_message&, const auto&) {
      if (throws) throw std::bad_alloc();
      return false;
    });
    ASSERT_TRUE(result->Wait());
    EXPECT_EQ(result->kind(), Kind::kUnsent);
  }
  EXPECT_EQ(sipcarrier::GetCounters().lost_no_memory, 1U);
  EXPECT_EQ(sipcarrier::GetCounters().transactions, 0U);
  EXPECT_EQ(sipcarrier::GetCounters().sent, 0U);
  EXPECT_TRUE(peer.Receive(20ms).empty());
}

TEST_F(StackTest, GarbageIsCountedAndDisturbsNothing) {
  auto config = Quick();
  config.t1 = 100ms;
  config.t2 = 400ms;
  StartWith(config);
  Peer peer;
  const auto result = Send(UriOf(peer));
  const std::string request = peer.Receive();
  // Answers to nobody, so that no mutation can hit the transaction.
  const std::string model =
      Replaced(ResponseTo(request, "200 OK"), "branch=z9hG4bK", "branch=z9hG4bKother");
  std::mt19937 random(20240607);
  const auto below = [&](std::size_t n) {
    return std::uniform_int_distribution<std::size_t>(0, n - 1)(random);
  };
  std::uint64_t count = 0;
  std::uint64_t noise = 0;
  for (int i = 0; i < 3000; ++i) {
    std::string text;
    if (i % 3 == 0) {
      text.resize(below(1500));
      for (char& c : text) c = static_cast<char>(below(256));
      ++noise;
    } else if (i % 3 == 1) {
      text = model.substr(0, below(model.size()));
    } else {
      text = i % 2 == 0 ? model : request;
      for (std::size_t n = below(8) + 1; n > 0; --n)
        text[below(text.size())] = static_cast<char>(below(256));
    }
    peer.Send(text);
    ++count;
    if (i % 50 == 49) {  // never more than the smallest receive buffer holds
      ASSERT_TRUE(Eventually([&] { return sipcarrier::GetCounters().received == count; }));
    }
  }
  const auto counters = sipcarrier::GetCounters();
  EXPECT_EQ(counters.dropped_garbage + counters.dropped_stray, count);
  EXPECT_GE(counters.dropped_garbage, noise);
  EXPECT_GT(counters.dropped_stray, 0U);
  EXPECT_EQ(counters.lost_no_memory, 0U);
  EXPECT_EQ(result->calls(), 0);
  peer.Send(ResponseTo(request, "200 OK"));
  ASSERT_TRUE(result->Wait());
  EXPECT_EQ(result->status(), 200);
}

TEST_F(StackTest, TenThousandAtOnce) {
  auto config = Quick();
  config.t1 = 500ms;
  config.t2 = 4s;
  config.t4 = 5s;
  StartWith(config);
  const AnsweringPeer peer("200 OK");
  const std::string uri = "sip:127.0.0.1:" + std::to_string(peer.port());
  std::vector<std::shared_ptr<Result>> results;
  results.reserve(10000);
  for (int i = 0; i < 10000; ++i) results.push_back(Send(uri));
  for (const auto& result : results) {
    ASSERT_TRUE(result->Wait(30s));
    ASSERT_EQ(result->status(), 200) << result->reason();
  }
  EXPECT_EQ(sipcarrier::GetCounters().dropped_garbage, 0U);
}

}  // namespace
}  // namespace sip_test
