#include "Sipcarrier/local_address.h"

#include <ifaddrs.h>
#include <net/if.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <memory>

namespace sipcarrier {
namespace {

// Long enough that a burst of registrations to one registrar costs one look, short enough that
// hardly any binding names an address that the machine has just left.
constexpr std::chrono::seconds kKeep{1};
constexpr std::size_t kMaxEntries = 4096;

// Connecting a UDP socket sends nothing: it asks the routing table.
int Probe(const SocketAddress& to, SocketAddress& local) {
  const int fd = ::socket(to.family(), SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return errno;
  sockaddr_storage name{};
  socklen_t size = sizeof name;
  int error = 0;
  if (::connect(fd, to.data(), to.size()) != 0 ||
      ::getsockname(fd, reinterpret_cast<sockaddr*>(&name), &size) != 0) {
    error = errno;
  } else {
    local = SocketAddress::FromSockaddr(reinterpret_cast<sockaddr*>(&name), size);
  }
  ::close(fd);
  return error;
}

}  // namespace

int LocalAddressFinder::Find(const SocketAddress& to, const SocketAddress& bound,
                             SocketAddress& local) {
  if (!bound.IsWildcard()) {
    local = bound;
    return 0;
  }
  const auto now = Clock::now();
  {
    const base::MutexLock lock(mutex_);
    const auto found = cache_.find(to);
    if (found != cache_.end() && now < found->second.expires) {
      local = found->second.local;
      local.set_port(bound.port());
      return 0;
    }
  }
  if (const int error = Probe(to, local); error != 0) return error;
  local.set_port(bound.port());
  const base::MutexLock lock(mutex_);
  if (cache_.size() >= kMaxEntries) cache_.clear();
  cache_[to] = {local, now + kKeep};
  return 0;
}

SocketAddress MachineAddress(int family) {
  // Addresses for documentation (RFC 5737, RFC 3849): never local, so they take the default route.
  SocketAddress far;
  SocketAddress local;
  SocketAddress::FromLiteral(family == AF_INET6 ? "2001:db8::1" : "192.0.2.1", 9, far);
  if (Probe(far, local) == 0) return local;
  ifaddrs* list = nullptr;
  if (::getifaddrs(&list) == 0) {
    const std::unique_ptr<ifaddrs, decltype(&::freeifaddrs)> owner(list, &::freeifaddrs);
    for (const ifaddrs* at = list; at != nullptr; at = at->ifa_next) {
      if (at->ifa_addr == nullptr || at->ifa_addr->sa_family != family) continue;
      if ((at->ifa_flags & IFF_UP) == 0 || (at->ifa_flags & IFF_LOOPBACK) != 0) continue;
      return SocketAddress::FromSockaddr(at->ifa_addr, sizeof(sockaddr_in6));
    }
  }
  SocketAddress::FromLiteral(family == AF_INET6 ? "::1" : "127.0.0.1", 0, local);
  return local;
}

}  // namespace sipcarrier
