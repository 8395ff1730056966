#include <thread>

#include "failing_new.h"
#include "kdcore_support.h"

namespace kdtest {
namespace {

// One thread's whole life: every call in it may fail for lack of memory, none may break anything.
void Live(long limit, int* user, int& done) {
  failing_new::Limit(limit);
  done = 0;
  KDThread* self = kdThreadSelf();
  if (self != nullptr) ++done;
  if (kdInstallCallback([](const KDEvent* event) { ++*static_cast<int*>(event->userptr); },
                        KD_EVENT_USER, user) == 0) {
    ++done;
  }
  for (int i = 0; i < 3; ++i) {
    if (kdSetTimer(1 + i, KD_TIMER_PERIODIC_AVERAGE, user + 1 + i) != nullptr) ++done;
    KDEvent* event = kdCreateEvent();
    if (event == nullptr) {
      EXPECT_EQ(kdGetError(), KD_ENOMEM);
      continue;
    }
    ++done;
    event->type = KD_EVENT_USER;
    event->userptr = user;
    if (kdPostThreadEvent(event, self) == 0) ++done;
  }
  kdPumpEvents();
  failing_new::Limit(-1);
  // With memory again everything works, on what the failures have left.
  const int before = *user;
  EXPECT_EQ(kdInstallCallback([](const KDEvent* event) { ++*static_cast<int*>(event->userptr); },
                              KD_EVENT_USER, user),
            0);
  KDEvent* event = kdCreateEvent();
  event->type = KD_EVENT_USER;
  event->userptr = user;
  EXPECT_EQ(kdPostEvent(event), 0);
  kdPumpEvents();
  EXPECT_EQ(*user, before + 1);
}

TEST(Memory, EveryAllocationMayFailAndNothingLeaks) {
  constexpr int kAll = 11;
  int users[4] = {};
  int done = 0;
  std::thread(Live, -1, users, std::ref(done)).join();  // what is made once in the process
  ASSERT_EQ(done, kAll);
  ASSERT_EQ(users[0], 4);
  const long alive = failing_new::Alive();
  long limit = 0;
  for (done = 0; done < kAll; ++limit) {
    ASSERT_LT(limit, 100);
    users[0] = 0;
    std::thread(Live, limit, users, std::ref(done)).join();
    EXPECT_EQ(failing_new::Alive(), alive) << "with " << limit << " allocations";
  }
  EXPECT_GT(limit, 8) << "hardly an allocation failed";
}

}  // namespace
}  // namespace kdtest
