// The address that this machine sends from: what goes into Via and Contact when every address is
// bound.
#pragma once

#include <unordered_map>

#include "base/mutex.h"
#include "Sipcarrier/socket_address.h"
#include "Sipcarrier/timer_queue.h"

namespace sipcarrier {

// Any thread; mutex_ is a leaf and not held across system calls.
class LocalAddressFinder {
 public:
  // The source address for this destination, with the port of `bound`. 0, or the errno value that
  // tells why the destination cannot be reached. May throw std::bad_alloc.
  int Find(const SocketAddress& to, const SocketAddress& bound, SocketAddress& local);

 private:
  struct Entry {
    SocketAddress local;
    Clock::time_point expires;
  };
  base::Mutex mutex_;
  std::unordered_map<SocketAddress, Entry, SocketAddress::Hash> cache_ TOLVANE_GUARDED_BY(mutex_);
};

// An address of this machine when the destination is not known: that of the default route, else of
// the first interface that is up and no loopback, else loopback.
[[nodiscard]] SocketAddress MachineAddress(int family);

}  // namespace sipcarrier
