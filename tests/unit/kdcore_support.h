// What the tests of the event library share.
#pragma once

#include <gtest/gtest.h>

#include <vector>

#include "VorelKDCore/VorelKDCore.h"

inline constexpr KDust kSecond = 1'000'000'000;
inline constexpr KDint kOne = KD_EVENT_USER + 1;
inline constexpr KDint kTwo = KD_EVENT_USER + 2;

class KdTest : public testing::Test {
 protected:
  void TearDown() override {
    vorelkd::SetClock(nullptr);
    delivered.clear();
    for (int* user : {&a, &b, static_cast<int*>(nullptr)}) kdForgetUserPtr(kdThreadSelf(), user);
  }
  static KDint Post(KDint type, void* userptr, KDThread* thread = kdThreadSelf()) {
    KDEvent* event = kdCreateEvent();
    if (event != nullptr) *event = KDEvent{0, type, userptr};
    return kdPostThreadEvent(event, thread);
  }
  static void Record(const KDEvent* event) { delivered.push_back(*event); }

  static inline thread_local std::vector<KDEvent> delivered;
  int a = 0;  // their addresses are user pointers
  int b = 0;
};
