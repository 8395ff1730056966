// SIGINT, SIGTERM and SIGHUP as items of the inbox.
#pragma once

#include <string>
#include <thread>

#include "host/inbox.h"

namespace host {

// Blocks the three signals for this thread and all that it starts later, so it must be made before
// any other thread; a thread of its own waits for them. The destructor ends that thread and leaves
// the signals blocked, since the program is about to end. SIGPIPE is ignored: a reader of the
// output that goes away must not prevent the deregistration.
class SignalWatch {
 public:
  explicit SignalWatch(Inbox& inbox);
  ~SignalWatch();
  SignalWatch(const SignalWatch&) = delete;
  SignalWatch& operator=(const SignalWatch&) = delete;

  [[nodiscard]] bool Start(std::string& error);

 private:
  void Watch();

  Inbox& inbox_;
  int signals_ = -1;  // signalfd
  int stop_ = -1;     // eventfd
  std::thread thread_;
};

}  // namespace host
