#include "threads.h"

#include <cstdint>
#include <new>
#include <unordered_map>

#include "base/mutex.h"
#include "base/never_destroyed.h"

namespace vorelkd {
namespace {

// Handles are numbers that only rise, so a handle of a thread that has ended never names another
// one.
struct Threads {
  base::Mutex mutex;
  std::uintptr_t last_id TOLVANE_GUARDED_BY(mutex) = 0;
  std::unordered_map<std::uintptr_t, std::shared_ptr<Mailbox>> mailboxes TOLVANE_GUARDED_BY(mutex);
};

// Threads may end after the process has begun to destroy its static objects.
Threads& AllThreads() noexcept {
  static base::NeverDestroyed<Threads> threads;
  return *threads;
}

// Plain values, so that they can be read in the destructors of other thread-local objects.
thread_local Mailbox* t_mailbox = nullptr;
thread_local std::uintptr_t t_id = 0;
thread_local bool t_ended = false;

// Ends the calling thread's mailbox with the thread.
class EndOfThread {
 public:
  EndOfThread() = default;
  EndOfThread(const EndOfThread&) = delete;
  EndOfThread& operator=(const EndOfThread&) = delete;
  ~EndOfThread() {
    t_mailbox = nullptr;
    t_ended = true;
    if (mailbox_ == nullptr) return;
    {
      Threads& all = AllThreads();
      const base::MutexLock lock(all.mutex);
      all.mailboxes.erase(t_id);
    }
    mailbox_->Close();
  }
  void Own(std::shared_ptr<Mailbox> mailbox) noexcept { mailbox_ = std::move(mailbox); }

 private:
  std::shared_ptr<Mailbox> mailbox_;
};

thread_local EndOfThread t_end;

}  // namespace

Mailbox* Self() noexcept {
  if (t_mailbox != nullptr) return t_mailbox;
  if (t_ended) {
    kdSetError(KD_ESRCH);
    return nullptr;
  }
  try {
    auto mailbox = std::make_shared<Mailbox>();
    {
      Threads& all = AllThreads();
      const base::MutexLock lock(all.mutex);
      all.mailboxes.emplace(all.last_id + 1, mailbox);
      t_id = ++all.last_id;
    }
    t_mailbox = mailbox.get();
    t_end.Own(std::move(mailbox));
    return t_mailbox;
  } catch (const std::bad_alloc&) {
    kdSetError(KD_ENOMEM);
    return nullptr;
  }
}

bool IsSelf(const Mailbox& mailbox) noexcept { return &mailbox == t_mailbox; }

KDThread* SelfHandle() noexcept {
  if (t_id == 0 && Self() == nullptr) return nullptr;
  return reinterpret_cast<KDThread*>(t_id);  // NOLINT(performance-no-int-to-ptr): an opaque number
}

std::shared_ptr<Mailbox> Lookup(KDThread* handle) noexcept {
  Threads& all = AllThreads();
  const base::MutexLock lock(all.mutex);
  const auto found = all.mailboxes.find(reinterpret_cast<std::uintptr_t>(handle));
  return found != all.mailboxes.end() ? found->second : nullptr;
}

}  // namespace vorelkd
