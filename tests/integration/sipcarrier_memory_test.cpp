// Memory that runs out anywhere on the I/O and delivery threads: no crash, and every request has
// one outcome.
#include <cstdlib>
#include <new>

#include "sipcarrier_peer.h"

namespace {

// Allocations of the stack's threads are counted while armed; those with a number from first to
// last fail.
std::atomic<bool> g_armed{false};
std::atomic<int> g_count{0};
std::atomic<int> g_first{0};
std::atomic<int> g_last{0};
thread_local bool t_counted = false;

void Arm(int first, int last) {
  t_counted = true;
  g_first = first;
  g_last = last;
  g_count = 0;
  g_armed = true;
}

}  // namespace

// The array forms end here too.
void* operator new(std::size_t size, const std::nothrow_t& /*tag*/) noexcept {
  if (t_counted && g_armed) {
    const int number = ++g_count;
    if (number >= g_first && number <= g_last) return nullptr;
  }
  return std::malloc(size == 0 ? 1 : size);
}
void* operator new(std::size_t size) {
  void* memory = operator new(size, std::nothrow);
  if (memory == nullptr) throw std::bad_alloc();
  return memory;
}
void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, std::size_t /*size*/) noexcept { std::free(memory); }

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
    nsip_message* raw = MakeRequest("sip:n" + std::to_string(++names_) +
                                    ".localhost:" + std::to_string(peer_.port()))
                            .release();
    EXPECT_TRUE(sipcarrier::RunOnIoThread([=] {
      sipcarrier::OutcomeFn done = [result](sipcarrier::Outcome outcome) {
        sipcarrier::PostStackEvent(SIP_EVENT_REGISTER_RESPONSE, std::move(outcome.response), {}, 1);
        result->Set(std::move(outcome));
      };
      Arm(first, last);
      sipcarrier::SendRequest(std::unique_ptr<nsip_message>(raw), nullptr, std::move(done));
    }));
    const int events = events_;
    SCOPED_TRACE(std::to_string(first) + " to " + std::to_string(last));
    Complete(peer_, result, true);
    Eventually([&] { return events_ > events; }, last > first ? 0ms : 20ms);
    g_armed = false;
    return g_count;
  }

  Peer peer_;
  std::atomic<int> events_{0};
  Handler handler_{[this](const SipStackEvent& /*event*/) {
    t_counted = true;
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

TEST_F(MemoryTest, ABurstWithoutAnyMemoryHasItsOutcomes) {
  std::vector<std::unique_ptr<nsip_message>> requests(100);  // more than any reserve
  for (auto& request : requests) request = MakeRequest("sip:127.0.0.1");
  std::atomic<std::size_t> outcomes{0};
  ASSERT_TRUE(sipcarrier::RunOnIoThread([&] {
    Arm(1, 1 << 30);
    for (auto& request : requests) {
      sipcarrier::SendRequest(std::move(request), nullptr, [&](const sipcarrier::Outcome& outcome) {
        EXPECT_EQ(outcome.kind, Kind::kUnsent);
        ++outcomes;
      });
    }
  }));
  EXPECT_TRUE(Eventually([&] { return outcomes == requests.size(); }));
  std::this_thread::sleep_for(50ms);
  g_armed = false;
  EXPECT_EQ(outcomes, requests.size());
  EXPECT_EQ(sipcarrier::GetCounters().transactions, 0U);
}

}  // namespace
}  // namespace sip_test
