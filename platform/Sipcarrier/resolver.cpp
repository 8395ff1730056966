#include "Sipcarrier/resolver.h"

#include <algorithm>
#include <chrono>

namespace sipcarrier {
namespace {

constexpr int kTryMs = 1500;
constexpr int kTries = 3;
constexpr std::size_t kMaxKept = 1024;
constexpr std::size_t kMaxAddresses = 16;
// A record without a time to live (also a line of the hosts file) is still shared by those who ask
// at once.
constexpr int kMinKeepSeconds = 1;
constexpr int kMaxKeepSeconds = 30;
// An idle channel older than this is made anew, so that a process that runs for months follows
// changes of the system's list of name servers.
constexpr std::chrono::seconds kChannelAge{30};

}  // namespace

struct Resolver::Query : base::ListHook<Query> {
  Resolver* resolver = nullptr;
  std::string host;
  base::IntrusiveList<LookupWaiter, LookupWaiter> waiters;
  bool under_way = false;
  std::vector<SocketAddress> addresses;
  std::string_view failure;
  Clock::time_point expires;
};

Resolver::Resolver(IoLoop& loop, TimerQueue& timers, int family)
    : loop_(loop), timers_(timers), family_(family), timeout_(*this) {
  library_ready_ = ares_library_init(ARES_LIB_INIT_ALL) == ARES_SUCCESS;
}

Resolver::~Resolver() {
  CloseChannel();
  if (library_ready_) ares_library_cleanup();
}

void Resolver::CloseChannel() noexcept {
  if (channel_ != nullptr) ares_destroy(channel_);
  channel_ = nullptr;
  watches_.clear();
}

bool Resolver::EnsureChannel() {
  if (!library_ready_) return false;
  const auto now = Clock::now();
  if (channel_ != nullptr && (in_flight_ > 0 || now - channel_made_ < kChannelAge)) return true;
  ares_options options{};
  options.timeout = kTryMs;
  options.tries = kTries;
  options.sock_state_cb = &Resolver::OnSocketState;
  options.sock_state_cb_data = this;
  ares_channel fresh = nullptr;
  if (ares_init_options(&fresh, &options,
                        ARES_OPT_TIMEOUTMS | ARES_OPT_TRIES | ARES_OPT_SOCK_STATE_CB) !=
      ARES_SUCCESS) {
    return channel_ != nullptr;
  }
  CloseChannel();
  channel_ = fresh;
  channel_made_ = now;
  return true;
}

void Resolver::Lookup(const std::string& host, LookupWaiter& waiter) {
  auto found = queries_.find(host);
  if (found == queries_.end()) {
    if (queries_.size() >= kMaxKept) {
      std::erase_if(queries_, [](const auto& entry) {
        return !entry.second->under_way && !entry.second->linked();
      });
    }
    auto query = std::make_unique<Query>();
    query->resolver = this;
    query->host = host;
    found = queries_.emplace(host, std::move(query)).first;
  }
  Query& query = *found->second;
  query.waiters.PushBack(waiter);
  if (query.under_way || query.linked()) return;
  if (!query.addresses.empty() && Clock::now() < query.expires) {
    finished_.PushBack(query);
    return;
  }
  Begin(query);
}

void Resolver::Begin(Query& query) {
  query.addresses.clear();
  query.failure = {};
  if (AddLoopback(query)) {
    finished_.PushBack(query);
    return;
  }
  if (!EnsureChannel()) {
    query.failure = "the resolver cannot be set up";
    finished_.PushBack(query);
    return;
  }
  ares_addrinfo_hints hints{};
  hints.ai_family = family_;
  hints.ai_socktype = SOCK_DGRAM;
  query.under_way = true;
  ++in_flight_;
  ares_getaddrinfo(channel_, query.host.c_str(), nullptr, &hints, &Resolver::OnAnswer, &query);
  ScheduleTimeouts();
}

// RFC 6761 §6.3: localhost and all below it are the loopback addresses, whatever a name server may
// say.
bool Resolver::AddLoopback(Query& query) const {
  if (query.host != "localhost" && !query.host.ends_with(".localhost")) return false;
  for (const char* literal : {"127.0.0.1", "::1"}) {
    SocketAddress address;
    SocketAddress::FromLiteral(literal, 0, address);
    if (family_ == AF_UNSPEC || family_ == address.family()) query.addresses.push_back(address);
  }
  query.expires = Clock::now() + std::chrono::seconds(kMaxKeepSeconds);
  return true;
}

void Resolver::OnAnswer(void* query, int status, int /*timeouts*/, ares_addrinfo* result) {
  auto& self = *static_cast<Query*>(query);
  try {
    self.resolver->Complete(self, status, result);
  } catch (...) {
    self.addresses.clear();
    self.failure = "no memory";
  }
  if (result != nullptr) ares_freeaddrinfo(result);
  self.under_way = false;
  --self.resolver->in_flight_;
  self.resolver->finished_.PushBack(self);
}

void Resolver::Complete(Query& query, int status, const ares_addrinfo* result) {
  int keep = kMaxKeepSeconds;
  if (status == ARES_SUCCESS && result != nullptr) {
    for (const ares_addrinfo_node* node = result->nodes; node != nullptr; node = node->ai_next) {
      const SocketAddress address = SocketAddress::FromSockaddr(node->ai_addr, node->ai_addrlen);
      if (address.family() == AF_UNSPEC || query.addresses.size() >= kMaxAddresses) continue;
      query.addresses.push_back(address);
      keep = std::min(keep, node->ai_ttl);
    }
  }
  if (query.addresses.empty()) {
    query.failure = status == ARES_SUCCESS ? "it has no address" : ares_strerror(status);
  }
  query.expires = Clock::now() + std::chrono::seconds(std::max(keep, kMinKeepSeconds));
}

void Resolver::Deliver() noexcept {
  while (Query* query = finished_.PopFront()) {
    while (LookupWaiter* waiter = query->waiters.PopFront()) {
      waiter->OnResolved(query->addresses, query->failure);
    }
    // A waiter's callback starts no lookup of its own: a turn of the loop stands between.
    if (query->addresses.empty()) queries_.erase(queries_.find(query->host));
  }
}

void Resolver::OnSocketState(void* self, ares_socket_t fd, int readable, int writable) {
  auto& resolver = *static_cast<Resolver*>(self);
  if (readable == 0 && writable == 0) {
    resolver.watches_.erase(fd);
    return;
  }
  try {
    auto& watch = resolver.watches_[fd];
    if (watch == nullptr) watch = resolver.loop_.Watch(fd, resolver);
    watch->WantRead(readable != 0);
    watch->WantWrite(writable != 0);
  } catch (...) {
    // Without the watch the lookup ends by its timeout.
    resolver.watches_.erase(fd);
  }
}

void Resolver::OnReadable(int fd) noexcept {
  ares_process_fd(channel_, fd, ARES_SOCKET_BAD);
  ScheduleTimeouts();
}

void Resolver::OnWritable(int fd) noexcept {
  ares_process_fd(channel_, ARES_SOCKET_BAD, fd);
  ScheduleTimeouts();
}

void Resolver::OnTimer(Timer& /*timer*/) noexcept {
  if (channel_ == nullptr) return;
  ares_process_fd(channel_, ARES_SOCKET_BAD, ARES_SOCKET_BAD);
  ScheduleTimeouts();
}

void Resolver::ScheduleTimeouts() noexcept {
  timeval wait{};
  if (ares_timeout(channel_, nullptr, &wait) == nullptr) {
    timers_.Cancel(timeout_);
    return;
  }
  // A little later than asked, since a call that comes too early does nothing.
  timers_.Set(timeout_, Clock::now() + std::chrono::seconds(wait.tv_sec) +
                            std::chrono::microseconds(wait.tv_usec) + std::chrono::milliseconds(1));
}

}  // namespace sipcarrier
