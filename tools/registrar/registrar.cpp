#include "registrar/registrar.h"

#include <sys/eventfd.h>

#include <cerrno>
#include <system_error>

#include "registrar/server.h"

namespace registrar {

Registrar::Registrar(Options options) : impl_(std::make_unique<Impl>(std::move(options))) {}

Registrar::~Registrar() { Stop(); }

bool Registrar::Start(std::string& error) {
  Impl& impl = *impl_;
  if (impl.thread.joinable()) {
    error = "the registrar runs already";
    return false;
  }
  if (!impl.digest.Init(error)) return false;
  const std::uint16_t wanted = impl.port != 0 ? impl.port.load() : impl.options.port;
  if (!impl.socket.Open(impl.options.address, wanted, error)) return false;
  impl.port = impl.socket.Port();
  {
    const base::MutexLock lock(impl.mutex);
    impl.notifier.SetOwnUri(uri(), impl.socket.Family());
    if (!impl.wake.valid()) impl.wake = FileDescriptor(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
  }
  if (!impl.wake.valid()) {
    error = "no event descriptor: " + std::generic_category().message(errno);
    impl.socket.Close();
    return false;
  }
  impl.stopping = false;
  try {
    impl.thread = std::thread([&impl] { impl.Run(); });
  } catch (const std::system_error& failure) {
    error = std::string("no thread: ") + failure.what();
    impl.socket.Close();
    return false;
  }
  return true;
}

void Registrar::Stop() {
  Impl& impl = *impl_;
  if (!impl.thread.joinable()) return;
  impl.stopping = true;
  impl.Wake();
  impl.thread.join();
  impl.socket.Close();
  impl.delayed.clear();
  impl.responses.Clear();
}

std::uint16_t Registrar::port() const { return impl_->port; }

std::string Registrar::uri() const {
  const std::string& address = impl_->options.address;
  const bool v6 = address.find(':') != std::string::npos;
  return "sip:" + (v6 ? "[" + address + "]" : address) + ":" + std::to_string(port());
}

void Registrar::Add(Script script) {
  if (script.repeat == 0) return;
  if (!script.aor.empty()) script.aor = CanonicalAor(script.aor);
  const base::MutexLock lock(impl_->mutex);
  impl_->scripts.push_back(std::move(script));
}

std::vector<Binding> Registrar::Bindings(std::string_view aor) const {
  const base::MutexLock lock(impl_->mutex);
  return impl_->location.List(aor, impl_->Now());
}

bool Registrar::Remove(std::string_view aor) {
  const base::MutexLock lock(impl_->mutex);
  return impl_->location.Remove(aor);
}

void Registrar::Advance(std::chrono::milliseconds time) {
  {
    const base::MutexLock lock(impl_->mutex);
    impl_->ahead = impl_->ahead.load() + time;
  }
  impl_->Wake();
}

Counters Registrar::GetCounters() const {
  const base::MutexLock lock(impl_->mutex);
  return impl_->counters;
}

bool Registrar::Apply(const Order& order, std::string& error) {
  const base::MutexLock lock(impl_->mutex);
  const Clock::time_point now = impl_->Now();
  const std::vector<ContactRecord> changes = impl_->location.Apply(order, now, error);
  impl_->notifier.Publish(CanonicalAor(order.aor), changes, now);
  impl_->Wake();
  return !changes.empty();
}

std::size_t Registrar::Notify(const NotifyOrder& order) {
  NotifyOrder canonical = order;
  canonical.aor = CanonicalAor(order.aor);
  const base::MutexLock lock(impl_->mutex);
  const std::size_t count = impl_->notifier.Notify(canonical, impl_->Now());
  impl_->Wake();
  return count;
}

std::size_t Registrar::EndSubscriptions(std::string_view aor, const std::string& reason,
                                        int retry_after) {
  const base::MutexLock lock(impl_->mutex);
  const std::size_t count =
      impl_->notifier.End(CanonicalAor(aor), reason, retry_after, impl_->Now());
  impl_->Wake();
  return count;
}

std::size_t Registrar::ForgetSubscriptions(std::string_view aor) {
  const base::MutexLock lock(impl_->mutex);
  return impl_->notifier.Forget(aor.empty() ? std::string() : CanonicalAor(aor));
}

std::size_t Registrar::Approve(std::string_view aor) {
  const base::MutexLock lock(impl_->mutex);
  const std::size_t count = impl_->notifier.Approve(CanonicalAor(aor), impl_->Now());
  impl_->Wake();
  return count;
}

std::vector<SubscriptionView> Registrar::Subscriptions(std::string_view aor) const {
  const base::MutexLock lock(impl_->mutex);
  return impl_->notifier.List(aor.empty() ? std::string() : CanonicalAor(aor), impl_->Now());
}

RegEventCounters Registrar::GetRegEventCounters() const {
  const base::MutexLock lock(impl_->mutex);
  return impl_->notifier.counters();
}

void Registrar::OnRequest(std::function<void(const nsip_message&)> observer) {
  const base::MutexLock lock(impl_->mutex);
  impl_->on_request = std::move(observer);
}

void Registrar::OnResponse(std::function<void(const nsip_message&, int)> observer) {
  const base::MutexLock lock(impl_->mutex);
  impl_->on_response = std::move(observer);
}

}  // namespace registrar
