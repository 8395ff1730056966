#include "Sipcarrier/request_handlers.h"

#include <utility>

namespace sipcarrier {
namespace {

constexpr const char* kOptions = "OPTIONS";

// INVITE has transactions of its own (RFC 3261 §17.2.1), and with it ACK and CANCEL.
bool CanBeServed(const std::string& method) {
  return nsip_is_token(method) && method != "INVITE" && method != "ACK" && method != "CANCEL";
}

}  // namespace

bool RequestHandlers::Set(const std::string& method, RequestFn handler) {
  std::shared_ptr<const RequestFn> held;  // freed when the lock is
  if (handler) {
    if (!CanBeServed(method)) return false;
    held = std::make_shared<const RequestFn>(std::move(handler));
    const base::MutexLock lock(mutex_);
    return !closed_ && by_method_.try_emplace(method, held).second;
  }
  base::MutexLock lock(mutex_);
  if (const auto found = by_method_.find(method); found != by_method_.end()) {
    held = std::move(found->second);
    by_method_.erase(found);
  }
  // Also when somebody else took it away: its last call may still be under way.
  calls_.AwaitEnd(mutex_, [&method](const std::string* called) { return *called == method; });
  lock.Unlock();  // before the handler is freed
  return true;
}

void RequestHandlers::Close() noexcept {
  ByMethod dropped;
  const base::MutexLock lock(mutex_);
  closed_ = true;
  by_method_.swap(dropped);
}

std::string RequestHandlers::Allow() const {
  const base::MutexLock lock(mutex_);
  std::string result;
  for (const auto& [method, handler] : by_method_) (result += method) += ", ";
  if (by_method_.count(kOptions) == 0) return result + kOptions;
  result.resize(result.size() - 2);
  return result;
}

RequestHandlers::Use::Use(RequestHandlers& handlers, const std::string& method)
    : handlers_(handlers), method_(method) {
  const base::MutexLock lock(handlers_.mutex_);
  const auto found = handlers_.by_method_.find(method_);
  if (found != handlers_.by_method_.end()) handler_ = found->second;
  handlers_.calls_.Enter(handlers_.mutex_, &method_);
}

RequestHandlers::Use::~Use() {
  handler_.reset();  // before the one who has taken it away goes on, and with no lock
  const base::MutexLock lock(handlers_.mutex_);
  handlers_.calls_.Leave(handlers_.mutex_);
}

}  // namespace sipcarrier
