// The timer queue against a model: an ordered set of what is due.
#include <gtest/gtest.h>

#include <memory>
#include <random>
#include <set>
#include <tuple>
#include <vector>

#include "Sipcarrier/timer_queue.h"

namespace sipcarrier {
namespace {

struct Recorder final : TimerSink {
  void OnTimer(Timer& timer) noexcept override { fired.push_back(&timer); }
  std::vector<Timer*> fired;
};

TEST(TimerQueue, FiresWhatIsDueInOrderWhateverIsMovedOrCancelled) {
  std::mt19937 random(4711);
  const auto below = [&](unsigned n) { return random() % n; };
  TimerQueue queue;
  Recorder recorder;
  std::vector<std::unique_ptr<Timer>> timers(300);
  std::set<std::tuple<Clock::time_point, int, Timer*>> model;
  Clock::time_point now{};
  for (int step = 0; step < 20000; ++step) {
    auto& slot = timers[below(300)];
    const unsigned choice = below(100);
    if (choice < 20) {
      now += std::chrono::milliseconds(below(4));
      recorder.fired.clear();
      queue.Run(now);
      std::vector<Timer*> expected;
      for (; !model.empty() && std::get<0>(*model.begin()) <= now; model.erase(model.begin())) {
        expected.push_back(std::get<2>(*model.begin()));
      }
      ASSERT_EQ(recorder.fired, expected);
    } else {
      std::erase_if(model, [&](const auto& entry) { return std::get<2>(entry) == slot.get(); });
      if (slot == nullptr || choice < 25) {
        slot = std::make_unique<Timer>(recorder);  // one that is destroyed while set
      } else if (choice < 40) {
        queue.Cancel(*slot);
      } else {
        const auto due = now + std::chrono::milliseconds(below(50));
        model.insert({due, step, slot.get()});
        queue.Set(*slot, due);
      }
    }
    ASSERT_EQ(queue.NextDue(), model.empty() ? Clock::time_point::max() : std::get<0>(*model.begin()));
  }
}

}  // namespace
}  // namespace sipcarrier
