// What other threads pass to the main thread: notifications of the bus, messages of the trace,
// signals.
#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <string>
#include <variant>

#include "base/mutex.h"
#include "VorelKDCore/VorelKDCore.h"

namespace host {

using WallTime = std::chrono::system_clock::time_point;

struct NotificationItem {
  int id = 0;
  std::string source;
  std::string document;
};

struct TraceItem {
  bool sent = false;
  std::string local;
  std::string remote;
  std::string text;  // secrets masked by the stack
};

struct SignalItem {
  int number = 0;
};

struct InboxItem {
  WallTime time;
  std::variant<NotificationItem, TraceItem, SignalItem> what;
};

// A queue into the thread that made it. Any thread may call Push; the thread that made it calls
// Pop, and its kdWaitEvent returns when an item has come in. It must outlive every caller of Push.
class Inbox {
 public:
  Inbox();
  Inbox(const Inbox&) = delete;
  Inbox& operator=(const Inbox&) = delete;

  // Never throws; an item that gets no memory is counted and lost.
  void Push(std::variant<NotificationItem, TraceItem, SignalItem> what) noexcept;
  [[nodiscard]] bool Pop(InboxItem& item);
  [[nodiscard]] std::uint64_t lost() const;

 private:
  KDThread* const thread_;
  mutable base::Mutex mutex_;
  std::deque<InboxItem> items_ TOLVANE_GUARDED_BY(mutex_);
  std::uint64_t lost_ TOLVANE_GUARDED_BY(mutex_) = 0;
};

}  // namespace host
