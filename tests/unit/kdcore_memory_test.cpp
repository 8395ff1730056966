#include <thread>

#include "failing_new.h"
#include "kdcore_support.h"

namespace {

class Memory : public KdTest {
 protected:
  // One thread's whole life with so many allocations; how many of the calls have worked.
  int Live(long limit) {
    int done = 0;
    const auto touch = [](const KDEvent* event) { ++*static_cast<int*>(event->userptr); };
    std::thread([&] {
      failing_new::Limit(limit);
      done += kdThreadSelf() != nullptr ? 1 : 0;
      done += kdInstallCallback(touch, KD_EVENT_USER, &a) == 0 ? 1 : 0;
      done += kdSetTimer(1, KD_TIMER_PERIODIC_AVERAGE, &b) != nullptr ? 1 : 0;
      if (KDEvent* event = kdCreateEvent(); event != nullptr) {
        event->userptr = &done;
        done += kdPostThreadEvent(event, kdThreadSelf()) == 0 ? 1 : 0;
      }
      kdPumpEvents();
      failing_new::Limit(-1);
      // With memory again everything works, on what the failures have left.
      EXPECT_EQ(kdInstallCallback(touch, KD_EVENT_USER, &a), 0);
      EXPECT_EQ(Post(KD_EVENT_USER, &a), 0);
      kdPumpEvents();
    }).join();
    return done;
  }
};

TEST_F(Memory, EveryAllocationMayFailAndNothingLeaks) {
  ASSERT_EQ(Live(-1), 4);  // makes what is made once in the process
  const long alive = failing_new::Alive();
  long limit = 0;
  for (int done = 0; done < 4 && limit < 100; ++limit) {
    done = Live(limit);
    EXPECT_EQ(failing_new::Alive(), alive) << "with " << limit << " allocations";
    EXPECT_EQ(a, limit + 2);
  }
  EXPECT_GT(limit, 8) << "hardly an allocation failed";
}

}  // namespace
