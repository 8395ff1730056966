// Locks that the compiler checks: clang's -Wthread-safety refuses a guarded member that is touched
// without its mutex. Other compilers see plain locks.
//
//   base::Mutex mutex_;
//   int count_ TOLVANE_GUARDED_BY(mutex_) = 0;
//   void CountOne() TOLVANE_REQUIRES(mutex_);    // the caller holds it
//   void Count() TOLVANE_EXCLUDES(mutex_);       // the caller does not; it is taken inside
//
// A condition is waited for in a loop, not with a function object: the analysis looks into no
// function object, so it could not check what one reads.
//
//   base::MutexLock lock(mutex_);
//   while (!done_ && changed_.WaitUntil(mutex_, deadline)) {
//   }
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <shared_mutex>

#if defined(__clang__)
#define TOLVANE_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define TOLVANE_THREAD_ANNOTATION(x)
#endif

// Types.
#define TOLVANE_CAPABILITY(name) TOLVANE_THREAD_ANNOTATION(capability(name))
#define TOLVANE_SCOPED_CAPABILITY TOLVANE_THREAD_ANNOTATION(scoped_lockable)
// Data: the object itself, and what a pointer leads to.
#define TOLVANE_GUARDED_BY(mutex) TOLVANE_THREAD_ANNOTATION(guarded_by(mutex))
#define TOLVANE_PT_GUARDED_BY(mutex) TOLVANE_THREAD_ANNOTATION(pt_guarded_by(mutex))
// Functions: what the caller must hold, or must not hold.
#define TOLVANE_REQUIRES(...) TOLVANE_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define TOLVANE_REQUIRES_SHARED(...) \
  TOLVANE_THREAD_ANNOTATION(requires_shared_capability(__VA_ARGS__))
#define TOLVANE_EXCLUDES(...) TOLVANE_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))
// Functions that take and give back.
#define TOLVANE_ACQUIRE(...) TOLVANE_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define TOLVANE_ACQUIRE_SHARED(...) \
  TOLVANE_THREAD_ANNOTATION(acquire_shared_capability(__VA_ARGS__))
#define TOLVANE_TRY_ACQUIRE(...) TOLVANE_THREAD_ANNOTATION(try_acquire_capability(__VA_ARGS__))
#define TOLVANE_RELEASE(...) TOLVANE_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
#define TOLVANE_RELEASE_SHARED(...) \
  TOLVANE_THREAD_ANNOTATION(release_shared_capability(__VA_ARGS__))
#define TOLVANE_RETURN_CAPABILITY(mutex) TOLVANE_THREAD_ANNOTATION(lock_returned(mutex))
// Tells the analysis what it cannot see; the line above it says why it is so.
#define TOLVANE_ASSERT_CAPABILITY(mutex) TOLVANE_THREAD_ANNOTATION(assert_capability(mutex))
#define TOLVANE_NO_THREAD_SAFETY_ANALYSIS TOLVANE_THREAD_ANNOTATION(no_thread_safety_analysis)

namespace base {

// A thread must not take it twice. Made at compile time, and its destructor does nothing, so a
// static one is there from before the first to after the last use.
class TOLVANE_CAPABILITY("mutex") Mutex {
 public:
  constexpr Mutex() noexcept = default;
  Mutex(const Mutex&) = delete;
  Mutex& operator=(const Mutex&) = delete;

  void Lock() TOLVANE_ACQUIRE() { mutex_.lock(); }
  void Unlock() TOLVANE_RELEASE() { mutex_.unlock(); }
  [[nodiscard]] bool TryLock() TOLVANE_TRY_ACQUIRE(true) { return mutex_.try_lock(); }

 private:
  friend class CondVar;
  std::mutex mutex_;
};

// The same for a mutex that its holder may take again. Only for code whose calls into itself cannot
// be told apart from outside; what needs the lock then says so with REQUIRES and takes none.
class TOLVANE_CAPABILITY("mutex") RecursiveMutex {
 public:
  constexpr RecursiveMutex() noexcept = default;
  RecursiveMutex(const RecursiveMutex&) = delete;
  RecursiveMutex& operator=(const RecursiveMutex&) = delete;

