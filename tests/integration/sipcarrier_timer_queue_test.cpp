// The timer queue against a model: an ordered set of what is due.
#include <gtest/gtest.h>

#include <memory>
#include <random>
#include <set>
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
  std::vector<std::unique_ptr<Timer>> timers;
  for (int i = 0; i < 300; ++i) {
    timers.push_back(std::make_unique<Timer>(recorder));
    queue.Attach(*timers.back());
  }
  using Key = std::pair<Clock::time_point, std::uint64_t>;
  std::set<std::pair<Key, Timer*>> model;
  const auto forget = [&](Timer* timer) {
    std::erase_if(model, [&](const auto& entry) { return entry.second == timer; });
  };
  std::uint64_t order = 0;
  Clock::time_point now{};
  for (int step = 0; step < 20000; ++step) {
    auto& slot = timers[below(300)];
    const unsigned choice = below(100);
    if (choice < 60) {
      const auto due = now + std::chrono::milliseconds(below(50));
      forget(slot.get());
      model.insert({{due, order++}, slot.get()});
      queue.Set(*slot, due);
    } else if (choice < 75) {
      forget(slot.get());
      queue.Cancel(*slot);
    } else if (choice < 80) {
      forget(slot.get());
      slot = std::make_unique<Timer>(recorder);  // one that is destroyed while set
      queue.Attach(*slot);
    } else {
      now += std::chrono::milliseconds(below(4));
      recorder.fired.clear();
      queue.Run(now);
      std::vector<Timer*> expected;
      while (!model.empty() && model.begin()->first.first <= now) {
        expected.push_back(model.begin()->second);
        model.erase(model.begin());
      }
      ASSERT_EQ(recorder.fired, expected);
    }
    ASSERT_EQ(queue.NextDue(),
              model.empty() ? Clock::time_point::max() : model.begin()->first.first);
  }
}

}  // namespace
}  // namespace sipcarrier
