// Start, stop, stack events and credentials.
#include "sipcarrier_peer.h"

namespace sip_test {
namespace {

TEST_F(StackTest, StopWaitsForWhatIsInFlightChallengesIncluded) {
  StartWith(Quick());
  Peer peer;
  auto final = std::make_shared<Result>();
  const std::string uri = UriOf(peer);
  ASSERT_TRUE(sipcarrier::RunOnIoThread([=] {
    sipcarrier::SendRequest(MakeRequest(uri), nullptr, [=](sipcarrier::Outcome challenge) {
      EXPECT_EQ(challenge.response->status_code, 401);
      sipcarrier::SendRequest(MakeRequest(uri), nullptr, [=](sipcarrier::Outcome outcome) {
        EXPECT_FALSE(sipcarrier::RunOnIoThread([] {})) << "new work while stopping";
        final->Set(std::move(outcome));
      });
    });
  }));
  const std::string first = peer.Receive();
  std::thread stopper([] { sipcarrier::Stop(5s); });
  ASSERT_TRUE(Eventually([] { return !sipcarrier::RunOnIoThread([] {}); }));
  peer.Send(ResponseTo(first, "401 Unauthorized"));
  std::string second;
  do {
    second = peer.Receive();
  } while (second == first);
  peer.Send(ResponseTo(second, "200 OK"));
  const auto answered = Clock::now();
  stopper.join();
  EXPECT_LT(Clock::now() - answered, 1s) << "it waited on with nothing in flight";
  ASSERT_EQ(final->calls(), 1);
  EXPECT_EQ(final->status(), 200);
}

TEST_F(StackTest, StopEndsWhatIsInFlightAtTheDeadline) {
  auto config = Quick();
  config.t1 = 500ms;
  config.t2 = 4s;
  StartWith(config);
  const std::string endpoint = sipcarrier::LocalEndpoints().at(0);
  Peer peer;
  auto sent = std::make_shared<Result>();
  auto follow_up = std::make_shared<Result>();  // of one whose `done` asks for more at the end
  ASSERT_TRUE(sipcarrier::RunOnIoThread([=, uri = UriOf(peer)] {
    sipcarrier::SendRequest(MakeRequest(uri), nullptr, [=](sipcarrier::Outcome outcome) {
      sent->Set(std::move(outcome));
      sipcarrier::SendRequest(MakeRequest(uri), nullptr,
                              [=](sipcarrier::Outcome late) { follow_up->Set(std::move(late)); });
    });
  }));
  ASSERT_FALSE(peer.Receive().empty());
  const auto began = Clock::now();
  sipcarrier::Stop(150ms);
  const auto took = Clock::now() - began;
  EXPECT_GE(took, 145ms);
  EXPECT_LT(took, 450ms);
  ASSERT_EQ(sent->calls(), 1);
  EXPECT_EQ(sent->kind(), Kind::kTimeout);
  ASSERT_EQ(follow_up->calls(), 1);
  EXPECT_EQ(follow_up->kind(), Kind::kUnsent);
  EXPECT_EQ(sipcarrier::GetCounters().transactions, 0U);
  EXPECT_FALSE(sipcarrier::RunOnIoThread([] {}));
  EXPECT_TRUE(sipcarrier::LocalEndpoints().empty());
  sipcarrier::Stop(150ms);

  // The port is free again, and the next run knows nothing of this one.
  config.local_port =
      static_cast<std::uint16_t>(std::stoi(endpoint.substr(endpoint.find(':') + 1)));
  StartWith(config);
  EXPECT_EQ(sipcarrier::LocalEndpoints().at(0), endpoint);
  EXPECT_EQ(sipcarrier::GetCounters().sent, 0U);
}

TEST_F(StackTest, AcceptedTasksRunInOrderAlsoAtStop) {
  StartWith(Quick());
  std::vector<int> ran;
  std::vector<int> expected;
  for (int i = 0; i < 1000; ++i) {
    ASSERT_TRUE(sipcarrier::RunOnIoThread([&ran, i] {
      ran.push_back(i);
      if (i == 500) throw std::bad_alloc();
    }));
    expected.push_back(i);
  }
  sipcarrier::Stop(5s);
  EXPECT_EQ(ran, expected);
  EXPECT_EQ(sipcarrier::GetCounters().lost_no_memory, 1U);
}

TEST_F(StackTest, StartTellsWhatIsWrong) {
  Peer holder;
  const std::string taken = ":" + std::to_string(holder.port()) + ": Address already in use";
  const auto expect_refusal = [](const char* address, int port, const char* aor,
                                 const std::string& why) {
    auto config = Quick();
    config.local_address = address;
    config.local_port = static_cast<std::uint16_t>(port);
    config.credentials.push_back({aor, "", "u", "p"});
    std::string error;
    EXPECT_EQ(sipcarrier::Start(config, error), -1);
    EXPECT_NE(error.find(why), std::string::npos) << error;
  };
  expect_refusal("127.0.0.1", holder.port(), "", "127.0.0.1" + taken);
  expect_refusal("", holder.port(), "", "0.0.0.0" + taken);
  expect_refusal("localhost", 0, "", "\"localhost\"");
  expect_refusal("192.0.2.123", 0, "", "192.0.2.123");
  expect_refusal("127.0.0.1", 0, "no uri", "no uri");
  StartWith(Quick());
  expect_refusal("127.0.0.1", 0, "", "already");
}

class Handler : public ISipStackEvent {
 public:
  struct Seen {
    long id;
    int status;
    std::string reason;
  };
  int OnStackEvent(SipStackEvent* event) override {
    {
      const std::lock_guard lock(mutex_);
      seen_.push_back({event->nStackId,
                       event->pMessage == nullptr ? -1 : event->pMessage->status_code,
                       event->szReason == nullptr ? "(null)" : event->szReason});
    }
    if (action) action(event->nStackId);
    return 0;
  }
  std::string GetServiceName() override { return "test"; }
  std::vector<Seen> seen() {
    const std::lock_guard lock(mutex_);
    return seen_;
  }
  bool WaitFor(std::size_t count) {
    return Eventually([&] { return seen().size() == count; });
  }
  std::function<void(long)> action;

