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

bool RequestHandlers::Set(const std::string& method, RequestFn handler, bool on_io_thread) {
  std::shared_ptr<const RequestFn> held;  // freed when the lock is
  if (handler) {
    if (!CanBeServed(method)) return false;
    held = std::make_shared<const RequestFn>(std::move(handler));
    const std::lock_guard lock(mutex_);
    return !closed_ && by_method_.try_emplace(method, held).second;
  }
  std::unique_lock lock(mutex_);
  if (const auto found = by_method_.find(method); found != by_method_.end()) {
    held = std::move(found->second);
    by_method_.erase(found);
  }
  // Also when somebody else took it away: its last call may still be under way.
  if (!on_io_thread) {
    changed_.wait(lock, [&] { return current_ == nullptr || current_->method_ != method; });
  }
  lock.unlock();  // before the handler is freed
  return true;
}

void RequestHandlers::Close() noexcept {
  std::map<std::string, std::shared_ptr<const RequestFn>> dropped;
  const std::lock_guard lock(mutex_);
  closed_ = true;
  by_method_.swap(dropped);
}

std::string RequestHandlers::Allow() const {
  const std::lock_guard lock(mutex_);
  std::string result;
  for (const auto& [method, handler] : by_method_) (result += method) += ", ";
  if (by_method_.count(kOptions) == 0) return result + kOptions;
  result.resize(result.size() - 2);
  return result;
}

RequestHandlers::Use::Use(RequestHandlers& handlers, const std::string& method)
    : handlers_(handlers), method_(method) {
  const std::lock_guard lock(handlers_.mutex_);
  const auto found = handlers_.by_method_.find(method_);
  if (found != handlers_.by_method_.end()) handler_ = found->second;
  handlers_.current_ = this;
}

RequestHandlers::Use::~Use() {
  handler_.reset();  // before the one who has taken it away goes on, and with no lock
  {
    const std::lock_guard lock(handlers_.mutex_);
    handlers_.current_ = nullptr;
  }
  handlers_.changed_.notify_all();
}

}  // namespace sipcarrier
