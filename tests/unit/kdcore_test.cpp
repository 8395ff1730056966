// One thread's events and timers on a clock in the test's hand, and the text calls.
#include <chrono>
#include <limits>

#include "kdcore_support.h"

namespace {

constexpr KDust kMax = std::numeric_limits<KDust>::max();

class Events : public KdTest, public vorelkd::Clock {
 protected:
  void SetUp() override { vorelkd::SetClock(this); }
  [[nodiscard]] KDust Now() const noexcept override { return now; }
  // Moves the clock and pumps; the number of recorded deliveries.
  std::size_t After(KDust span) {
    now += span;
    delivered.clear();
    kdPumpEvents();
    return delivered.size();
  }
  KDust now = 0;
};
class Timers : public Events {
  void SetUp() override {
    Events::SetUp();
    kdInstallCallback(Record, KD_EVENT_TIMER_FIRED, nullptr);
  }
};

TEST_F(Events, TheMostSpecialCallbackWins) {
  static std::string hits;
  kdInstallCallback([](const KDEvent*) { hits += '1'; }, kOne, &a);
  kdInstallCallback([](const KDEvent*) { hits += '2'; }, kOne, nullptr);
  kdInstallCallback([](const KDEvent*) { hits += '3'; }, 0, nullptr);
  for (const char* expected : {"1233", "4333"}) {
    hits.clear();
    for (int* user : {&a, &b}) Post(kOne, user);
    for (int* user : {&a, static_cast<int*>(nullptr)}) Post(kTwo, user);
    kdPumpEvents();
    EXPECT_EQ(hits, expected);
    kdInstallCallback([](const KDEvent*) { hits += '4'; }, kOne, &a);
    kdInstallCallback(nullptr, kOne, nullptr);
  }
}

TEST_F(Events, PumpsEndAndWaitsHandOutWhatNobodyTakes) {
  static int runs = 0;
  const auto endless = [](const KDEvent* event) {
    ++runs;
    Post(kOne, event->userptr);
    kdSetTimer(1, KD_TIMER_ONESHOT, event->userptr);
  };
  kdInstallCallback(endless, kOne, &a);
  Post(kTwo, &b);  // dropped
  Post(kOne, &a);
  kdPumpEvents();
  EXPECT_EQ(runs, 1);
  Post(kTwo, &b);
  const KDEvent* event = kdWaitEvent(0);
  ASSERT_TRUE(event != nullptr && event->type == kTwo && event->userptr == &b);
  EXPECT_EQ(runs, 2);
  EXPECT_EQ(kdWaitEvent(0), nullptr);
  EXPECT_EQ(kdGetError(), KD_EAGAIN);
  EXPECT_EQ(runs, 3);
}

TEST_F(Events, ForgetTakesBackOneUserPointerAndNothingElse) {
  kdInstallCallback(Record, 0, nullptr);
  const auto own = [](const KDEvent* event) {  // a callback may take itself back, and pump
    Post(kOne, event->userptr);
    EXPECT_EQ(kdForgetUserPtr(kdThreadSelf(), event->userptr), 0);
    kdPumpEvents();
  };
  kdInstallCallback(own, kOne, &a);
  kdSetTimer(1, KD_TIMER_ONESHOT, &b);
  KDTimer* taken = kdSetTimer(1, KD_TIMER_PERIODIC_AVERAGE, &a);
  Post(kOne, &a);
  Post(kTwo, &b);
  Post(kTwo, &a);
  EXPECT_EQ(After(kSecond), 2U);
  for (const KDEvent& event : delivered) EXPECT_EQ(event.userptr, &b);
  EXPECT_EQ(kdCancelTimer(taken), -1);
}

TEST_F(Timers, KeepThePhaseOfTheirStart) {
  constexpr KDust kPeriod = 3000 * kSecond;
  kdSetTimer(kPeriod, KD_TIMER_PERIODIC_AVERAGE, &a);
  int fired = 0;
  while (now < 86400 * kSecond) {  // a loop that comes round every seven seconds, for a day
    if (After(7 * kSecond) == 0) continue;
    ++fired;
    EXPECT_LT(now - fired * kPeriod, 7 * kSecond);
  }
  EXPECT_EQ(fired, 28);
  now = 1000 * kPeriod + kPeriod / 3;  // many periods late: one firing
  EXPECT_EQ(After(0), 1U);
  EXPECT_EQ(After(kPeriod / 3 * 2 - 1), 0U);
  EXPECT_EQ(After(1), 1U);
  kdForgetUserPtr(kdThreadSelf(), &a);
  kdSetTimer(10, KD_TIMER_PERIODIC_MINIMUM, &b);  // counts from the delivery
  EXPECT_EQ(After(15), 1U);
  EXPECT_EQ(After(9), 0U);
  EXPECT_EQ(After(1), 1U);
}

TEST_F(Timers, NothingComesAfterACancelAlsoWhatWasDue) {
  static KDTimer* victim;
  KDTimer* due = kdSetTimer(5, KD_TIMER_PERIODIC_AVERAGE, &a);
  victim = kdSetTimer(7, KD_TIMER_PERIODIC_AVERAGE, &a);
  const auto cancel = [](const KDEvent*) { EXPECT_EQ(kdCancelTimer(victim), 0); };
  kdInstallCallback(cancel, KD_EVENT_TIMER_FIRED, &b);
  kdSetTimer(6, KD_TIMER_ONESHOT, &b);  // its callback runs before the victim's turn
  now = 100;
  EXPECT_EQ(kdCancelTimer(due), 0);
  EXPECT_EQ(After(0), 0U);
  EXPECT_EQ(kdCancelTimer(due), -1);
  victim = kdSetTimer(5, KD_TIMER_PERIODIC_AVERAGE, &b);  // ends itself in its own callback
  for (int i = 0; i < 3; ++i) EXPECT_EQ(After(5), 0U);
}

TEST_F(Timers, OrderAndTheEndsOfTime) {
  kdInstallCallback(Record, kOne, nullptr);
  kdSetTimer(20, KD_TIMER_ONESHOT, &b);
  kdSetTimer(10, KD_TIMER_ONESHOT, &a);
  for (now = 5; now <= 20; now += 5) Post(kOne, nullptr);
  After(0);
  std::string moments;
  for (const KDEvent& event : delivered) moments += std::to_string(event.timestamp) + ' ';
  EXPECT_EQ(moments, "5 10 10 15 20 20 ");
  EXPECT_EQ(delivered.back().userptr, &b) << "at the same moment the event is first";

  kdSetTimer(kMax, KD_TIMER_PERIODIC_AVERAGE, &a);
  kdSetTimer(kMax / 2 + 1, KD_TIMER_PERIODIC_AVERAGE, &b);  // its second firing is beyond
  EXPECT_EQ(After(kMax - 1 - now), 1U);
  EXPECT_EQ(After(1), 0U);
  EXPECT_EQ(kdSetTimer(-kMax, KD_TIMER_PERIODIC_AVERAGE, &a), nullptr);
  kdSetError(0);
  EXPECT_EQ(kdSetTimer(0, KD_TIMER_PERIODIC_AVERAGE, &a), nullptr);
  EXPECT_EQ(kdGetError(), KD_EINVAL);
}

// In order, cancelled in any order; a cost that grew with the others' would take minutes here.
TEST_F(Timers, ManyOfThemStayCheap) {
  constexpr std::size_t kCount = 150'000;
  std::vector<int> users(kCount);
  std::vector<KDTimer*> timers(kCount);
  const auto begin = std::chrono::steady_clock::now();
  const auto interval = [](std::size_t i) { return static_cast<KDust>(i * 7919 % kCount) + 1; };
  for (std::size_t i = 0; i < kCount; ++i) {
    timers[i] = kdSetTimer(interval(i), KD_TIMER_ONESHOT, &users[i]);
    Post(kOne, &users[i]);  // nobody takes it
  }
  for (std::size_t i = 0; i < kCount; i += 3) {
    ASSERT_EQ(kdCancelTimer(timers[i]), 0);
    ASSERT_EQ(kdForgetUserPtr(kdThreadSelf(), &users[i + 1]), 0);
  }
  ASSERT_EQ(After(kCount), kCount / 3);
  for (std::size_t n = 0; n < delivered.size(); ++n) {
    const auto i = static_cast<std::size_t>(static_cast<int*>(delivered[n].userptr) - users.data());
    ASSERT_TRUE(i % 3 == 2 && delivered[n].timestamp == interval(i));
    ASSERT_TRUE(n == 0 || delivered[n].timestamp > delivered[n - 1].timestamp);
  }
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(20));
}

TEST(Text, NumbersSaturateAndCopiesFitOrStayEmpty) {
  EXPECT_EQ(kdStrtol(" 2147483647;", nullptr, 10), INT32_MAX);
  EXPECT_EQ(kdStrtol("-2147483649", nullptr, 10), INT32_MIN);
  EXPECT_EQ(kdStrtol("99999999999999999999", nullptr, 10), INT32_MAX);
  EXPECT_EQ(kdGetError(), KD_ERANGE);
  char buf[] = "xxx";
  EXPECT_TRUE(kdStrcpy_s(buf, 4, "abc") == 0 && kdStrcmp(buf, "abc") == 0);
  EXPECT_TRUE(kdStrcpy_s(buf, 4, "abcd") == -1 && kdStrlen(buf) == 0);
  EXPECT_EQ(kdStrcpy_s(buf, 0, ""), -1);
}

}  // namespace
