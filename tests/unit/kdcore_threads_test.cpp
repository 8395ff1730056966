// Several threads, on the system's clock. A wait that is not ended runs into the test's time limit.
#include <sys/resource.h>

#include <atomic>
#include <chrono>
#include <future>
#include <memory>
#include <thread>

#include "kdcore_support.h"

namespace {

using namespace std::chrono_literals;

using Threads = KdTest;

TEST_F(Threads, AnEndedThreadTakesNothingAndItsHandleIsNotReused) {
  KDTimer* mine = kdSetTimer(3600 * kSecond, KD_TIMER_ONESHOT, &a);
  KDThread* last = nullptr;
  for (int round = 0; round < 20; ++round) {
    std::promise<KDThread*> started;
    std::thread ends([&] {
      EXPECT_EQ(kdCancelTimer(mine), -1);
      EXPECT_NE(kdSetTimer(1, KD_TIMER_PERIODIC_AVERAGE, &a), nullptr);
      EXPECT_EQ(Post(kOne, &a), 0);  // freed with the thread
      started.set_value(kdThreadSelf());
    });
    KDThread* handle = started.get_future().get();
    EXPECT_NE(handle, std::exchange(last, handle));
    while (Post(kOne, &a, handle) == 0) std::this_thread::yield();  // it ends meanwhile
    EXPECT_EQ(kdGetError(), KD_ESRCH);
    EXPECT_TRUE(kdThreadEnded(handle) == 1 && kdForgetUserPtr(handle, &a) == 0);
    ends.join();
  }
  EXPECT_TRUE(kdThreadEnded(kdThreadSelf()) == 0 && kdCancelTimer(mine) == 0);
}

TEST_F(Threads, WaitsKeepTheirLimitAndServeTimersAndPostsAlsoWithoutDescriptors) {
  rlimit usual{};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &usual), 0);
  for (const rlim_t descriptors : {usual.rlim_cur, rlim_t{0}}) {
    const rlimit limit{descriptors, usual.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
    std::thread([&] {
      kdInstallCallback(Record, KD_EVENT_TIMER_FIRED, &a);
      kdSetTimer(kSecond / 20, KD_TIMER_PERIODIC_AVERAGE, &a);
      const auto begin = std::chrono::steady_clock::now();
      EXPECT_EQ(kdWaitEvent(kSecond / 4), nullptr);
      const auto took = std::chrono::steady_clock::now() - begin;
      EXPECT_TRUE(took >= 245ms && !delivered.empty() && delivered.size() * 50ms <= took);
      kdForgetUserPtr(kdThreadSelf(), &a);
      std::thread poster([self = kdThreadSelf()] {
        std::this_thread::sleep_for(20ms);
        Post(kOne, nullptr, self);
      });
      EXPECT_EQ(kdWaitEvent(-1)->type, kOne);
      poster.join();
      kdSetTimer(kSecond / 50, KD_TIMER_ONESHOT, &b);
      EXPECT_EQ(kdWaitEvent(-1)->userptr, &b);
    }).join();
  }
  EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &usual), 0);
}

TEST_F(Threads, TakingBackIsRefusedWhileACallbackRunsElsewhere) {
  static std::promise<KDThread*> entered;
  static std::promise<void> leave;
  std::thread other([&] {
    const auto stay = [](const KDEvent*) {
      entered.set_value(kdThreadSelf());
      leave.get_future().wait();
    };
    kdInstallCallback(stay, kOne, nullptr);  // for all user pointers: what counts is the event's
    Post(kOne, &a);
    for (int pump = 0; pump < 2; ++pump) kdPumpEvents();
  });
  KDThread* handle = entered.get_future().get();
  for (int* user : {&a, &b}) Post(kOne, user, handle);  // would break the promise
  EXPECT_EQ(kdForgetUserPtr(handle, &a), -1);
  EXPECT_EQ(kdGetError(), KD_EBUSY);
  EXPECT_EQ(kdForgetUserPtr(handle, &b), 0) << "another user pointer is no reason";
  leave.set_value();
  while (kdForgetUserPtr(handle, &a) != 0) std::this_thread::yield();
  other.join();
}

// Posters that number their events, beside one that takes user pointers back and frees them: the
// sanitizers watch that nothing is touched afterwards.
TEST_F(Threads, PostersKeepTheirOrderBesideTakingBack) {
  constexpr int kEach = 5000;
  const auto count = [](const KDEvent* event) {
    kdCancelTimer(kdSetTimer(1000, KD_TIMER_PERIODIC_AVERAGE, event->userptr));
    EXPECT_EQ(event->type, kTwo + ++*static_cast<std::atomic<int>*>(event->userptr));
  };
  const auto touch = [](const KDEvent* event) { ++*static_cast<int*>(event->userptr); };
  std::atomic<int> seen[3] = {};
  std::vector<std::thread> posters;
  std::promise<KDThread*> ready;
  std::thread loop([&] {
    for (int n = 1; n <= kEach; ++n) kdInstallCallback(count, kTwo + n, nullptr);
    kdInstallCallback(touch, kOne, nullptr);
    ready.set_value(kdThreadSelf());
    while (kdWaitEvent(-1)->type != kTwo) continue;
  });
  KDThread* handle = ready.get_future().get();
  for (std::atomic<int>& mine : seen) {
    posters.emplace_back([&mine, handle] {
      for (int n = 1; n <= kEach; ++n) ASSERT_EQ(Post(kTwo + n, &mine, handle), 0);
    });
  }
  for (int i = 0; i < kEach; ++i) {
    const auto counter = std::make_unique<int>(0);
    for (int n = 0; n < 3; ++n) Post(kOne, counter.get(), handle);
    while (kdForgetUserPtr(handle, counter.get()) != 0) std::this_thread::yield();
  }
  for (std::thread& poster : posters) poster.join();
  while (seen[0] + seen[1] + seen[2] < 3 * kEach) std::this_thread::yield();
  Post(kTwo, nullptr, handle);
  loop.join();
}

}  // namespace
