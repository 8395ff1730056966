// The loop of the I/O thread: readiness of sockets, one alarm, tasks from other threads. The only
// face of Asio: its headers stay in io_loop.cpp.
#pragma once

#include <atomic>
#include <functional>
#include <memory>

#include "base/mutex.h"
#include "base/wake_pace.h"
#include "Sipcarrier/timer_queue.h"

namespace sipcarrier {

class FdEvents {
 public:
  virtual void OnReadable(int fd) noexcept = 0;
  virtual void OnWritable(int fd) noexcept = 0;

 protected:
  ~FdEvents() = default;
};

// Interest in one descriptor, which stays its owner's and must be open until the watch is
// destroyed. No call comes after that; it may happen inside one. Once made, it needs no memory.
class FdWatch {
 public:
  FdWatch(const FdWatch&) = delete;
  FdWatch& operator=(const FdWatch&) = delete;
  ~FdWatch();

  void WantRead(bool want) noexcept;
  void WantWrite(bool want) noexcept;

 private:
  friend class IoLoop;
  struct Impl;
  explicit FdWatch(std::shared_ptr<Impl> impl);
  std::shared_ptr<Impl> impl_;
};

class LoopClient {
 public:
  virtual void OnAlarm() noexcept = 0;
  // In every turn, before the tasks that were posted after the last Wake.
  virtual void OnInbox() noexcept = 0;
  // After every round of events, tasks and alarms; true: there is more to do at once.
  virtual bool OnTurnEnd() noexcept = 0;
  // A task threw.
  virtual void OnTaskFailed() noexcept = 0;

 protected:
  ~LoopClient() = default;
};

// Run, Quit, Watch and SetAlarm belong to the I/O thread (and to whoever sets the loop up before it
// starts); Post, CloseTasks and Wake may come from any thread. mutex_ is a leaf.
class IoLoop {
 public:
  explicit IoLoop(LoopClient& client);  // throws std::system_error, std::bad_alloc
  IoLoop(const IoLoop&) = delete;
  IoLoop& operator=(const IoLoop&) = delete;
  ~IoLoop();

  // In order of the calls; false when closed or memory is exhausted.
  [[nodiscard]] bool Post(std::function<void()> task) noexcept;
  // Refuses tasks from now on; those that were taken will run.
  void CloseTasks() noexcept;
  // Ends the wait that is, or the next one; a loop that is awake costs a look at a flag.
  void Wake() noexcept;

  [[nodiscard]] std::unique_ptr<FdWatch> Watch(int fd, FdEvents& sink);  // may throw
  // Calls OnAlarm at that time or, harmlessly, earlier; max(): never.
  void SetAlarm(Clock::time_point due) noexcept;
  void Run() noexcept;
  void Quit() noexcept { quit_ = true; }
  [[nodiscard]] bool HasTasks() noexcept;

 private:
  struct Task;
  struct Impl;
  bool RunTasks() noexcept;
  void Turn(bool at_once);

  LoopClient& client_;
  std::unique_ptr<Impl> impl_;
  bool quit_ = false;
  base::WakePace pace_;
  std::atomic<bool> woken_{false};
  // The thread waits, or is about to: only then Wake needs a system call.
  std::atomic<bool> asleep_{false};
  Clock::time_point alarm_ = Clock::time_point::max();

  base::Mutex mutex_;
  Task* first_ TOLVANE_GUARDED_BY(mutex_) = nullptr;
  Task* last_ TOLVANE_GUARDED_BY(mutex_) = nullptr;
  bool closed_ TOLVANE_GUARDED_BY(mutex_) = false;
};

}  // namespace sipcarrier
