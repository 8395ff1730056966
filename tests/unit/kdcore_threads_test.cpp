// Several threads, on the system's clock; the deadlines are those of a test that hangs.
#include <sys/resource.h>

#include <array>
#include <atomic>
#include <chrono>
#include <functional>
#include <future>
#include <memory>
#include <thread>

#include "kdcore_support.h"

namespace {

using std::chrono::seconds;
using std::chrono::steady_clock;

class Threads : public KdTest {
 protected:
  // A thread that prepares and then runs its loop until it is stopped.
  class Looper {
   public:
    explicit Looper(const std::function<void()>& prepare) {
      std::promise<KDThread*> ready;
      thread_ = std::thread([&ready, prepare] {
        prepare();
        ready.set_value(kdThreadSelf());
        const auto end = steady_clock::now() + seconds(20);
        for (const KDEvent* event = nullptr; event == nullptr || event->type != kTwo;) {
          event = kdWaitEvent(30 * kSecond);
        }
        EXPECT_LT(steady_clock::now(), end) << "a post did not end the wait";
      });
      handle = ready.get_future().get();
    }
    ~Looper() {
      EXPECT_EQ(Post(kTwo, nullptr, handle), 0);
      thread_.join();
    }
    KDThread* handle;

   private:
    std::thread thread_;
  };
};

TEST_F(Threads, AnEndedThreadTakesNothingAndItsHandleIsNotReused) {
  KDTimer* mine = kdSetTimer(3600 * kSecond, KD_TIMER_ONESHOT, &a);
  KDThread* last = nullptr;
  for (int round = 0; round < 20; ++round) {
    std::promise<KDThread*> started;
    std::thread ends([&] {
      started.set_value(kdThreadSelf());
      EXPECT_EQ(Post(kOne, &a), 0);  // freed with the thread
      EXPECT_NE(kdSetTimer(1, KD_TIMER_PERIODIC_AVERAGE, &a), nullptr);
      EXPECT_EQ(kdCancelTimer(mine), -1);
    });
    KDThread* handle = started.get_future().get();
    EXPECT_NE(handle, last);
    while (Post(kOne, &a, handle) == 0) std::this_thread::yield();  // it ends meanwhile
    EXPECT_EQ(kdGetError(), KD_ESRCH);
    EXPECT_EQ(kdThreadEnded(handle), 1);
    EXPECT_EQ(kdForgetUserPtr(handle, &a), 0);
    ends.join();
    last = handle;
  }
  EXPECT_EQ(kdThreadEnded(kdThreadSelf()), 0);
  EXPECT_EQ(kdCancelTimer(mine), 0);
}

TEST_F(Threads, AWaitKeepsItsLimitAndServesTimersMeanwhile) {
  kdInstallCallback(Record, KD_EVENT_TIMER_FIRED, &a);
  kdSetTimer(kSecond / 20, KD_TIMER_PERIODIC_AVERAGE, &a);
  const auto begin = steady_clock::now();
  EXPECT_EQ(kdWaitEvent(kSecond / 4), nullptr);
  const auto took = steady_clock::now() - begin;
  EXPECT_TRUE(took >= std::chrono::milliseconds(245) && took < seconds(2));
  EXPECT_TRUE(!delivered.empty() && delivered.size() * std::chrono::milliseconds(50) <= took);
  kdSetTimer(kSecond / 50, KD_TIMER_ONESHOT, &b);
  EXPECT_EQ(kdWaitEvent(-1)->userptr, &b);  // without a limit: the timer ends it
}

TEST_F(Threads, WithoutDescriptorsAWaitStillEndsInTime) {
  std::thread([&] {
    rlimit limit{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
    const rlimit none{0, limit.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
    EXPECT_EQ(kdWaitEvent(kSecond / 20), nullptr);
    kdSetTimer(kSecond / 20, KD_TIMER_ONESHOT, &a);
    EXPECT_EQ(kdWaitEvent(-1)->userptr, &a);
    EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
  }).join();
}

TEST_F(Threads, TakingBackIsRefusedWhileACallbackRunsElsewhere) {
  static std::promise<void> entered;
  static std::promise<void> leave;
  const auto stay = [](const KDEvent*) {
    entered.set_value();
    leave.get_future().wait();
  };
  // Installed for all user pointers: what counts is the event's.
  const Looper loop([stay] { kdInstallCallback(stay, kOne, nullptr); });
  Post(kOne, &a, loop.handle);
  entered.get_future().wait();
  Post(kOne, &a, loop.handle);  // would break the promise if it were delivered
  Post(kOne, &b, loop.handle);
  EXPECT_EQ(kdForgetUserPtr(loop.handle, &a), -1);
  EXPECT_EQ(kdGetError(), KD_EBUSY);
  EXPECT_EQ(kdForgetUserPtr(loop.handle, &b), 0) << "another user pointer is no reason";
  leave.set_value();
  while (kdForgetUserPtr(loop.handle, &a) != 0) std::this_thread::yield();
}

// Posters that number their events, beside one that takes user pointers back and frees them: the
// sanitizers watch that nothing is touched afterwards.
TEST_F(Threads, PostersKeepTheirOrderBesideTakingBack) {
  constexpr int kEach = 5000;
  struct Poster {
    std::atomic<int> seen{0};
    bool in_order = true;
    std::thread thread;
  };
  const auto count = [](const KDEvent* event) {
    auto* poster = static_cast<Poster*>(event->userptr);
    kdCancelTimer(kdSetTimer(1000, KD_TIMER_PERIODIC_AVERAGE, poster));
    if (event->type != kTwo + 1 + poster->seen) poster->in_order = false;
    ++poster->seen;
  };
  const auto touch = [](const KDEvent* event) { ++*static_cast<int*>(event->userptr); };
  std::array<Poster, 3> posters;
  const Looper loop([=] {
    for (int n = 1; n <= kEach; ++n) kdInstallCallback(count, kTwo + n, nullptr);
    kdInstallCallback(touch, kOne, nullptr);
  });
  for (Poster& poster : posters) {
    poster.thread = std::thread([&poster, &loop] {
      for (int n = 1; n <= kEach; ++n) ASSERT_EQ(Post(kTwo + n, &poster, loop.handle), 0);
    });
  }
  for (int i = 0; i < kEach; ++i) {
    const auto counter = std::make_unique<int>(0);
    for (int n = 0; n < 3; ++n) Post(kOne, counter.get(), loop.handle);
    while (kdForgetUserPtr(loop.handle, counter.get()) != 0) std::this_thread::yield();
  }
  for (Poster& poster : posters) {
    poster.thread.join();
    while (poster.seen < kEach) std::this_thread::yield();
    EXPECT_TRUE(poster.in_order);
  }
}

}  // namespace
