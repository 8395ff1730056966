#include "kdcore_support.h"

namespace kdtest {
namespace {

constexpr KDint kOne = KD_EVENT_USER + 1;
constexpr KDint kTwo = KD_EVENT_USER + 2;

class Events : public KdTest {};

TEST_F(Events, TheMostSpecialCallbackWins) {
  static std::vector<int> hits;
  hits.clear();
  kdInstallCallback([](const KDEvent*) { hits.push_back(1); }, kOne, &a);
  kdInstallCallback([](const KDEvent*) { hits.push_back(2); }, kOne, nullptr);
  kdInstallCallback([](const KDEvent*) { hits.push_back(3); }, 0, nullptr);
  Post(kOne, &a);
  Post(kOne, &b);
  Post(kTwo, &a);
  Post(kTwo, nullptr);
  kdPumpEvents();
  EXPECT_EQ(hits, (std::vector<int>{1, 2, 3, 3}));

  // Installing again replaces; null takes away what it names and nothing else.
  hits.clear();
  kdInstallCallback([](const KDEvent*) { hits.push_back(4); }, kOne, &a);
  kdInstallCallback(nullptr, kOne, nullptr);
  EXPECT_EQ(kdInstallCallback(nullptr, kTwo, &b), 0);
  Post(kOne, &a);
  Post(kOne, &b);
  kdPumpEvents();
  EXPECT_EQ(hits, (std::vector<int>{4, 3}));
}

TEST_F(Events, KeepTheirOrderAndContent) {
  kdInstallCallback(Record, 0, nullptr);
  Post(kTwo, &b);
  clock.Advance(5);
  Post(kOne, &a);
  kdPumpEvents();
  ASSERT_EQ(Delivered().size(), 2U);
  EXPECT_EQ(Delivered()[0].type, kTwo);
  EXPECT_EQ(Delivered()[0].userptr, &b);
  EXPECT_EQ(Delivered()[1].timestamp - Delivered()[0].timestamp, 5);
}

TEST_F(Events, APumpEndsWhenCallbacksPostForEver) {
  static int runs;
  runs = 0;
  kdInstallCallback(
      [](const KDEvent* event) {
        ++runs;
        Post(kOne, event->userptr);
        kdSetTimer(1, KD_TIMER_ONESHOT, event->userptr);
      },
      kOne, &a);
  Post(kOne, &a);
  kdPumpEvents();
  EXPECT_EQ(runs, 1);
  EXPECT_EQ(kdWaitEvent(0), nullptr);
  EXPECT_EQ(runs, 2);
}

TEST_F(Events, WaitHandsOutWhatNobodyTakes) {
  kdInstallCallback(Record, kOne, &a);
  Post(kOne, &a);
  Post(kTwo, &b);
  Post(kOne, &a);
  const KDEvent* event = kdWaitEvent(0);
  ASSERT_NE(event, nullptr);
  EXPECT_EQ(event->type, kTwo);
  EXPECT_EQ(event->userptr, &b);
  EXPECT_EQ(Delivered().size(), 1U);
  EXPECT_EQ(kdWaitEvent(0), nullptr);
  EXPECT_EQ(kdGetError(), KD_EAGAIN);
  EXPECT_EQ(Delivered().size(), 2U);

  Post(kTwo, &b);
  kdPumpEvents();  // drops it
  EXPECT_EQ(kdWaitEvent(0), nullptr);
}

TEST_F(Events, ACallbackMayPumpAndRemoveItself) {
  kdInstallCallback(
      [](const KDEvent* event) {
        kdInstallCallback(nullptr, kOne, event->userptr);
        kdPumpEvents();  // delivers what is behind
        Record(event);
      },
      kOne, &a);
  kdInstallCallback(Record, kTwo, &a);
  Post(kOne, &a);
  Post(kTwo, &a);
  Post(kOne, &a);
  kdPumpEvents();
  EXPECT_EQ(DeliveredTypes(), (std::vector<KDint>{kTwo, kOne}));
}

TEST_F(Events, ForgetTakesBackOneUserPointerAndNothingElse) {
  kdInstallCallback(Record, 0, nullptr);
  kdInstallCallback(Record, kOne, &a);
  Post(kOne, &a);
  Post(kTwo, &b);
  Post(kTwo, &a);
  kdSetTimer(1, KD_TIMER_ONESHOT, &a);
  KDTimer* cancelled = kdSetTimer(1, KD_TIMER_PERIODIC_AVERAGE, &a);
  kdSetTimer(1, KD_TIMER_ONESHOT, &b);
  EXPECT_EQ(kdForgetUserPtr(kdThreadSelf(), &a), 0);
  EXPECT_EQ(kdCancelTimer(cancelled), -1);
  clock.Advance(kSecond);
  kdPumpEvents();
  EXPECT_EQ(DeliveredTypes(), (std::vector<KDint>{kTwo, KD_EVENT_TIMER_FIRED}));
  EXPECT_EQ(kdForgetUserPtr(kdThreadSelf(), &a), 0);
}

TEST_F(Events, ACallbackForgetsItsOwnUserPointer) {
  static KDint inside;
  int shared = 0;
  kdInstallCallback(
      [](const KDEvent* event) {
        Post(kOne, event->userptr);
        inside = kdForgetUserPtr(kdThreadSelf(), event->userptr);
      },
      0, nullptr);
  Post(kOne, &shared);
  inside = -2;
  kdPumpEvents();
  EXPECT_EQ(inside, 0);
  inside = -2;
  kdPumpEvents();
  EXPECT_EQ(inside, -2) << "an event outlived the taking back";
}

TEST_F(Events, WrongArgumentsAreRefused) {
  EXPECT_EQ(kdPostThreadEvent(nullptr, kdThreadSelf()), -1);
  EXPECT_EQ(kdGetError(), KD_EINVAL);
  kdSetError(0);
  EXPECT_EQ(kdPostThreadEvent(kdCreateEvent(), nullptr), -1);  // and frees it: the leak check sees
  EXPECT_EQ(kdGetError(), KD_EINVAL);
  EXPECT_EQ(kdPostEvent(nullptr), -1);
  kdFreeEvent(kdCreateEvent());
}

}  // namespace
}  // namespace kdtest
