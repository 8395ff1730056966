// Client transactions on real sockets: the schedule of RFC 3261 §17.1.2, what matches, and what
// cannot be sent. A timer never fires early; how late it may be is the machine's business.
#include <set>

#include "sipcarrier_peer.h"

namespace sip_test {
namespace {

using sipcarrier::GetCounters;

TEST_F(StackTest, SilenceBringsRetransmissionsByTimerEAndTheEndByTimerF) {
  StartWith(Quick(20ms));
  Peer peer;
  const auto began = Clock::now();
  const auto result = Send(UriOf(peer));
  ASSERT_TRUE(result->Wait());
  EXPECT_GE(Clock::now() - began, 1280ms);
  EXPECT_TRUE(result->outcome.kind == Kind::kTimeout && !result->outcome.reason.empty());
  std::this_thread::sleep_for(150ms);  // longer than T2: nothing may follow
  const auto sent = Trace(true);
  ASSERT_TRUE(sent.size() >= 6 && sent.size() <= 18) << sent.size();  // 18 on an idle machine
  auto due = began;
  auto least = Clock::duration::max();
  for (std::size_t i = 0; i < sent.size(); ++i) {
    if (i > 0) due += std::min(10ms * (1 << i), 80ms);
    EXPECT_GE(sent[i].at, due) << i;
    if (i > 3) least = std::min(least, sent[i].at - sent[i - 1].at);
    EXPECT_EQ(sent[i].text, sent[0].text);
    EXPECT_EQ(peer.Receive(), sent[0].text);
  }
  EXPECT_LT(least, 150ms) << "it went on doubling beyond T2";
  const auto counters = GetCounters();
  EXPECT_TRUE(counters.sent == sent.size() && counters.retransmitted == sent.size() - 1);
  EXPECT_TRUE(counters.timeouts == 1 && counters.transactions == 0);
}

TEST_F(StackTest, AProvisionalResponseSlowsRetransmissionAndGoesNoFurther) {
  auto config = Quick(20ms);
  config.t2 = 300ms;
  StartWith(config);
  Peer peer;
  const auto result = Send(UriOf(peer));
  const std::string request = peer.Receive();
  const auto began = Clock::now();
  for (const char* status : {"100 Trying", "180 Ringing"}) peer.Send(ResponseTo(request, status));
  ASSERT_TRUE(Received(2));
  const std::size_t before = Trace(true).size();
  ASSERT_TRUE(Eventually([&] { return Trace(true).size() == before + 2; }));
  EXPECT_GE(Trace(true).back().at - began, 300ms);
  EXPECT_EQ(result->calls, 0);
  Complete(peer, result);
}

TEST_F(StackTest, OnlyTheOneWhoWasAskedCanRespondAndOnceUntilTimerK) {
  auto config = Quick(500ms);
  config.t4 = 1s;
  StartWith(config);
  Peer peer;
  const auto result = Send(UriOf(peer));
  const std::string request = peer.Receive();
  const std::string response = ResponseTo(request, "403 Forbidden");
  const std::string via = HeaderLine(request, "Via");
  const std::string endpoint = sipcarrier::LocalEndpoints().at(0);
  const std::vector<std::string> strays = {
      Replaced(response, "branch=z9hG4bK", "branch=z9hG4bKx"),
      Replaced(response, "7 REGISTER", "7 OPTIONS"),
      Replaced(response, endpoint, "127.0.0.2" + endpoint.substr(endpoint.find(':'))),
      Replaced(response, endpoint, "127.0.0.1:1"),
      Replaced(response, endpoint, "127.0.0.1"),
      Replaced(response, "Via: " + via, "Via: " + via + "\r\nVia: " + via),
      Replaced(response, via.substr(via.find(";branch")), ";rport"),
      Replaced(Replaced(request, "REGISTER sip", "ACK sip"), "7 REGISTER", "7 ACK"),
  };
  for (const auto& stray : strays) peer.Send(stray);
  for (const auto& garbage : {response.substr(0, 99), std::string(1400, '\xff')}) peer.Send(garbage);
  ASSERT_TRUE(Received(strays.size() + 2));
  EXPECT_EQ(GetCounters().dropped_stray, strays.size());
  EXPECT_EQ(GetCounters().dropped_garbage, 2U);
  EXPECT_EQ(result->calls, 0);
  // RFC 3581 §4: a server fills rport and adds received; the sent-by stays.
  const auto responded = Clock::now();
  for (int i = 0; i < 3; ++i) peer.Send(Replaced(response, ";rport", ";received=192.0.2.7;rport=9"));
  ASSERT_TRUE(Eventually([] { return GetCounters().transactions == 0; }));
  EXPECT_GE(Clock::now() - responded, 1s);
  EXPECT_EQ(GetCounters().dropped_stray, strays.size()) << "copies are absorbed";
  peer.Send(response);
  EXPECT_TRUE(Eventually([&] { return GetCounters().dropped_stray == strays.size() + 1; }));
  EXPECT_TRUE(result->calls == 1 && result->status() == 403);
}

TEST_F(StackTest, IPv6AndBothFamiliesAtOnce) {
  Peer v6(AF_INET6);
  if (v6.port() == 0) GTEST_SKIP() << "no IPv6 on this machine";
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
    const auto result = Send(MakeRequest(uri), [&](auto& /*request*/, const auto& local) {
      seen = local.host + ":" + std::to_string(local.port);
      return true;
    });
    const std::string via = HeaderLine(Complete(*peer, result), "Via");
    EXPECT_TRUE(seen.starts_with(host) && via.starts_with("SIP/2.0/UDP " + seen + ";")) << via;
    sipcarrier::Endpoint guess;
    ASSERT_TRUE(sipcarrier::GuessLocalEndpoint(*MakeRequest(uri)->req_uri, guess));
    EXPECT_EQ(guess.host + ":" + std::to_string(guess.port), seen);
  }
  // Of two addresses the first refuses, and the next one is asked (RFC 3263 §4.3), with a branch of
  // its own.
  const auto moved = Send("sip:registrar.localhost:" + std::to_string(v6.port()));
  const std::string asked = Complete(v6, moved);
  EXPECT_TRUE(HeaderLine(asked, "Via").starts_with("SIP/2.0/UDP [::1]:")) << asked;
  EXPECT_EQ(asked.find("Via:"), asked.rfind("Via:"));
}

TEST_F(StackTest, TheDestinationHeedsRouteMaddrAndNames) {
  StartWith(Quick());
  Peer peer;
  const std::string port = std::to_string(peer.port());
  Complete(peer, Send("sip:example.com:" + port + ";maddr=127.0.0.1"));
  Complete(peer, Send("sip:LocalHost:" + port + ";transport=UDP"));
  auto routed = MakeRequest("sip:example.com", "SUBSCRIBE");
  for (const auto& hop : {"<" + UriOf(peer) + ";lr>", std::string("<sip:far.example.com;lr>")}) {
    routed->routes.push_back(std::make_unique<nsip_route>());
    ASSERT_TRUE(nsip_from_parse(hop, *routed->routes.back()));
  }
  const std::string request = Complete(peer, Send(std::move(routed)));
  EXPECT_TRUE(request.starts_with("SUBSCRIBE sip:example.com SIP/2.0\r\n")) << request;
}

TEST_F(StackTest, WhatCannotBeSentSaysWhy) {
  StartWith(Quick());
  Peer peer;
  const auto expect_unsent = [](const ResultPtr& result, const std::string& reason) {
    EXPECT_TRUE(result->Wait() && result->outcome.kind == Kind::kUnsent) << reason;
    EXPECT_TRUE(!result->outcome.reason.empty() && Has(result->outcome.reason, reason)) << result->outcome.reason;
  };
  // clang-format off
  const char* const cases[][2] = {
      {"sips:127.0.0.1", "transport not available"}, {"sip:127.0.0.1;transport=tcp", "transport not available: tcp"},
      {"sip:127.0.0.1;transport=TLS", "not available: TLS"}, {"sip:127.0.0.1;transport=ws", "not available: ws"},
      {"tel:+15550100", "cannot send to a \"tel\" URI"}, {"sip:[::1]", "no IPv6"},
      {"sip:name.onion", "cannot look up name.onion"},  // RFC 7686: never asked of a server
  };
  // clang-format on
  for (const auto& [uri, reason] : cases) expect_unsent(Send(uri), reason);
  for (const bool throws : {false, true}) {
    auto bad = MakeRequest(UriOf(peer));
    if (throws) bad->cseq_method.clear();
    if (!throws) bad->body.assign(65250, 'x');  // no UDP datagram holds it
    expect_unsent(Send(std::move(bad)), "");
    const auto prepare = [throws](auto& /*request*/, const auto& /*local*/) {
      return throws ? throw std::bad_alloc() : false;
    };
    expect_unsent(Send(MakeRequest(UriOf(peer)), prepare), "");
  }
  EXPECT_EQ(GetCounters().lost_no_memory, 1U);
  EXPECT_EQ(GetCounters().transactions + GetCounters().sent, 0U);
  // A port that nobody has; a request to another one goes on over the same socket.
  const auto silent = Send(UriOf(peer));
  const std::string gone = UriOf(Peer());
  for (int i = 0; i < 3; ++i) expect_unsent(Send(gone), gone.substr(4));
  EXPECT_EQ(silent->calls, 0);
  Complete(peer, silent);
}

TEST_F(StackTest, TenThousandAtOnceEachWithABranchOfItsOwn) {
  StartWith(Quick(500ms));
  Peer peer;
  const std::string start = "SIP/2.0/UDP " + sipcarrier::LocalEndpoints().at(0) + ";branch=z9hG4bK";
  std::vector<ResultPtr> results(10000);
  for (auto& result : results) result = Send(MakeRequest(UriOf(peer), "SUBSCRIBE"));
  std::set<std::string> branches;
  while (branches.size() < results.size()) {
    const std::string request = peer.Receive();
    const std::string via = HeaderLine(request, "Via");
    ASSERT_EQ(via.substr(0, start.size()), start);
    ASSERT_EQ(via.substr(start.size() + 32), ";rport");  // 128 bits before it
    branches.insert(via);
    peer.Send(ResponseTo(request, "200 OK"));
  }
  for (std::size_t i = 0; i < results.size() && !HasFailure(); ++i) Complete(peer, results[i]);
}

}  // namespace
}  // namespace sip_test
