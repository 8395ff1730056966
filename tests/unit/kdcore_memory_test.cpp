#include <algorithm>
#include <array>
#include <thread>

#include "failing_new.h"
#include "kdcore_support.h"

namespace {

using Memory = KdTest;

TEST_F(Memory, EveryAllocationOfAThreadMayFailAndNothingLeaks) {
  const auto touch = [](const KDEvent* event) { ++*static_cast<int*>(event->userptr); };
  long alive = 0;
  long limit = -1;  // the round without a limit makes what is made once in the process
  for (bool worked = false; limit <= 0 || (!worked && limit < 100); ++limit) {
    std::thread([&] {
      failing_new::Limit(limit);
      const std::array calls = {kdThreadSelf() != nullptr, kdInstallCallback(touch, kOne, &a) == 0,
                                kdSetTimer(1, KD_TIMER_PERIODIC_AVERAGE, &b) != nullptr,
                                Post(kTwo, &limit) == 0, kdPumpEvents() == 0};
      failing_new::Limit(-1);
      worked = std::ranges::count(calls, false) == 0;
      // With memory again everything works, on what the failures have left.
      EXPECT_EQ(kdInstallCallback(touch, kOne, &a) + Post(kOne, &a) + kdPumpEvents(), 0);
    }).join();
    EXPECT_EQ(a, limit + 2);
    if (limit < 0) alive = failing_new::Alive();
    EXPECT_EQ(failing_new::Alive(), alive) << "with " << limit << " allocations";
  }
  EXPECT_TRUE(limit > 8 && limit < 100) << limit;
}

}  // namespace
