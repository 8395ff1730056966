// Memory that runs out, at every place of the road of one registration: nothing crashes, nothing
// leaks, no exception gets out, and the next registration works.

#include <gtest/gtest.h>

#include <atomic>

#include "failing_new.h"
#include "LiveComponent.h"
#include "Register.h"
#include "sivra/sivra.h"
#include "VorelKDCore/VorelKDCore.h"
#include "WirePeer.h"

namespace {

using fakes::LiveComponent;
using fakes::WirePeer;
using namespace std::chrono_literals;

class Clock : public vorelkd::Clock {
 public:
  [[nodiscard]] KDust Now() const noexcept override { return now; }
  std::atomic<KDust> now{1'000'000'000};
};

// From command to refresh to deregistration, as far as it gets. Waits are short: what was lost
// stays lost.
void Road(WirePeer& peer, Clock& clock, bool must_work) {
  const auto limit = must_work ? 5000ms : 40ms;
  const int good = LiveComponent::succeeded;
  const int gone = LiveComponent::heard[1];
  const int refreshes = peer.refreshes;
  const int id = LiveComponent::Register(peer.Uri(), 2);
  const bool registered = id > 0 && LiveComponent::PumpUntil([&] { return LiveComponent::succeeded > good; }, limit);
  bool refreshed = false;
  if (registered) {
    LiveComponent::PumpFor(0ms);
    clock.now += 1'000'000'000;
    refreshed = LiveComponent::PumpUntil([&] { return peer.refreshes > refreshes; }, limit);
    LiveComponent::PumpFor(1ms);
  }
  bool ended = false;
  if (id > 0 && LiveComponent::Deregister(id) == 0) {
    ended = LiveComponent::PumpUntil([&] { return LiveComponent::heard[1] > gone; }, limit);
  }
  if (must_work) {
    EXPECT_TRUE(registered);
    EXPECT_TRUE(refreshed);
    EXPECT_TRUE(ended);
  }
}

TEST(ComponentMemory, RunsOutAtEveryPlaceOfTheRoad) {
  failing_new::TakePartByDefault(true);
  failing_new::TakePart(false);  // the test's own memory never runs out
  LiveComponent::on_call = failing_new::TakePart;
  WirePeer::on_thread_start = [] { failing_new::TakePart(false); };
  WirePeer peer;
  Clock clock;
  vorelkd::SetClock(&clock);
  long live_at_first = 0;
  long allocations = 0;
  // The first round warms up what is kept for ever; the second must end with as many blocks as the
  // first.
  for (int round = 0; round < 2; ++round) {
    {
      LiveComponent component(10ms);
      Road(peer, clock, true);
      if (round == 1) {
        for (long n = 1;; ++n) {
          failing_new::Fail(n, n);
          Road(peer, clock, false);
          if (failing_new::Fail(0, 0) < n) break;
          allocations = n;
          if (n % 10 == 0) Road(peer, clock, true);
          if (testing::Test::HasFailure()) break;
        }
        Road(peer, clock, true);
      }
    }
    EXPECT_EQ(CRegister::s_nAlive, 0);
    EXPECT_EQ(sivra::EntryCount(), 0u);
    if (round == 0) live_at_first = failing_new::Alive();
  }
  vorelkd::SetClock(nullptr);
  EXPECT_GT(allocations, 200);
  EXPECT_LE(failing_new::Alive(), live_at_first);
  std::printf("allocations on the road: %ld\n", allocations);
}

}  // namespace
