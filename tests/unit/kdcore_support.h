// What the tests of the event library share: a clock that is moved by hand and a record of
// deliveries.
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <vector>

#include "VorelKDCore/VorelKDCore.h"

namespace kdtest {

inline constexpr KDust kSecond = 1'000'000'000;

class FakeClock final : public vorelkd::Clock {
 public:
  [[nodiscard]] KDust Now() const noexcept override { return now_.load(); }
  void Set(KDust now) { now_ = now; }
  void Advance(KDust span) { now_ += span; }

 private:
  std::atomic<KDust> now_{kSecond};
};

// The clock is in the test's hand for a whole test.
class KdTest : public testing::Test {
 protected:
  void SetUp() override {
    vorelkd::SetClock(&clock);
    Delivered().clear();
  }
  void TearDown() override {
    vorelkd::SetClock(nullptr);
    for (int* user : {&a, &b, static_cast<int*>(nullptr)}) kdForgetUserPtr(kdThreadSelf(), user);
  }

  // The calling thread's deliveries, in order.
  static std::vector<KDEvent>& Delivered() {
    thread_local std::vector<KDEvent> delivered;
    return delivered;
  }
  static void Record(const KDEvent* event) { Delivered().push_back(*event); }

  static std::vector<KDint> DeliveredTypes() {
    std::vector<KDint> types;
    for (const KDEvent& event : Delivered()) types.push_back(event.type);
    Delivered().clear();
    return types;
  }

  static KDint Post(KDint type, void* userptr, KDThread* thread = kdThreadSelf()) {
    KDEvent* event = kdCreateEvent();
    event->type = type;
    event->userptr = userptr;
    return kdPostThreadEvent(event, thread);
  }

  // Deliveries of one pump.
  static std::size_t Pumped() {
    Delivered().clear();
    kdPumpEvents();
    return Delivered().size();
  }

  FakeClock clock;
  int a = 0;  // their addresses are user pointers
  int b = 0;
};

}  // namespace kdtest
