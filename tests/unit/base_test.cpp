// What all platform libraries share: timer heap, lists, call gate, random bytes, text.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cstring>
#include <memory>
#include <random>
#include <set>
#include <thread>
#include <tuple>
#include <vector>

#include "base/call_gate.h"
#include "base/clock.h"
#include "base/intrusive_list.h"
#include "base/mutex.h"
#include "base/random.h"
#include "base/text.h"
#include "base/timer_heap.h"

namespace base {
namespace {

using namespace std::chrono_literals;

// --- timers ----------------------------------------------------------------------------------------------------------

struct TestTimer : TimerNode<int> {};

TEST(TimerHeap, GivesWhatIsDueInTheOrderOfTheModelWhateverIsMovedOrCancelled) {
  std::mt19937 random(4711);
  const auto below = [&random](unsigned n) { return static_cast<int>(random() % n); };
  std::array<TestTimer, 200> timers;
  TimerHeap<TestTimer, int> heap;
  std::set<std::tuple<int, int, TestTimer*>> model;  // due, step, timer
  int now = 0;
  for (int step = 0; step < 30000; ++step) {
    TestTimer& timer = timers[static_cast<std::size_t>(below(200))];
    const int choice = below(100);
    if (choice < 15) {
      now += below(6);
      const std::uint64_t mark = heap.Mark();
      for (; !model.empty() && std::get<0>(*model.begin()) <= now; model.erase(model.begin())) {
        ASSERT_EQ(heap.TakeDue(now, mark), std::get<2>(*model.begin()));
      }
      ASSERT_EQ(heap.TakeDue(now, mark), nullptr);
    } else {
      std::erase_if(model, [&](const auto& entry) { return std::get<2>(entry) == &timer; });
      if (choice < 40) {
        heap.Cancel(timer);
      } else {
        const int due = now + below(40);
        heap.Set(timer, due);
        model.insert({due, step, &timer});
      }
    }
    ASSERT_EQ(heap.Top(), model.empty() ? nullptr : std::get<2>(*model.begin()));
    ASSERT_EQ(timer.set(),
              std::any_of(model.begin(), model.end(), [&](const auto& entry) { return std::get<2>(entry) == &timer; }));
  }
}

TEST(TimerHeap, WhatIsSetBehindTheMarkWaits) {
  TestTimer a;
  TestTimer b;
  TimerHeap<TestTimer, int> heap;
  heap.Set(a, 1);
  const std::uint64_t mark = heap.Mark();
  EXPECT_EQ(heap.TakeDue(5, mark), &a);
  heap.Set(b, 0);
  EXPECT_EQ(heap.TakeDue(5, mark), nullptr);
  EXPECT_EQ(heap.TakeDue(5, heap.Mark()), &b);
  EXPECT_FALSE(a.set() || b.set());
}

// --- lists -----------------------------------------------------------------------------------------------------------

struct TagA;
struct TagB;
struct Item : ListHook<TagA>, ListHook<TagB> {
  explicit Item(int n) : number(n) {}
  int number;
};

template <class List>
std::vector<int> Numbers(List& list) {
  std::vector<int> numbers;
  list.ForFirst(100, [&numbers](const Item& item) { numbers.push_back(item.number); });
  return numbers;
}

TEST(IntrusiveList, AnElementIsInOneListOfEachTagAndLeavesWithItsEnd) {
  IntrusiveList<Item, TagA> a;
  IntrusiveList<Item, TagA> other;
  IntrusiveList<Item, TagB> b;
  Item one(1);
  Item two(2);
  auto three = std::make_unique<Item>(3);
  for (Item* item : {&one, &two, three.get()}) {
    a.PushBack(*item);
    b.PushFront(*item);
  }
  EXPECT_EQ(Numbers(a), (std::vector{1, 2, 3}));
  EXPECT_EQ(Numbers(b), (std::vector{3, 2, 1}));
  a.PushFront(one);  // where it is already
  a.PushBack(two);
  EXPECT_EQ(Numbers(a), (std::vector{1, 3, 2}));
  other.PushBack(two);
  other.Splice(a);
  EXPECT_TRUE(a.empty());
  EXPECT_EQ(Numbers(other), (std::vector{2, 1, 3}));
  three.reset();
  EXPECT_EQ(Numbers(other), (std::vector{2, 1}));
  EXPECT_EQ(Numbers(b), (std::vector{2, 1}));
  EXPECT_EQ(other.PopFront(), &two);
  EXPECT_EQ(b.Front(), &two);
}

// --- locks -----------------------------------------------------------------------------------------------------------

constinit Mutex g_made_at_compile_time;

TEST(CondVar, WaitsForADeadlineOfEitherClockAndIsWoken) {
  const MutexLock lock(g_made_at_compile_time);
  CondVar changed;
  const auto begin = Clock::now();
  EXPECT_FALSE(changed.WaitUntil(g_made_at_compile_time, std::chrono::steady_clock::now() + 10ms));
  EXPECT_FALSE(changed.WaitUntil(g_made_at_compile_time, Clock::now() + 10ms));
  EXPECT_GE(Clock::now() - begin, 20ms);
  bool woken = false;
  std::thread waker([&] {
    const MutexLock inner(g_made_at_compile_time);
    woken = true;
    changed.NotifyAll();
  });
  while (!woken && changed.WaitUntil(g_made_at_compile_time, Clock::time_point::max())) {
  }
  waker.join();
}

// One thread calls whoever is in the table; the others take callees out, free them at once, and put in new ones.
TEST(CallGate, NoCalleeIsFreedWhileItIsCalled) {
  struct Callee {
    std::atomic<bool> alive{true};
    ~Callee() { alive = false; }
  };
  struct Table {
    Mutex mutex;
    std::array<Callee*, 3> callees TOLVANE_GUARDED_BY(mutex){};
    CallGate<const Callee*> gate;
  } table;
  std::atomic<bool> stop{false};
  std::atomic<int> calls{0};
  std::thread caller([&] {
    for (std::size_t i = 0; !stop; i = (i + 1) % 3) {
      Callee* callee = nullptr;
      {
        const MutexLock lock(table.mutex);
        callee = table.callees[i];
        table.gate.Enter(table.mutex, callee);
      }
      if (callee != nullptr) {
        std::this_thread::yield();
        EXPECT_TRUE(callee->alive);
        ++calls;
        // From within the call the callee takes itself out, and does not wait for itself.
        if (calls % 7 == 0) {
          const MutexLock lock(table.mutex);
          table.gate.AwaitEnd(table.mutex, [callee](const Callee* called) { return called == callee; });
        }
      }
      const MutexLock lock(table.mutex);
      table.gate.Leave(table.mutex);
    }
  });
  std::vector<std::thread> owners;
  for (std::size_t i = 0; i < 3; ++i) {
    owners.emplace_back([&table, i] {
      for (int round = 0; round < 2000; ++round) {
        auto callee = std::make_unique<Callee>();
        {
          const MutexLock lock(table.mutex);
          table.callees[i] = callee.get();
        }
        std::this_thread::yield();
        const MutexLock lock(table.mutex);
        table.callees[i] = nullptr;
        table.gate.AwaitEnd(table.mutex, [&callee](const Callee* called) { return called == callee.get(); });
        callee.reset();
      }
    });
  }
  for (std::thread& owner : owners) owner.join();
  stop = true;
  caller.join();
  EXPECT_GT(calls, 0);
}

TEST(CallGate, WaitsForTheCallThatIsMeantAndForNoOther) {
  Mutex mutex;
  CallGate<int> gate;
  std::atomic<bool> over{false};
  std::thread caller([&] {
    {
      const MutexLock lock(mutex);
      gate.Enter(mutex, 1);
    }
    std::this_thread::sleep_for(50ms);
    over = true;
    MutexLock lock(mutex);
    gate.Leave(mutex);
  });
  MutexLock lock(mutex);
  while (!gate.busy(mutex)) {
    lock.Unlock();
    std::this_thread::yield();
    lock.Lock();
  }
  gate.AwaitEnd(mutex, [](int who) { return who == 2; });
  EXPECT_FALSE(over);
  gate.AwaitEnd(mutex, [](int who) { return who == 1; });
  EXPECT_TRUE(over);
  lock.Unlock();
  caller.join();
}

// --- random bytes ----------------------------------------------------------------------------------------------------

using Draw = std::array<unsigned char, 16>;

TEST(Random, NoDrawRepeatsAcrossThreadsAndSizes) {
  constexpr int kThreads = 4;
  constexpr int kDraws = 2000;
  std::vector<std::vector<Draw>> drawn(kThreads);
  std::vector<std::thread> threads;
  for (auto& draws : drawn) {
    threads.emplace_back([&draws] {
      for (int i = 0; i < kDraws; ++i) {
        // Sizes that do not divide the pool, and one above it, so that every kind of refill comes.
        std::vector<unsigned char> other(i % 100 == 0 ? 3000 : static_cast<std::size_t>(i % 41));
        EXPECT_TRUE(FillRandom(other));
        EXPECT_TRUE(FillRandom(draws.emplace_back()));
        if (other.size() >= 16) {
          std::memcpy(draws.emplace_back().data(), other.data(), 16);
          std::memcpy(draws.emplace_back().data(), other.data() + other.size() - 16, 16);
          if (other.size() < 32) draws.pop_back();  // the two overlap
        }
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  std::set<Draw> all;
  std::size_t count = 0;
  for (const auto& draws : drawn) {
    count += draws.size();
    all.insert(draws.begin(), draws.end());
  }
  EXPECT_EQ(all.size(), count);
  EXPECT_FALSE(all.contains(Draw{}));
}

TEST(Random, AChildDoesNotRepeatItsParentsBytes) {
  Draw before{};
  ASSERT_TRUE(FillRandom(before));  // the pool is filled
  std::array<int, 2> ends{};
  ASSERT_EQ(pipe(ends.data()), 0);
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  Draw draw{};
  const bool good = FillRandom(draw);
  if (child == 0) _exit(good && write(ends[1], draw.data(), draw.size()) == 16 ? 0 : 1);
  int status = -1;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  Draw of_child{};
  ASSERT_EQ(read(ends[0], of_child.data(), of_child.size()), 16);
  EXPECT_EQ(status, 0);
  EXPECT_NE(draw, of_child);
  close(ends[0]);
  close(ends[1]);
}

// --- text ------------------------------------------------------------------------------------------------------------

TEST(Text, ComparesLettersOfAsciiOnly) {
  struct Case {
    std::string_view a, b;
    bool equal;
  };
  for (const Case& c : {Case{"", "", true}, Case{"Via", "VIA", true}, Case{"Via", "Vi", false}, Case{"a", "b", false},
                        Case{"@[`{", "`{@[", false}, Case{"[", "{", false}, Case{"@", "`", false},
                        Case{"\xC4", "\xE4", false}, Case{"zZaA19-", "ZzAa19-", true}}) {
    EXPECT_EQ(EqualNoCase(c.a, c.b), c.equal) << c.a << " " << c.b;
    EXPECT_EQ(LowerCase(c.a) == LowerCase(c.b), c.equal) << c.a << " " << c.b;
  }
}

TEST(Text, TrimsBlanksOffTheEndsAndWritesHex) {
  EXPECT_EQ(Trim(" \t a b\t "), "a b");
  EXPECT_EQ(Trim(" \t"), "");
  EXPECT_EQ(Trim("\r a\n"), "\r a\n");
  EXPECT_EQ(TrimLeft(" a "), "a ");
  EXPECT_EQ(TrimRight(" a "), " a");
  std::string text = "x";
  AppendHex(text, Draw{0x00, 0x0f, 0xa5, 0xff});
  EXPECT_EQ(text, "x000fa5ff" + std::string(24, '0'));
}

}  // namespace
}  // namespace base
