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

void* Allocate(std::size_t size) noexcept {
  if (t_counted && g_armed) {
    const int number = ++g_count;
    if (number >= g_first && number <= g_last) return nullptr;
  }
  return std::malloc(size == 0 ? 1 : size);
}

void* AllocateOrThrow(std::size_t size) {
  void* memory = Allocate(size);
  if (memory == nullptr) throw std::bad_alloc();
  return memory;
}

}  // namespace

void* operator new(std::size_t size) { return AllocateOrThrow(size); }
void* operator new[](std::size_t size) { return AllocateOrThrow(size); }
void* operator new(std::size_t size, const std::nothrow_t& /*tag*/) noexcept {
  return Allocate(size);
}
void* operator new[](std::size_t size, const std::nothrow_t& /*tag*/) noexcept {
  return Allocate(size);
}
void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete[](void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, std::size_t /*size*/) noexcept { std::free(memory); }
void operator delete[](void* memory, std::size_t /*size*/) noexcept { std::free(memory); }

namespace sip_test {
namespace {

class EventCount : public ISipStackEvent {
 public:
  int OnStackEvent(SipStackEvent* /*event*/) override {
    t_counted = true;
    ++count;
    return 0;
  }
  std::string GetServiceName() override { return "test"; }
  std::atomic<int> count{0};
};

class MemoryTest : public StackTest {
 protected:
  static sipcarrier::Config Traced() {
    auto config = Quick();
    config.local_address.clear();  // with the look for the local address
    config.t1 = 5ms;
    config.t2 = 10ms;
    config.t4 = 5ms;
    config.trace = [](const sipcarrier::TraceRecord& /*record*/) {};
    return config;
  }

  // A request with a lookup and an event at its end, while allocations first..last fail. The number
  // of allocations seen.
  int Road(int first, int last) {
    auto result = std::make_shared<Result>();
    // A name of its own, so that every road has its lookup.
    const std::string name = "n" + std::to_string(++names_) + ".localhost:";
    auto request = MakeRequest("sip:" + name + std::to_string(peer_.port()));
    nsip_message* raw = request.release();
    EXPECT_TRUE(sipcarrier::RunOnIoThread([=] {
      t_counted = true;
      g_first = first;
      g_last = last;
      g_count = 0;
      sipcarrier::OutcomeFn done = [result](sipcarrier::Outcome outcome) {
        sipcarrier::PostStackEvent(SIP_EVENT_REGISTER_RESPONSE, std::move(outcome.response), {}, 1);
        result->Set(std::move(outcome));
      };
      g_armed = true;
      sipcarrier::SendRequest(std::unique_ptr<nsip_message>(raw), nullptr, std::move(done));
    }));
    EXPECT_TRUE(result->Wait()) << "failing from " << first << " to " << last;
    const int expected_events = ++roads_;
    Eventually([&] { return events_.count == expected_events; }, last > first ? 0ms : 20ms);
    g_armed = false;
    roads_ = events_.count;
    EXPECT_EQ(result->calls(), 1);
    return g_count;
  }

  AnsweringPeer peer_{"200 OK"};
  EventCount events_;
  int roads_ = 0;
  int names_ = 0;
};

TEST_F(MemoryTest, AnyAllocationOfARoadMayFailAloneOrWithAllThatFollow) {
  StartWith(Traced());
  ASSERT_EQ(Sipcarrier_RegisterHandler(&events_), 0);
  const int normal = Road(0, 0);
  ASSERT_GT(normal, 20) << "the road takes memory, or the count is broken";
  for (int n = 1; n <= normal; ++n) Road(n, n);
  for (int n = 1; n <= normal; n += 3) Road(n, 1 << 30);
  EXPECT_GE(sipcarrier::GetCounters().lost_no_memory, static_cast<std::uint64_t>(normal / 2));
  const int before = events_.count;
  Road(0, 0);
  EXPECT_TRUE(Eventually([&] { return events_.count > before; })) << "the next request must work";
  EXPECT_TRUE(Eventually([] { return sipcarrier::GetCounters().transactions == 0; }));
}

TEST_F(MemoryTest, ABurstWithoutAnyMemoryHasItsOutcomes) {
  StartWith(Traced());
  constexpr int kBurst = 100;  // more than any reserve
  std::vector<std::unique_ptr<nsip_message>> requests;
  requests.reserve(kBurst);
  for (int i = 0; i < kBurst; ++i) requests.push_back(MakeRequest("sip:127.0.0.1"));
  std::atomic<int> outcomes{0};
  ASSERT_TRUE(sipcarrier::RunOnIoThread([&] {
    t_counted = true;
    g_count = 0;
    g_first = 1;
    g_last = 1 << 30;
    g_armed = true;
    for (auto& request : requests) {
      sipcarrier::SendRequest(std::move(request), nullptr, [&](const sipcarrier::Outcome& outcome) {
        EXPECT_EQ(outcome.kind, Kind::kUnsent);
        ++outcomes;
      });
    }
  }));
  EXPECT_TRUE(Eventually([&] { return outcomes == kBurst; }));
  std::this_thread::sleep_for(50ms);
  g_armed = false;
  EXPECT_EQ(outcomes, kBurst);
  EXPECT_EQ(sipcarrier::GetCounters().transactions, 0U);
}

}  // namespace
}  // namespace sip_test
