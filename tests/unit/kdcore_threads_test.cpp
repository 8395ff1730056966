#include <sys/resource.h>

#include <chrono>
#include <future>
#include <memory>
#include <thread>

#include "kdcore_support.h"

namespace kdtest {
namespace {

using std::chrono::steady_clock;

constexpr KDint kWork = KD_EVENT_USER + 1;
constexpr KDint kStop = KD_EVENT_USER + 2;

// Threads with the system's clock; the deadlines are those of a test that hangs.
class Threads : public KdTest {
 protected:
  void SetUp() override {}

  // Runs its loop until kStop comes, or for ten seconds.
  static void Loop() {
    const auto end = steady_clock::now() + std::chrono::seconds(10);
    while (steady_clock::now() < end) {
      const KDEvent* event = kdWaitEvent(kSecond);
      if (event != nullptr && event->type == kStop) return;
    }
    ADD_FAILURE() << "nobody stopped the loop";
  }
};

TEST_F(Threads, AHandleIsUniqueAndAnEndedThreadTakesNothing) {
  KDThread* first = nullptr;
  std::thread([&] {
    first = kdThreadSelf();
    EXPECT_EQ(kdThreadEnded(first), 0);
    Post(kWork, &a);                               // freed with the thread
    kdSetTimer(1, KD_TIMER_PERIODIC_AVERAGE, &a);  // so is this
    kdInstallCallback(Record, KD_EVENT_TIMER_FIRED, &a);
  }).join();
  KDThread* second = nullptr;
  std::thread([&] { second = kdThreadSelf(); }).join();
  EXPECT_NE(first, second);
  EXPECT_NE(first, kdThreadSelf());
  EXPECT_EQ(kdThreadEnded(first), 1);
  EXPECT_EQ(Post(kWork, &a, first), -1);
  EXPECT_EQ(kdGetError(), KD_ESRCH);
  EXPECT_EQ(kdForgetUserPtr(first, &a), 0);
}

TEST_F(Threads, CallsInLateThreadLocalDestructorsFailAndDoNoHarm) {
  struct Late {
    KDThread** handle = nullptr;
    ~Late() {
      if (handle == nullptr) return;
      EXPECT_EQ(kdThreadSelf(), *handle);
      EXPECT_EQ(kdThreadEnded(*handle), 1);
      EXPECT_EQ(kdPostEvent(kdCreateEvent()), -1);
      EXPECT_EQ(kdSetTimer(1, KD_TIMER_ONESHOT, nullptr), nullptr);
      EXPECT_EQ(kdGetError(), KD_ESRCH);
    }
  };
  KDThread* handle = nullptr;
  std::thread([&] {
    thread_local Late late;  // made first, so it ends last
    late.handle = &handle;
    handle = kdThreadSelf();
  }).join();
}

TEST_F(Threads, TimersBelongToTheirThread) {
  KDTimer* mine = kdSetTimer(3600 * kSecond, KD_TIMER_PERIODIC_AVERAGE, &a);
  std::thread([&] {
    EXPECT_EQ(kdCancelTimer(mine), -1);
    EXPECT_EQ(kdGetError(), KD_EINVAL);
  }).join();
  EXPECT_EQ(kdCancelTimer(mine), 0);
}

TEST_F(Threads, APostWakesAThreadThatWaits) {
  std::promise<KDThread*> started;
  std::thread loop([&] {
    started.set_value(kdThreadSelf());
    Loop();
  });
  KDThread* thread = started.get_future().get();
  std::this_thread::sleep_for(std::chrono::milliseconds(30));
  const auto begin = steady_clock::now();
  EXPECT_EQ(Post(kStop, nullptr, thread), 0);
  loop.join();
  EXPECT_LT(steady_clock::now() - begin, std::chrono::milliseconds(500));
}

TEST_F(Threads, AWaitEndsWithItsTimeLimitAndServesTimersMeanwhile) {
  static int fired;
  fired = 0;
  kdInstallCallback([](const KDEvent*) { ++fired; }, KD_EVENT_TIMER_FIRED, &a);
  KDTimer* timer = kdSetTimer(kSecond / 20, KD_TIMER_PERIODIC_AVERAGE, &a);
  const auto begin = steady_clock::now();
  EXPECT_EQ(kdWaitEvent(kSecond / 4), nullptr);
  const auto took = steady_clock::now() - begin;
  EXPECT_GE(took, std::chrono::milliseconds(245));
  EXPECT_LT(took, std::chrono::seconds(2));
  EXPECT_GE(fired, 1);
  EXPECT_LE(fired, took / std::chrono::milliseconds(50));
  EXPECT_EQ(kdCancelTimer(timer), 0);

  // And with no limit: the timer alone ends the sleep.
  timer = kdSetTimer(kSecond / 50, KD_TIMER_ONESHOT, &b);
  const KDEvent* event = kdWaitEvent(-1);
  ASSERT_NE(event, nullptr);
  EXPECT_EQ(event->userptr, &b);
}

TEST_F(Threads, AReplacedClockThatMovesIsSeenInAWait) {
  vorelkd::SetClock(&clock);
  std::promise<void> set;
  std::thread loop([&] {
    kdSetTimer(3600 * kSecond, KD_TIMER_ONESHOT, &a);
    set.set_value();
    const KDEvent* event = kdWaitEvent(10 * kSecond);
    ASSERT_NE(event, nullptr);
    EXPECT_EQ(event->userptr, &a);
  });
  set.get_future().get();
  clock.Advance(3600 * kSecond);
  loop.join();
}

// Four posters, one loop that also ends and starts timers, and one thread that takes user pointers
// back.
TEST_F(Threads, PostersKeepTheirOrderUnderLoad) {
  constexpr int kPosters = 4;
  constexpr int kEach = 5000;
  struct Poster {
    int seen = 0;
    int posted = 0;
  };
  static std::atomic<bool> in_order;
  in_order = true;
  std::vector<Poster> posters(kPosters);
  std::promise<KDThread*> started;
  std::thread loop([&] {
    kdInstallCallback(
        [](const KDEvent* event) {
          auto* poster = static_cast<Poster*>(event->userptr);
          // The type carries the number.
          if (event->type != kStop + ++poster->seen) in_order = false;
          kdCancelTimer(kdSetTimer(1000, KD_TIMER_PERIODIC_AVERAGE, event->userptr));
        },
        0, nullptr);
    kdInstallCallback([](const KDEvent*) {}, kWork, nullptr);
    started.set_value(kdThreadSelf());
    for (int done = 0; done < kPosters;) {
      kdWaitEvent(kSecond / 100);
      done = 0;
      for (const Poster& poster : posters) done += poster.seen == kEach ? 1 : 0;
    }
  });
  KDThread* thread = started.get_future().get();
  std::vector<std::thread> threads;
  for (Poster& poster : posters) {
    threads.emplace_back([&poster, thread] {
      while (poster.posted < kEach) {
        ASSERT_EQ(Post(kStop + ++poster.posted, &poster, thread), 0);
      }
    });
  }
  threads.emplace_back([this, thread] {
    for (int i = 0; i < kEach; ++i) {
      Post(kWork, &a, thread);
      while (kdForgetUserPtr(thread, &a) != 0) std::this_thread::yield();
    }
  });
  for (std::thread& each : threads) each.join();
  loop.join();
  EXPECT_TRUE(in_order);
}

TEST_F(Threads, TakingBackIsRefusedWhileACallbackRunsElsewhere) {
  static std::promise<void>* entered;
  static std::shared_future<void>* leave;
  std::promise<void> has_entered;
  std::promise<void> may_leave;
  std::shared_future<void> leaving = may_leave.get_future().share();
  entered = &has_entered;
  leave = &leaving;
  std::promise<KDThread*> started;
  std::thread loop([&] {
    // Installed for all user pointers: what counts is the event's.
    kdInstallCallback(
        [](const KDEvent*) {
          entered->set_value();
          leave->wait();
        },
        kWork, nullptr);
    started.set_value(kdThreadSelf());
    Loop();
  });
  KDThread* thread = started.get_future().get();
  Post(kWork, &a, thread);
  has_entered.get_future().get();
  Post(kWork, &a, thread);  // would break the promise if it were delivered
  Post(kWork, &b, thread);
  EXPECT_EQ(kdForgetUserPtr(thread, &a), -1);
  EXPECT_EQ(kdGetError(), KD_EBUSY);
  EXPECT_EQ(kdForgetUserPtr(thread, &b), 0) << "another user pointer is no reason to be busy";
  may_leave.set_value();
  while (kdForgetUserPtr(thread, &a) != 0) std::this_thread::yield();
  Post(kStop, nullptr, thread);
  loop.join();
}

TEST_F(Threads, WithoutDescriptorsAWaitStillSeesPostsAndItsLimit) {
  rlimit limit{};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
  const rlimit none{0, limit.rlim_max};
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
  std::promise<KDThread*> started;
  std::thread loop([&] {
    EXPECT_EQ(kdWaitEvent(kSecond / 20), nullptr);
    started.set_value(kdThreadSelf());
    Loop();
  });
  KDThread* thread = started.get_future().get();
  Post(kStop, nullptr, thread);
  loop.join();
  EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
}

// After a taking back that was not refused the object may go: TSan and ASan watch the counter.
TEST_F(Threads, WhatWasTakenBackIsNeverTouchedAgain) {
  std::promise<KDThread*> started;
  std::thread loop([&] {
    kdInstallCallback([](const KDEvent* event) { ++*static_cast<int*>(event->userptr); }, kWork,
                      nullptr);
    started.set_value(kdThreadSelf());
    Loop();
  });
  KDThread* thread = started.get_future().get();
  for (int i = 0; i < 2000; ++i) {
    auto counter = std::make_unique<int>(0);
    for (int n = 0; n < 3; ++n) ASSERT_EQ(Post(kWork, counter.get(), thread), 0);
    while (kdForgetUserPtr(thread, counter.get()) != 0) std::this_thread::yield();
    EXPECT_LE(*counter, 3);
  }
  Post(kStop, nullptr, thread);
  loop.join();
}

TEST_F(Threads, PostingToThreadsThatEndIsSafe) {
  for (int i = 0; i < 200; ++i) {
    std::promise<KDThread*> started;
    std::thread ends([&] {
      started.set_value(kdThreadSelf());
      kdPumpEvents();
    });
    KDThread* thread = started.get_future().get();
    while (Post(kWork, &a, thread) == 0) {
    }
    EXPECT_EQ(kdThreadEnded(thread), 1);
    ends.join();
  }
}

}  // namespace
}  // namespace kdtest
