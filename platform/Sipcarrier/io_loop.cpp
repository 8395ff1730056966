#include "Sipcarrier/io_loop.h"

#define ASIO_STANDALONE
#define ASIO_NO_DEPRECATED
// One thread runs the loop, so handlers need no fences around them (which ThreadSanitizer cannot
// follow).
#define ASIO_DISABLE_FENCED_BLOCK
#include <sys/eventfd.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <array>
#include <asio/executor_work_guard.hpp>
#include <asio/io_context.hpp>
#include <asio/posix/basic_stream_descriptor.hpp>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <new>
#include <system_error>
#include <utility>

namespace sipcarrier {
namespace {

// Rounds and tasks between two ends of a turn: a flood on one side must not keep the rest waiting.
constexpr int kRoundsPerTurn = 16;
constexpr int kTasksPerTurn = 256;

// Memory for the one wait operation of a descriptor and direction, so that waiting again never
// allocates: a socket must not fall deaf because memory ran out for a moment.
struct OperationSlot {
  static constexpr std::size_t kSize = 512;
  alignas(std::max_align_t) std::array<std::byte, kSize> bytes;
  bool used = false;
};

template <class T>
struct SlotAllocator {
  using value_type = T;
  OperationSlot* slot;

  explicit SlotAllocator(OperationSlot& s) : slot(&s) {}
  template <class U>
  SlotAllocator(const SlotAllocator<U>& other)
      : slot(other.slot) {}  // NOLINT: converts by contract

  T* allocate(std::size_t count) {
    if (!slot->used && count * sizeof(T) <= OperationSlot::kSize) {
      slot->used = true;
      return reinterpret_cast<T*>(slot->bytes.data());
    }
    return static_cast<T*>(::operator new(count * sizeof(T)));
  }
  void deallocate(T* memory, std::size_t /*count*/) noexcept {
    if (reinterpret_cast<std::byte*>(memory) == slot->bytes.data()) {
      slot->used = false;
    } else {
      ::operator delete(memory);
    }
  }
  template <class U>
  bool operator==(const SlotAllocator<U>& other) const {
    return slot == other.slot;
  }
};

int MustOpen(int fd, const char* what) {
  if (fd < 0) throw std::system_error(errno, std::generic_category(), what);
  return fd;
}

class OwnedFd {
 public:
  explicit OwnedFd(int fd) : fd_(fd) {}
  OwnedFd(const OwnedFd&) = delete;
  OwnedFd& operator=(const OwnedFd&) = delete;
  ~OwnedFd() { ::close(fd_); }
  [[nodiscard]] int get() const { return fd_; }

 private:
  int fd_;
};

}  // namespace

// Shared with the operation in flight, which may outlive the watch until the loop has retired it.
struct FdWatch::Impl : std::enable_shared_from_this<FdWatch::Impl> {
  enum Direction { kRead, kWrite };

  struct Handler {
    using allocator_type = SlotAllocator<void*>;
    std::shared_ptr<Impl> impl;
    Direction direction;

    [[nodiscard]] allocator_type get_allocator() const noexcept {
      return allocator_type(impl->slot[direction]);
    }
    void operator()(const asio::error_code& error) const { impl->OnReady(direction, error); }
  };

  Impl(asio::io_context& context, int fd_in, FdEvents& sink_in)
      : descriptor(context.get_executor(), fd_in), fd(fd_in), sink(&sink_in) {}
  ~Impl() { Close(); }
  Impl(const Impl&) = delete;
  Impl& operator=(const Impl&) = delete;

  void Close() noexcept {
    sink = nullptr;
    if (descriptor.is_open()) descriptor.release();
  }

  void Want(Direction direction, bool want) noexcept {
    wanted[direction] = want;
    if (!want || armed[direction] || sink == nullptr) return;
    armed[direction] = true;
    descriptor.async_wait(direction == kRead ? asio::posix::descriptor_base::wait_read
                                             : asio::posix::descriptor_base::wait_write,
                          Handler{shared_from_this(), direction});
  }

  void OnReady(Direction direction, const asio::error_code& error) noexcept {
    armed[direction] = false;
    if (error || sink == nullptr || !wanted[direction]) return;
    if (direction == kRead) {
      sink->OnReadable(fd);
    } else {
      sink->OnWritable(fd);
    }
    Want(direction, wanted[direction]);
  }

  asio::posix::basic_stream_descriptor<asio::io_context::executor_type> descriptor;
  int fd;
  FdEvents* sink;  // null once closed
  std::array<bool, 2> wanted{};
  std::array<bool, 2> armed{};
  std::array<OperationSlot, 2> slot;
};

FdWatch::FdWatch(std::shared_ptr<Impl> impl) : impl_(std::move(impl)) {}
FdWatch::~FdWatch() { impl_->Close(); }
void FdWatch::WantRead(bool want) noexcept { impl_->Want(Impl::kRead, want); }
void FdWatch::WantWrite(bool want) noexcept { impl_->Want(Impl::kWrite, want); }

struct IoLoop::Task {
  std::function<void()> run;
  Task* next = nullptr;
};

struct IoLoop::Impl final : FdEvents {
  explicit Impl(IoLoop& loop_in) : loop(loop_in) {}