 private:
  std::mutex mutex_;
  std::vector<Seen> seen_;
};

void Post(long id) { sipcarrier::PostStackEvent(SIP_EVENT_REGISTER_TIMEOUT, nullptr, "why", id); }

TEST_F(StackTest, EventsReachTheHandlerInOrderAndWithTheirParts) {
  Handler handler;
  Handler other;
  EXPECT_NE(Sipcarrier_RegisterHandler(&handler), 0) << "not started";
  StartWith(Quick());
  EXPECT_NE(Sipcarrier_RegisterHandler(nullptr), 0);
  Post(99);  // nobody there: dropped
  ASSERT_EQ(Sipcarrier_RegisterHandler(&handler), 0);
  EXPECT_NE(Sipcarrier_RegisterHandler(&other), 0);
  EXPECT_NE(Sipcarrier_DeRegisterHandler(&other), 0);
  handler.action = [](long id) {
    if (id == 10) throw std::bad_alloc();
  };
  for (long id = 0; id < 200; ++id) Post(id);
  auto response = std::make_unique<nsip_message>();
  response->status_code = 200;
  sipcarrier::PostStackEvent(SIP_EVENT_REGISTER_RESPONSE, std::move(response), "", 200);
  ASSERT_TRUE(handler.WaitFor(201));
  const auto seen = handler.seen();
  for (long id = 0; id <= 200; ++id) EXPECT_EQ(seen[static_cast<std::size_t>(id)].id, id);
  EXPECT_EQ(seen[0].status, -1);
  EXPECT_EQ(seen[0].reason, "why");
  EXPECT_EQ(seen[200].status, 200);
  EXPECT_EQ(seen[200].reason, "(null)");
  EXPECT_EQ(sipcarrier::GetCounters().lost_no_memory, 1U);
}

TEST_F(StackTest, NoEventComesAfterDeregistration) {
  StartWith(Quick());
  Handler handler;
  std::atomic<bool> entered{false};
  std::atomic<bool> left{false};
  handler.action = [&](long /*id*/) {
    entered = true;
    std::this_thread::sleep_for(100ms);
    left = true;
  };
  ASSERT_EQ(Sipcarrier_RegisterHandler(&handler), 0);
  Post(1);
  Post(2);
  ASSERT_TRUE(Eventually([&] { return entered.load(); }));
  EXPECT_EQ(Sipcarrier_DeRegisterHandler(&handler), 0);
  EXPECT_TRUE(left) << "it returned while a call was under way";
  Post(3);

  // From inside the callback, and then another handler in its place.
  Handler inside;
  inside.action = [&](long /*id*/) { EXPECT_EQ(Sipcarrier_DeRegisterHandler(&inside), 0); };
  ASSERT_EQ(Sipcarrier_RegisterHandler(&inside), 0);
  Post(4);
  Post(5);
  ASSERT_TRUE(inside.WaitFor(1));
  Handler last;
  ASSERT_TRUE(Eventually([&] { return Sipcarrier_RegisterHandler(&last) == 0; }));
  Post(6);
  ASSERT_TRUE(last.WaitFor(1));
  EXPECT_EQ(last.seen().front().id, 6);
  EXPECT_EQ(handler.seen().size(), 1U);
  EXPECT_EQ(inside.seen().size(), 1U);
}

TEST_F(StackTest, StopDeliversWhatIsQueuedUpToTheDeadline) {
  StartWith(Quick());
  Handler handler;
  handler.action = [](long id) {
    if (id > 100) std::this_thread::sleep_for(30ms);
    sipcarrier::Stop(1s);  // of its own thread: must do nothing, and not wait for itself
  };
  ASSERT_EQ(Sipcarrier_RegisterHandler(&handler), 0);
  for (long id = 1; id <= 100; ++id) Post(id);
  sipcarrier::Stop(5s);
  EXPECT_EQ(handler.seen().size(), 100U);
  StartWith(Quick());
  ASSERT_EQ(Sipcarrier_RegisterHandler(&handler), 0) << "Stop takes the handler off";
  for (long id = 101; id <= 200; ++id) Post(id);
  const auto began = Clock::now();
  sipcarrier::Stop(100ms);
  EXPECT_LT(Clock::now() - began, 400ms);
  EXPECT_LT(handler.seen().size(), 120U);
  EXPECT_NE(Sipcarrier_DeRegisterHandler(&handler), 0);
}

TEST_F(StackTest, TheMostExactCredentialWins) {
  auto config = Quick();
  config.credentials = {
      {"", "", "anyone", "1"},
      {"", "realm", "realm", "2"},
      {"sip:alice@example.com", "", "alice", "3"},
      {"sip:alice@example.com", "realm", "alice-realm", "4"},
      {"sip:alice@example.com", "realm", "later", "5"},
      {"sip:bob@example.com", "other", "bob-other", "6"},
  };
  StartWith(config);
  struct Case {
    const char* aor;
    const char* realm;
    const char* user;
  };
  sipcarrier::Credential found;
  nsip_uri uri;
  for (const Case& c : std::vector<Case>{
           {"sip:alice@example.com", "realm", "alice-realm"},
           {"sip:%61lice@EXAMPLE.com", "realm", "alice-realm"},  // RFC 3261 §19.1.4
           {"sip:alice@example.com", "else", "alice"},
           {"sip:Alice@example.com", "realm", "realm"},
           {"sip:bob@example.com", "other", "bob-other"},
           {"sip:bob@example.com", "realm", "realm"},
           {"sip:bob@example.com", "Realm", "anyone"},
           {"sips:alice@example.com", "else", "anyone"},
           {"tel:+15550100", "else", "anyone"},
       }) {
    ASSERT_TRUE(nsip_uri_parse(c.aor, uri));
    ASSERT_TRUE(sipcarrier::FindCredential(uri, c.realm, found));
    EXPECT_EQ(found.user, c.user) << c.aor << " " << c.realm;
  }
  sipcarrier::Stop(0ms);
  config.credentials = {{"sip:alice@example.com", "realm", "alice", "1"}};
  StartWith(config);
  EXPECT_FALSE(sipcarrier::FindCredential(uri, "realm", found));
}

}  // namespace
}  // namespace sip_test
