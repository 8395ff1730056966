// Memory that runs out anywhere on the I/O and delivery threads: no crash, and every request has
// one outcome; a request from outside that is lost gets its response when it comes again.
#include "failing_new.h"
#include "sipcarrier_peer.h"

namespace sip_test {
namespace {

class MemoryTest : public StackTest {
 protected:
  void SetUp() override {
    auto config = Quick(5ms);
    config.local_address.clear();  // with the look for the local address
    config.t4 = 5ms;
    config.trace = [](const sipcarrier::TraceRecord& /*record*/) {};
    StartWith(config);
    ASSERT_EQ(Sipcarrier_RegisterHandler(&handler_), 0);
  }

  // A request with a lookup and an event at its end, while allocations first..last fail. The number
  // of allocations seen.
  int Road(int first, int last) {
    const auto result = std::make_shared<Result>();
    // A name of its own, so that every road has its lookup.
    nsip_message* raw =
        MakeRequest("sip:n" + std::to_string(++names_) + ".localhost:" + std::to_string(peer_.port())).release();
    EXPECT_TRUE(sipcarrier::RunOnIoThread([=] {
      sipcarrier::OutcomeFn done = [result](sipcarrier::Outcome outcome) {
        sipcarrier::PostStackEvent(SIP_EVENT_REGISTER_RESPONSE, std::move(outcome.response), {}, 1);
        result->Set(std::move(outcome));
      };
      failing_new::TakePart(true);
      failing_new::Fail(first, last);
      sipcarrier::SendRequest(std::unique_ptr<nsip_message>(raw), nullptr, std::move(done));
    }));
    const int events = events_;
    SCOPED_TRACE(std::to_string(first) + " to " + std::to_string(last));
    Complete(peer_, result, true);
    Eventually([&] { return events_ > events; }, last > first ? 0ms : 20ms);
    return static_cast<int>(failing_new::Fail(0, 0));
  }

  // A request from outside, sent until its response comes, while allocations first..last of those until then fail.
  int Served(const std::string& method, int first, int last) {
    const std::string endpoint = sipcarrier::LocalEndpoints().at(0);
    Peer client(AF_INET, std::stoi(endpoint.substr(endpoint.find(':') + 1)));
    const std::string request = method + " sip:a@b SIP/2.0\r\nVia: SIP/2.0/UDP h;rport;branch=z9hG4bK" +
                                std::to_string(++names_) + "\r\nFrom: <sip:b@c>;tag=1\r\nTo: <sip:a@b>\r\n" +
                                "Call-ID: c@" + std::string(64, 'h') + "\r\nCSeq: 7 " + method + "\r\n\r\n";
    std::string response;
    for (int copy = 0; copy < 50 && response.empty(); ++copy) {
      if (copy == 0) failing_new::Fail(first, last);
      if (copy == 3) failing_new::Fail(0, 0);
      client.Send(request);
      response = client.Receive(copy > 3 ? 1s : 4ms);
    }
    EXPECT_EQ(response.substr(0, 11), method == "NOTIFY" ? "SIP/2.0 200" : "SIP/2.0 405") << first << " to " << last;
    return static_cast<int>(failing_new::Fail(0, 0));
  }

  Peer peer_;
  std::atomic<int> events_{0};
  Handler handler_{[this](const SipStackEvent& /*event*/) {
    failing_new::TakePart(true);
    ++events_;
  }};
  int names_ = 0;
};

TEST_F(MemoryTest, AnyAllocationOfARoadMayFailAloneOrWithAllThatFollow) {
  const int normal = Road(0, 0);
  ASSERT_GT(normal, 20) << "the road takes memory, or the count is broken";
  for (int n = 1; n <= normal; ++n) Road(n, n);
  for (int n = 1; n <= normal; n += 3) Road(n, 1 << 30);
  EXPECT_GE(sipcarrier::GetCounters().lost_no_memory, static_cast<std::uint64_t>(normal / 2));
  const int before = events_;
  Road(0, 0);
  EXPECT_TRUE(Eventually([&] { return events_ > before; })) << "the next request must work";
  EXPECT_TRUE(Eventually([] { return sipcarrier::GetCounters().transactions == 0; }));
}

TEST_F(MemoryTest, ARequestThatIsLostGetsItsResponseWhenItComesAgain) {
  Road(0, 0);  // from then on the I/O thread takes part
  ASSERT_TRUE(sipcarrier::SetRequestHandler("NOTIFY", [](auto /*request*/, auto id, const auto& /*local*/) {
    sipcarrier::Respond(id, 200, "OK", {{"X-Header", "long enough to need memory of its own"}});
  }));
  for (const char* method : {"NOTIFY", "MESSAGE"}) {
    const int normal = Served(method, 0, 0);
    ASSERT_GT(normal, 40) << "a request takes memory, or the count is broken";
    for (int n = 1; n <= normal; ++n) Served(method, n, n);
    for (int n = 1; n <= normal; n += 3) Served(method, n, 1 << 30);
  }
  EXPECT_GT(sipcarrier::GetCounters().lost_no_memory, 80U);
  EXPECT_TRUE(Eventually([] { return sipcarrier::GetCounters().server_transactions == 0; }));
}

}  // namespace
}  // namespace sip_test