  void OnReadable(int fd) noexcept override {
    std::uint64_t count = 0;
    const bool fired = ::read(fd, &count, sizeof count) == sizeof count;
    if (fd == timer.get() && fired) {
      loop.alarm_ = Clock::time_point::max();
      loop.client_.OnAlarm();
    }
  }
  void OnWritable(int /*fd*/) noexcept override {}

  IoLoop& loop;
  OwnedFd wake{MustOpen(::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC), "eventfd")};
  OwnedFd timer{
      MustOpen(::timerfd_create(CLOCK_BOOTTIME, TFD_NONBLOCK | TFD_CLOEXEC), "timerfd_create")};
  asio::io_context context{1};
  asio::executor_work_guard<asio::io_context::executor_type> work{context.get_executor()};
  std::unique_ptr<FdWatch> wake_watch;
  std::unique_ptr<FdWatch> timer_watch;
};

IoLoop::IoLoop(LoopClient& client) : client_(client), impl_(std::make_unique<Impl>(*this)) {
  impl_->wake_watch = Watch(impl_->wake.get(), *impl_);
  impl_->timer_watch = Watch(impl_->timer.get(), *impl_);
  impl_->wake_watch->WantRead(true);
  impl_->timer_watch->WantRead(true);
}

IoLoop::~IoLoop() {
  const base::MutexLock lock(mutex_);
  while (first_ != nullptr) delete std::exchange(first_, first_->next);
}

std::unique_ptr<FdWatch> IoLoop::Watch(int fd, FdEvents& sink) {
  auto watch = std::make_shared<FdWatch::Impl>(impl_->context, fd, sink);
  return std::unique_ptr<FdWatch>(new FdWatch(std::move(watch)));
}

bool IoLoop::Post(std::function<void()> task) noexcept {
  std::unique_ptr<Task> node(new (std::nothrow) Task);
  if (node == nullptr) return false;
  node->run = std::move(task);
  {
    const base::MutexLock lock(mutex_);
    if (closed_) return false;
    (first_ == nullptr ? first_ : last_->next) = node.get();
    last_ = node.release();
  }
  Wake();
  return true;
}

void IoLoop::CloseTasks() noexcept {
  const base::MutexLock lock(mutex_);
  closed_ = true;
}

bool IoLoop::HasTasks() noexcept {
  const base::MutexLock lock(mutex_);
  return first_ != nullptr;
}

void IoLoop::Wake() noexcept {
  // The loop looks at the first flag after it has raised the second: one of the two sees the other.
  woken_.store(true, std::memory_order_seq_cst);
  if (!asleep_.exchange(false, std::memory_order_seq_cst)) return;
  const std::uint64_t one = 1;
  // It fails only when the counter is full: then the loop is awake anyway.
  [[maybe_unused]] const ssize_t written = ::write(impl_->wake.get(), &one, sizeof one);
}

// true: there are more.
bool IoLoop::RunTasks() noexcept {
  Task* batch = nullptr;
  {
    const base::MutexLock lock(mutex_);
    batch = std::exchange(first_, nullptr);
  }
  // Behind the look for tasks: what was rung before a task was posted is seen to before it runs.
  client_.OnInbox();
  for (int i = 0; batch != nullptr && i < kTasksPerTurn; ++i) {
    const std::unique_ptr<Task> task(std::exchange(batch, batch->next));
    try {
      task->run();
    } catch (...) {
      client_.OnTaskFailed();
    }
  }
  if (batch == nullptr) return false;
  Task* last = batch;
  while (last->next != nullptr) last = last->next;
  const base::MutexLock lock(mutex_);
  last->next = first_;
  if (first_ == nullptr) last_ = last;
  first_ = batch;
  return true;
}

void IoLoop::SetAlarm(Clock::time_point due) noexcept {
  // An alarm that comes too early costs less than moving it each time a timer is cancelled.
  if (due >= alarm_) return;
  alarm_ = due;
  const auto since = std::max(due.time_since_epoch(), Clock::duration(1));
  const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(since);
  itimerspec when{};
  when.it_value.tv_sec = seconds.count();
  when.it_value.tv_nsec = (since - seconds).count();
  ::timerfd_settime(impl_->timer.get(), TFD_TIMER_ABSTIME, &when, nullptr);
}

// Runs what is ready; waits for something to be, unless it is to look only.
void IoLoop::Turn(bool at_once) {
  const bool rest = !at_once && pace_.ShouldRest();
  if (rest) base::WakePace::Rest();
  if (!at_once && !rest) {
    asleep_.store(true, std::memory_order_seq_cst);
    at_once = woken_.load(std::memory_order_seq_cst);
  }
  bool any = false;
  if (at_once || rest) {
    any = impl_->context.poll_one() != 0 || woken_.load(std::memory_order_relaxed);
    pace_.Rested(any && rest);
  } else {
    impl_->context.run_one();
    pace_.Woken();
  }
  asleep_.store(false, std::memory_order_relaxed);
  // Before the looks that follow: what comes behind them wakes again.
  woken_.store(false, std::memory_order_seq_cst);
  for (int i = 0; i < kRoundsPerTurn && impl_->context.poll_one() != 0; ++i) {
  }
}

void IoLoop::Run() noexcept {
  bool more = false;
  while (!quit_) {
    try {
      Turn(more);
    } catch (...) {
      client_.OnTaskFailed();
    }
    more = RunTasks();
    more = client_.OnTurnEnd() || more;
  }
}

}  // namespace sipcarrier
