#include <chrono>
#include <limits>

#include "kdcore_support.h"

namespace kdtest {
namespace {

constexpr KDust kDay = 86400 * kSecond;
constexpr KDust kMax = std::numeric_limits<KDust>::max();

class Timers : public KdTest {
 protected:
  void SetUp() override {
    KdTest::SetUp();
    kdInstallCallback(Record, KD_EVENT_TIMER_FIRED, nullptr);
  }
};

TEST_F(Timers, RefuseWhatIsNoInterval) {
  for (const KDust interval : {KDust{0}, KDust{-1}, std::numeric_limits<KDust>::min()}) {
    kdSetError(0);
    EXPECT_EQ(kdSetTimer(interval, KD_TIMER_PERIODIC_AVERAGE, &a), nullptr);
    EXPECT_EQ(kdGetError(), KD_EINVAL);
  }
  EXPECT_EQ(kdSetTimer(1, 0, &a), nullptr);
  EXPECT_EQ(kdCancelTimer(nullptr), -1);
  EXPECT_EQ(kdGetError(), KD_EINVAL);
}

TEST_F(Timers, AnAverageTimerFiresOnTheGridOfItsStart) {
  kdSetTimer(3000 * kSecond, KD_TIMER_PERIODIC_AVERAGE, &a);
  const KDust start = clock.Now();
  std::vector<KDust> at;
  // A loop that comes round every seven seconds, for a day.
  for (KDust late = 0; late <= kDay; late += 7 * kSecond) {
    clock.Set(start + late);
    if (Pumped() == 1) at.push_back(late / kSecond);
  }
  ASSERT_EQ(at.size(), 28U);
  for (std::size_t i = 0; i < at.size(); ++i) {
    const auto due = static_cast<KDust>(i + 1) * 3000;
    EXPECT_GE(at[i], due);
    EXPECT_LT(at[i], due + 7);
  }
}

TEST_F(Timers, ALateLoopGetsOneFiringAndThePhaseStays) {
  kdSetTimer(kDay, KD_TIMER_PERIODIC_AVERAGE, &a);
  clock.Advance(30 * kDay + kDay / 2);
  EXPECT_EQ(Pumped(), 1U);
  EXPECT_EQ(Pumped(), 0U);
  clock.Advance(kDay / 2 - 1);
  EXPECT_EQ(Pumped(), 0U);
  clock.Advance(1);
  EXPECT_EQ(Pumped(), 1U);
  clock.Advance(kDay);  // exactly one period later
  EXPECT_EQ(Pumped(), 1U);
}

TEST_F(Timers, TheOtherModes) {
  KDTimer* once = kdSetTimer(10, KD_TIMER_ONESHOT, &a);
  kdSetTimer(10, KD_TIMER_PERIODIC_MINIMUM, &b);
  clock.Advance(9);
  EXPECT_EQ(Pumped(), 0U);
  clock.Advance(6);  // at 15
  EXPECT_EQ(Pumped(), 2U);
  EXPECT_EQ(kdCancelTimer(once), -1) << "it has ended by itself";
  clock.Advance(9);  // at 24: a minimum timer counts from the delivery
  EXPECT_EQ(Pumped(), 0U);
  clock.Advance(1);
  ASSERT_EQ(Pumped(), 1U);
  EXPECT_EQ(Delivered()[0].userptr, &b);
}

TEST_F(Timers, NothingComesAfterACancelAlsoWhatWasDue) {
  static KDTimer* victim;
  KDTimer* due = kdSetTimer(5, KD_TIMER_PERIODIC_AVERAGE, &a);
  victim = kdSetTimer(7, KD_TIMER_PERIODIC_AVERAGE, &a);
  kdInstallCallback([](const KDEvent*) { EXPECT_EQ(kdCancelTimer(victim), 0); },
                    KD_EVENT_TIMER_FIRED, &b);
  kdSetTimer(6, KD_TIMER_ONESHOT, &b);  // its callback runs before the victim's turn
  clock.Advance(100);
  EXPECT_EQ(kdCancelTimer(due), 0);
  EXPECT_EQ(Pumped(), 0U);
  EXPECT_EQ(kdCancelTimer(due), -1);
  clock.Advance(100);
  EXPECT_EQ(Pumped(), 0U);
}

TEST_F(Timers, ATimerMayEndItselfInItsCallback) {
  static KDTimer* self;
  static int runs;
  runs = 0;
  kdInstallCallback(
      [](const KDEvent*) {
        ++runs;
        EXPECT_EQ(kdCancelTimer(self), 0);
      },
      KD_EVENT_TIMER_FIRED, &a);
  self = kdSetTimer(5, KD_TIMER_PERIODIC_AVERAGE, &a);
  for (int i = 0; i < 3; ++i) {
    clock.Advance(5);
    kdPumpEvents();
  }
  EXPECT_EQ(runs, 1);
}

TEST_F(Timers, FiringsAndEventsComeInTheOrderOfTheirMoments) {
  constexpr KDint kEvent = KD_EVENT_USER;
  kdInstallCallback(Record, kEvent, nullptr);
  const KDust start = clock.Now();
  kdSetTimer(20, KD_TIMER_ONESHOT, &b);
  kdSetTimer(10, KD_TIMER_ONESHOT, &a);
  clock.Set(start + 5);
  Post(kEvent, &a);
  clock.Set(start + 15);
  Post(kEvent, &b);
  clock.Set(start + 20);
  Post(kEvent, nullptr);
  clock.Set(start + 30);
  kdPumpEvents();
  std::vector<KDust> moments;
  for (const KDEvent& event : Delivered()) moments.push_back(event.timestamp - start);
  EXPECT_EQ(moments, (std::vector<KDust>{5, 10, 15, 20, 20}));
  EXPECT_EQ(DeliveredTypes().back(), KD_EVENT_TIMER_FIRED)
      << "at the same moment the event is first";
}

TEST_F(Timers, TheEndOfTheClockIsNeverPassed) {
  kdSetTimer(kMax, KD_TIMER_PERIODIC_AVERAGE, &a);
  kdSetTimer(kMax / 2 + 1, KD_TIMER_PERIODIC_AVERAGE, &b);  // its second firing is beyond
  clock.Set(kMax - 1);
  ASSERT_EQ(Pumped(), 1U);
  EXPECT_EQ(Delivered()[0].userptr, &b);
  clock.Set(kMax);
  EXPECT_EQ(Pumped(), 0U);
}

TEST_F(Timers, ManyTimersFireInOrderAndCancelInAnyOrder) {
  constexpr std::size_t kCount = 10'000;
  std::vector<int> users(kCount);
  std::vector<KDTimer*> timers(kCount);
  const KDust start = clock.Now();
  const auto interval = [](std::size_t i) { return static_cast<KDust>(i * 7919 % kCount) + 1; };
  for (std::size_t i = 0; i < kCount; ++i) {
    timers[i] = kdSetTimer(interval(i), KD_TIMER_ONESHOT, &users[i]);
    ASSERT_NE(timers[i], nullptr);
  }
  for (std::size_t i = 0; i < kCount; i += 3) ASSERT_EQ(kdCancelTimer(timers[i]), 0);
  for (std::size_t i = 1; i < kCount; i += 3)
    ASSERT_EQ(kdForgetUserPtr(kdThreadSelf(), &users[i]), 0);
  clock.Advance(kCount);
  EXPECT_EQ(Pumped(), kCount / 3);
  KDust last = start;
  for (const KDEvent& event : Delivered()) {
    const auto i = static_cast<std::size_t>(static_cast<int*>(event.userptr) - users.data());
    EXPECT_EQ(i % 3, 2U);
    EXPECT_EQ(event.timestamp, start + interval(i));
    EXPECT_GT(event.timestamp, last);
    last = event.timestamp;
  }
}

// A cost that grew with the timers of the thread would take minutes here.
TEST_F(Timers, TheCostOfOneDoesNotGrowWithTheOthers) {
  constexpr std::size_t kCount = 200'000;
  std::vector<int> users(kCount);
  const auto begin = std::chrono::steady_clock::now();
  for (std::size_t i = 0; i < kCount; ++i) {
    kdInstallCallback(Record, KD_EVENT_USER, &users[i]);
    Post(KD_EVENT_USER, &users[i]);
    kdSetTimer(static_cast<KDust>(kCount - i), KD_TIMER_PERIODIC_AVERAGE, &users[i]);
  }
  for (int* user = &users.back(); user != users.data(); --user) {
    ASSERT_EQ(kdForgetUserPtr(kdThreadSelf(), user), 0);
  }
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(20));
  clock.Advance(kCount);
  EXPECT_EQ(Pumped(), 2U);
  EXPECT_EQ(kdForgetUserPtr(kdThreadSelf(), users.data()), 0);
}

}  // namespace
}  // namespace kdtest
