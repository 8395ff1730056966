// Start, stop, stack events and credentials.
#include "sipcarrier_peer.h"

namespace sip_test {
namespace {

TEST_F(StackTest, StopWaitsForWhatIsInFlightChallengesIncluded) {
  StartWith(Quick());
  Peer peer;
  auto final = std::make_shared<Result>();
  const auto challenge = Send(MakeRequest(UriOf(peer)), nullptr, [final, uri = UriOf(peer)] {
    Ask(final, MakeRequest(uri), nullptr,
        [] { EXPECT_FALSE(sipcarrier::RunOnIoThread([] {})) << "new work while stopping"; });
  });
  const std::string first = peer.Receive();
  std::thread stopper([] { sipcarrier::Stop(60s); });
  EXPECT_TRUE(Eventually([] { return !sipcarrier::RunOnIoThread([] {}); }));
  peer.Send(ResponseTo(first, "401 Unauthorized"));
  EXPECT_TRUE(challenge->Wait() && challenge->status() == 401);
  Complete(peer, final);
  const auto responded = Clock::now();
  stopper.join();
  EXPECT_LT(Clock::now() - responded, 30s) << "it waited on with nothing in flight";
}

TEST_F(StackTest, StopEndsWhatIsInFlightAtTheDeadline) {
  auto config = Quick(500ms);
  StartWith(config);
  const std::string endpoint = sipcarrier::LocalEndpoints().at(0);
  Peer peer;
  auto follow_up = std::make_shared<Result>();  // of one whose `done` asks for more at the end
  const auto sent = Send(MakeRequest(UriOf(peer)), nullptr,
                         [follow_up, uri = UriOf(peer)] { Ask(follow_up, MakeRequest(uri), nullptr, nullptr); });
  ASSERT_FALSE(peer.Receive().empty());
  const auto began = Clock::now();
  sipcarrier::Stop(150ms);
  EXPECT_GE(Clock::now() - began, 145ms);
  ASSERT_TRUE(sent->calls == 1 && follow_up->calls == 1);
  EXPECT_TRUE(sent->outcome.kind == Kind::kTimeout && follow_up->outcome.kind == Kind::kUnsent);
  EXPECT_EQ(sipcarrier::GetCounters().transactions, 0U);
  EXPECT_FALSE(sipcarrier::RunOnIoThread([] {}) || !sipcarrier::LocalEndpoints().empty());

  // The port is free again, and the next run knows nothing of this one.
  config.local_port = static_cast<std::uint16_t>(std::stoi(endpoint.substr(endpoint.find(':') + 1)));
  StartWith(config);
  EXPECT_EQ(sipcarrier::GetCounters().sent, 0U);
}

TEST_F(StackTest, AcceptedTasksRunInOrderAlsoAtStop) {
  StartWith(Quick());
  std::vector<int> ran;
  for (int i = 0; i < 1000; ++i) {
    ASSERT_TRUE(sipcarrier::RunOnIoThread([&ran, i] {
      ran.push_back(i);
      if (i == 500) throw std::bad_alloc();
    }));
  }
  sipcarrier::Stop(30s);
  ASSERT_EQ(ran.size(), 1000U);
  EXPECT_TRUE(std::is_sorted(ran.begin(), ran.end()));
  EXPECT_EQ(sipcarrier::GetCounters().lost_no_memory, 1U);
}

TEST_F(StackTest, StartTellsWhatIsWrong) {
  Peer holder;
  const std::string taken = ":" + std::to_string(holder.port()) + ": Address already in use";
  const auto expect_refusal = [this](const char* address, int port, const char* aor, const std::string& why) {
    auto config = Quick();
    config.local_address = address;
    config.local_port = static_cast<std::uint16_t>(port);
    config.credentials.push_back({aor, "", "u", "p"});
    std::string error;
    EXPECT_TRUE(sipcarrier::Start(config, error) == -1 && Has(error, why)) << error;
  };
  expect_refusal("127.0.0.1", holder.port(), "", "127.0.0.1" + taken);
  expect_refusal("", holder.port(), "", "0.0.0.0" + taken);
  for (const char* address : {"localhost", "192.0.2.123"}) expect_refusal(address, 0, "", address);
  expect_refusal("127.0.0.1", 0, "no uri", "no uri");
  StartWith(Quick());
  expect_refusal("127.0.0.1", 0, "", "already");
}

void Post(long id) { sipcarrier::PostStackEvent(SIP_EVENT_REGISTER_TIMEOUT, nullptr, "why", id); }

TEST_F(StackTest, EventsReachTheHandlerInOrderAndWithTheirParts) {
  Handler handler([](const SipStackEvent& event) {
    EXPECT_STREQ(event.szReason, event.pMessage == nullptr ? "why" : nullptr);
    if (event.nStackId == 10) throw std::bad_alloc();
  });
  Handler other;
  EXPECT_NE(Sipcarrier_RegisterHandler(&handler), 0) << "not started";
  StartWith(Quick());
  Post(99);  // nobody there: dropped
  ASSERT_TRUE(Sipcarrier_RegisterHandler(nullptr) != 0 && Sipcarrier_RegisterHandler(&handler) == 0);
  EXPECT_TRUE(Sipcarrier_RegisterHandler(&other) != 0 && Sipcarrier_DeRegisterHandler(&other) != 0);
  for (long id = 0; id < 200; ++id) Post(id);
  auto response = std::make_unique<nsip_message>();
  response->status_code = 200;
  sipcarrier::PostStackEvent(SIP_EVENT_REGISTER_RESPONSE, std::move(response), "", 200);
  for (long id = 0; id < 200; id += id == 9 ? 2 : 1) {  // 10 was thrown at
    EXPECT_EQ(handler.Next(), "74 #" + std::to_string(id));
  }
  EXPECT_EQ(handler.Next(), "26 #200 200");
  EXPECT_EQ(sipcarrier::GetCounters().lost_no_memory, 1U);
  EXPECT_EQ(Sipcarrier_DeRegisterHandler(&handler), 0);
}

TEST_F(StackTest, NoEventComesAfterDeregistration) {
  StartWith(Quick());
  std::atomic<int> entered{0};
  std::atomic<int> left{0};
  Handler handler([&](const SipStackEvent& /*event*/) {
    ++entered;
    std::this_thread::sleep_for(100ms);
    ++left;
  });
  ASSERT_EQ(Sipcarrier_RegisterHandler(&handler), 0);
  for (const long id : {1, 2}) Post(id);
  ASSERT_TRUE(Eventually([&] { return entered > 0; }));
  EXPECT_EQ(Sipcarrier_DeRegisterHandler(&handler), 0);
  const int calls = entered;
  EXPECT_EQ(left, calls) << "it returned while a call was under way";

  // From inside the callback, and then another handler in its place.
  Handler inside([&](const auto&) { EXPECT_EQ(Sipcarrier_DeRegisterHandler(&inside), 0); });
  Post(3);
  ASSERT_EQ(Sipcarrier_RegisterHandler(&inside), 0);
  for (const long id : {4, 5}) Post(id);
  EXPECT_EQ(inside.Next(), "74 #4");
  Handler last;
  ASSERT_TRUE(Eventually([&] { return Sipcarrier_RegisterHandler(&last) == 0; }));
  Post(6);
  EXPECT_EQ(last.Next(), "74 #6");
  EXPECT_TRUE(inside.seen().size() == 1 && entered == calls);
  EXPECT_EQ(Sipcarrier_DeRegisterHandler(&last), 0);
}

TEST_F(StackTest, StopDeliversWhatIsQueuedUpToTheDeadline) {
  Handler handler([](const SipStackEvent& event) {
    if (event.nStackId > 100) std::this_thread::sleep_for(30ms);
    sipcarrier::Stop(1s);  // of its own thread: must do nothing, and not wait for itself
  });
  for (const long last : {100, 400}) {
    StartWith(Quick());
    ASSERT_EQ(Sipcarrier_RegisterHandler(&handler), 0) << "Stop takes the handler off";
    for (long id = last == 100 ? 1 : 101; id <= last; ++id) Post(id);
    sipcarrier::Stop(last == 100 ? 60s : 100ms);
    EXPECT_GE(handler.seen().size(), 100U);
  }
  EXPECT_LT(handler.seen().size(), 300U) << "it went on behind the deadline";
}

TEST_F(StackTest, TheMostExactCredentialWins) {
  auto config = Quick();
  // clang-format off
  config.credentials = {
      {"", "", "anyone", "1"}, {"", "realm", "realm", "2"},
      {"sip:alice@example.com", "", "alice", "3"}, {"sip:alice@example.com", "realm", "alice-realm", "4"},
      {"sip:alice@example.com", "realm", "later", "5"}, {"sip:bob@example.com", "other", "bob-other", "6"},
      {"sip:a@[::1]", "", "six", "7"}, {"sip:c@[2001:DB8:0::1]:5060", "", "doc", "8"}, {"tel:+1-555-0199", "", "tel", "9"},
  };
  const char* const cases[][3] = {
      {"sip:alice@example.com", "realm", "alice-realm"}, {"sip:alice@example.com", "else", "alice"},
      {"sip:%61lice@EXAMPLE.com", "realm", "alice-realm"}, {"sip:alice@example.com:5060;user=phone", "else", "alice"},
      {"sip:a@[0:0::1]", "else", "six"}, {"sip:a@[::2]", "else", "anyone"}, {"sip:a@[::1]:5070", "else", "anyone"},
      {"sip:c@[2001:db8::1]", "else", "doc"}, {"tel:+15550199", "else", "tel"},
      {"sip:Alice@example.com", "realm", "realm"}, {"sip:bob@example.com", "other", "bob-other"},
      {"sip:bob@example.com", "realm", "realm"}, {"sip:bob@example.com", "Realm", "anyone"},
      {"sips:alice@example.com", "else", "anyone"}, {"tel:+15550100", "else", "anyone"},
  };
  // clang-format on
  StartWith(config);
  sipcarrier::Credential found;
  for (const auto& [aor, realm, user] : cases) {
    ASSERT_TRUE(sipcarrier::FindCredential(*MakeRequest(aor)->req_uri, realm, found));
    EXPECT_EQ(found.user, user) << aor << " " << realm;
  }
  sipcarrier::Stop(0ms);
  config.credentials = {{"sip:alice@example.com", "realm", "alice", "1"}};
  StartWith(config);
  EXPECT_FALSE(sipcarrier::FindCredential(*MakeRequest("tel:+1")->req_uri, "realm", found));
}

}  // namespace
}  // namespace sip_test
