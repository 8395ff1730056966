// One thread's events and timers on a clock in the test's hand, and the text calls.
#include <limits>

#include "kdcore_support.h"

namespace {

constexpr KDust kMax = std::numeric_limits<KDust>::max();

class Events : public KdTest, public vorelkd::Clock {
 protected:
  void SetUp() override {
    now = 0;
    vorelkd::SetClock(this);
    kdInstallCallback(Record, KD_EVENT_TIMER_FIRED, nullptr);
  }
  [[nodiscard]] KDust Now() const noexcept override { return now; }
  // Moves the clock and pumps; the number of recorded deliveries.
  static std::size_t After(KDust span) {
    now += span;
    delivered.clear();
    kdPumpEvents();
    return delivered.size();
  }
  static inline KDust now;
};

TEST_F(Events, TheMostSpecialCallbackWins) {
  static std::string hits;
  kdInstallCallback([](const KDEvent*) { hits += '1'; }, kOne, &a);
  kdInstallCallback([](const KDEvent*) { hits += '2'; }, kOne, nullptr);
  kdInstallCallback([](const KDEvent*) { hits += '3'; }, 0, nullptr);
  for (const char* expected : {"1233", "4333"}) {
    hits.clear();
    for (int* user : {&a, &b}) Post(kOne, user);
    for (int* user : {&a, &b}) Post(kTwo, user);
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
    now += 2;
    Post(kOne, event->userptr);
    kdSetTimer(1, KD_TIMER_ONESHOT, event->userptr);
  };
  for (const KDint type : {kOne, KD_EVENT_TIMER_FIRED}) kdInstallCallback(endless, type, &a);
  Post(kTwo, &b);  // dropped
  Post(kOne, &a);
  kdPumpEvents();
  EXPECT_EQ(runs, 1);
  Post(kTwo, &b);
  const KDEvent* event = kdWaitEvent(0);
  ASSERT_TRUE(runs == 2 && event != nullptr && event->type == kTwo && event->userptr == &b);
  EXPECT_EQ(kdWaitEvent(0), nullptr);
  EXPECT_TRUE(runs == 4 && kdGetError() == KD_EAGAIN) << runs;  // the event and the first timer
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
  for (int* user : {&a, &b, &a}) Post(kOne, user);
  EXPECT_EQ(After(kSecond), 2U);
  for (const KDEvent& event : delivered) EXPECT_EQ(event.userptr, &b);
  EXPECT_EQ(kdCancelTimer(taken), -1);
}

TEST_F(Events, TimersKeepThePhaseOfTheirMode) {
  constexpr KDust kUnit = 100'000'000'007;
  // Spans, and the firings at their ends: counted from the start, also after a late loop, which
  // loses what it has missed; from the delivery; once.
  // clang-format off
  const std::pair<KDint, std::vector<std::pair<KDust, std::size_t>>> cases[] = {
      {KD_TIMER_PERIODIC_AVERAGE, {{29, 0}, {1, 1}, {37, 1}, {22, 0}, {1, 1}, {3010, 1}, {19, 0}, {1, 1}}},
      {KD_TIMER_PERIODIC_MINIMUM, {{29, 0}, {8, 1}, {29, 0}, {1, 1}}},
      {KD_TIMER_ONESHOT, {{29, 0}, {100, 1}, {100, 0}}}};
  // clang-format on
  for (const auto& [mode, steps] : cases) {
    kdSetTimer(30 * kUnit, mode, &a);
    for (const auto& [span, fired] : steps) EXPECT_EQ(After(span * kUnit), fired) << mode;
    kdForgetUserPtr(kdThreadSelf(), &a);
  }
}

TEST_F(Events, NothingComesAfterACancelAlsoWhatWasDue) {
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

TEST_F(Events, OrderAndTheEndsOfTime) {
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
  for (const KDust interval : {KDust{0}, -kMax}) {
    EXPECT_EQ(kdSetTimer(interval, KD_TIMER_PERIODIC_AVERAGE, &a), nullptr);
  }
  EXPECT_EQ(kdGetError(), KD_EINVAL);
}

// In order, cancelled in any order; a cost that grew with the others' would pass the time limit.
TEST_F(Events, ManyTimersStayCheap) {
  constexpr KDust kCount = 300'000;
  std::vector<KDust> due(kCount);
  std::vector<KDTimer*> timers;
  for (KDust& moment : due) {
    moment = (&moment - due.data()) * 7919 % kCount + 1;
    timers.push_back(kdSetTimer(moment, KD_TIMER_ONESHOT, &moment));
    Post(kOne, &moment);  // nobody takes it
  }
  for (std::size_t i = 0; i < kCount; i += 3) {
    ASSERT_TRUE(kdCancelTimer(timers[i]) + kdForgetUserPtr(kdThreadSelf(), &due[i + 1]) == 0);
    due[i] = due[i + 1] = 0;
  }
  ASSERT_EQ(After(kCount), kCount / 3U);
  KDust last = 0;
  for (const auto& [moment, type, user] : delivered) {
    ASSERT_TRUE(moment == *static_cast<KDust*>(user) && moment > last);
    last = moment;
  }
}

TEST(Text, NumbersSaturateAndCopiesFitOrStayEmpty) {
  EXPECT_EQ(kdStrtol("-2147483649", nullptr, 10), INT32_MIN);
  EXPECT_EQ(kdStrtol("99999999999999999999", nullptr, 10), INT32_MAX);
  EXPECT_EQ(kdGetError(), KD_ERANGE);
  char buf[] = "xxx";
  EXPECT_TRUE(kdStrcpy_s(buf, 4, "abc") == 0 && kdStrcmp(buf, "abc") == 0);
  EXPECT_TRUE(kdStrcpy_s(buf, 4, "abcd") == -1 && kdStrlen(buf) == 0);
}

}  // namespace