  void Lock() TOLVANE_ACQUIRE() { mutex_.lock(); }
  void Unlock() TOLVANE_RELEASE() { mutex_.unlock(); }

 private:
  std::recursive_mutex mutex_;
};

// Many readers or one writer.
class TOLVANE_CAPABILITY("mutex") SharedMutex {
 public:
  SharedMutex() noexcept = default;
  SharedMutex(const SharedMutex&) = delete;
  SharedMutex& operator=(const SharedMutex&) = delete;

  void Lock() TOLVANE_ACQUIRE() { mutex_.lock(); }
  void Unlock() TOLVANE_RELEASE() { mutex_.unlock(); }
  void LockShared() TOLVANE_ACQUIRE_SHARED() { mutex_.lock_shared(); }
  void UnlockShared() TOLVANE_RELEASE_SHARED() { mutex_.unlock_shared(); }

 private:
  std::shared_mutex mutex_;
};

// Holds a mutex for a scope, with the right to let go of it in between.
class [[nodiscard]] TOLVANE_SCOPED_CAPABILITY MutexLock {
 public:
  explicit MutexLock(Mutex& mutex) TOLVANE_ACQUIRE(mutex) : mutex_(mutex) { mutex_.Lock(); }
  ~MutexLock() TOLVANE_RELEASE() {
    if (held_) mutex_.Unlock();
  }
  MutexLock(const MutexLock&) = delete;
  MutexLock& operator=(const MutexLock&) = delete;

  void Unlock() TOLVANE_RELEASE() {
    mutex_.Unlock();
    held_ = false;
  }
  void Lock() TOLVANE_ACQUIRE() {
    mutex_.Lock();
    held_ = true;
  }

 private:
  Mutex& mutex_;
  bool held_ = true;
};

class [[nodiscard]] TOLVANE_SCOPED_CAPABILITY WriterLock {
 public:
  explicit WriterLock(SharedMutex& mutex) TOLVANE_ACQUIRE(mutex) : mutex_(mutex) { mutex_.Lock(); }
  ~WriterLock() TOLVANE_RELEASE() { mutex_.Unlock(); }
  WriterLock(const WriterLock&) = delete;
  WriterLock& operator=(const WriterLock&) = delete;

 private:
  SharedMutex& mutex_;
};

class [[nodiscard]] TOLVANE_SCOPED_CAPABILITY ReaderLock {
 public:
  explicit ReaderLock(SharedMutex& mutex) TOLVANE_ACQUIRE_SHARED(mutex) : mutex_(mutex) {
    mutex_.LockShared();
  }
  ~ReaderLock() TOLVANE_RELEASE() { mutex_.UnlockShared(); }
  ReaderLock(const ReaderLock&) = delete;
  ReaderLock& operator=(const ReaderLock&) = delete;

 private:
  SharedMutex& mutex_;
};

// Waits with a Mutex that the caller holds, before and after. A wait may end for no reason.
class CondVar {
 public:
  CondVar() = default;
  CondVar(const CondVar&) = delete;
  CondVar& operator=(const CondVar&) = delete;

  // For a thread that has nothing else to do until somebody wakes it; other waits have a deadline.
  void Wait(Mutex& mutex) TOLVANE_REQUIRES(mutex) {
    std::unique_lock lock(mutex.mutex_, std::adopt_lock);
    condition_.wait(lock);
    lock.release();
  }
  // false: the deadline has passed. Any clock; max() means none.
  template <class AnyClock, class Duration>
  [[nodiscard]] bool WaitUntil(Mutex& mutex,
                               const std::chrono::time_point<AnyClock, Duration>& deadline)
      TOLVANE_REQUIRES(mutex) {
    std::unique_lock lock(mutex.mutex_, std::adopt_lock);
    bool in_time = true;
    if (deadline == std::chrono::time_point<AnyClock, Duration>::max()) {
      condition_.wait(lock);
    } else {
      in_time = condition_.wait_until(lock, deadline) == std::cv_status::no_timeout;
    }
    lock.release();
    return in_time;
  }
  void NotifyOne() noexcept { condition_.notify_one(); }
  void NotifyAll() noexcept { condition_.notify_all(); }

 private:
  std::condition_variable condition_;
};

}  // namespace base
