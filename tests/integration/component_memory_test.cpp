// Memory that runs out, at every place of the road of one registration: nothing crashes, nothing
// leaks, no exception gets out, and the next registration works.

#include <gtest/gtest.h>

#include "failing_new.h"
#include "FrontDoor.h"
#include "LiveComponent.h"
#include "Register.h"
#include "sivra/sivra.h"
#include "WirePeer.h"
#include "WorkDir.h"

namespace {

using fakes::LiveComponent;
using fakes::WirePeer;
using namespace std::chrono_literals;

// From configuration, log and command to refresh to deregistration, as far as it gets when this
// allocation fails; 0: none does, and it must get to the end.
void Road(WirePeer& peer, fakes::FakeClock& clock, const fakes::WorkDir& dir, long failing) {
  const bool must_work = failing == 0;
  const auto until = [failing](const auto& done) {
    return LiveComponent::PumpUntil(
        done, [failing] { return failing != 0 && failing_new::Counted() >= failing; }, 25ms);
  };
  const bool set = LiveComponent::Command(0x10000, dir.Settings()) == 0;
  EXPECT_EQ(LiveComponent::Command(2, ""), 0x40000002);
  const bool logs = LiveComponent::Command(0x10004, dir.LogOn("max-size=\"1\"")) == 0;
  const int refreshes = peer.refreshes;
  const int id = LiveComponent::Register(peer.Uri(), 2);
  const auto told = [&](std::size_t kind) {
    return id > 0 && until([&] { return LiveComponent::told.at(static_cast<std::size_t>(id))[kind] > 0; });
  };
  const bool registered = told(0);
  bool refreshed = false;
  if (registered) {
    LiveComponent::PumpFor(0ms);
    clock.now_ += 1'000'000'000;
    refreshed = until([&] { return peer.refreshes > refreshes; });
    LiveComponent::PumpFor(1ms);
  }
  const bool ended = id > 0 && LiveComponent::Deregister(id) == 0 && told(1);
  LiveComponent::Command(0x10004, fakes::WorkDir::kLogOff);
  EXPECT_TRUE(!must_work || (set && logs && registered && refreshed && ended))
      << set << logs << registered << refreshed << ended;
}

TEST(ComponentMemory, RunsOutAtEveryPlaceOfTheRoad) {
  failing_new::TakePartByDefault(true);
  failing_new::TakePart(false);  // the test's own memory never runs out
  LiveComponent::on_call = failing_new::TakePart;
  WirePeer::on_thread_start = [] { failing_new::TakePart(false); };
  WirePeer peer;
  fakes::FakeClock clock;
  const fakes::WorkDir dir;
  dir.Template("X-A: a value that is too long to be held in place\nX-B: ${local-uri}");
  vorelkd::SetClock(&clock);
  long live_at_first = 0;
  long allocations = 0;
  // The first round warms up what is kept for ever; the second must end with as many blocks as the
  // first.
  for (int round = 0; round < 2; ++round) {
    {
      LiveComponent component(10ms);
      Road(peer, clock, dir, 0);
      for (long n = 1; round == 1 && !testing::Test::HasFailure(); ++n) {
        failing_new::Fail(n, n);
        Road(peer, clock, dir, n);
        const bool over = failing_new::Fail(0, 0) < n;
        if (over || n % 10 == 0) Road(peer, clock, dir, 0);
        if (over) break;
        allocations = n;
      }
    }
    EXPECT_EQ(CRegister::s_nAlive, 0);
    EXPECT_EQ(sivra::EntryCount(), 0u);
    if (round == 0) live_at_first = failing_new::Alive();
  }
  vorelkd::SetClock(nullptr);
  EXPECT_GT(allocations, 200);
  // The log keeps a record of each thread that has logged; the delivery thread of each round is one.
  EXPECT_LE(failing_new::Alive(), live_at_first + 1);
  std::printf("allocations on the road: %ld\n", allocations);
}

}  // namespace
