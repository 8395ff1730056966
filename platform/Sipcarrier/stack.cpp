#include "Sipcarrier/stack.h"

#include <pthread.h>
#include <csignal>
#include <utility>

#include "Sipcarrier/target.h"

namespace sipcarrier {
namespace {

thread_local Stack* t_stack = nullptr;

// Signals are for the threads of the program, not for these.
class SignalsBlocked {
 public:
  SignalsBlocked() {
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before_);
  }
  SignalsBlocked(const SignalsBlocked&) = delete;
  SignalsBlocked& operator=(const SignalsBlocked&) = delete;
  ~SignalsBlocked() { pthread_sigmask(SIG_SETMASK, &before_, nullptr); }

 private:
  sigset_t before_;
};

}  // namespace

Stack* Stack::OfThisThread() { return t_stack; }

Stack::Stack(const Config& config)
    : t1_(config.t1),
      tracer_(config.trace, counters_),
      delivery_(counters_),
      loop_(*this),
      server_(config.t1, timers_, finder_, tracer_, counters_),
      transactions_({config.t1, config.t2, config.t4}, timers_, finder_, tracer_, counters_,
                    server_),
      stop_timer_(*this) {}

Stack::~Stack() { Stop(std::chrono::milliseconds(0)); }

bool Stack::Open(const Config& config, std::string& error) {
  if (config.t1.count() <= 0 || config.t2 < config.t1 || config.t4.count() < 0) {
    error = "the timers make no sense: T1 must be above 0, T2 not below T1, T4 not below 0";
    return false;
  }
  if (!credentials_.Load(config.credentials, error)) return false;
  udp_ = UdpTransport::Open(loop_, transactions_, config.local_address, config.local_port, error);
  if (udp_ == nullptr) return false;
  for (const int family : {AF_INET, AF_INET6}) {
    if (const SocketAddress* bound = udp_->bound(family)) bound_.push_back(*bound);
  }
  resolver_.emplace(loop_, timers_, bound_.size() == 2 ? AF_UNSPEC : bound_.front().family());
  transactions_.Attach(*udp_, *resolver_, udp_->window());
  server_.Attach(*udp_);
  StartThreads();
  return true;
}

void Stack::StartThreads() {
  const SignalsBlocked blocked;
  delivery_.Start();
  io_thread_ = std::thread([this] {
    pthread_setname_np(pthread_self(), "sip-io");
    t_stack = this;
    loop_.Run();
    t_stack = nullptr;
  });
}

void Stack::Stop(std::chrono::milliseconds deadline) {
  const auto end = Clock::now() + std::max(deadline, std::chrono::milliseconds(0));
  loop_.CloseTasks();
  if (io_thread_.joinable()) {
    stop_deadline_ = end;
    stopping_.store(true, std::memory_order_release);
    loop_.Wake();
    io_thread_.join();
  }
  delivery_.Stop(std::chrono::steady_clock::now() + (end - Clock::now()));
  // Completed transactions end before the sockets; the sockets before Stop returns, so that the
  // port is free.
  transactions_.FailAll();
  server_.Close();
  resolver_.reset();
  udp_.reset();
}

void Stack::OnAlarm() noexcept { timers_.Run(Clock::now()); }

void Stack::OnTimer(Timer& /*timer*/) noexcept { transactions_.FailAll(); }

bool Stack::SetIoTimer(IoTimer::Impl& timer, std::chrono::milliseconds delay) noexcept {
  if (io_timers_closed_) return false;
  if (!timer.linked()) io_timers_.PushBack(timer);
  timers_.Set(timer.timer, Clock::now() + delay);
  return true;
}

void Stack::EndIoTimers() noexcept {
  io_timers_closed_ = true;
  while (IoTimer::Impl* timer = io_timers_.PopFront()) {
    timers_.Cancel(timer->timer);
    timer->sink.OnIoStop();
  }
}

void Stack::Ring(IoInbox& inbox) noexcept {
  if (inbox.rung_.exchange(true, std::memory_order_acq_rel)) return;
  IoInbox* first = rung_.load(std::memory_order_relaxed);
  do {
    inbox.next_rung_ = first;
  } while (!rung_.compare_exchange_weak(first, &inbox, std::memory_order_seq_cst));
  loop_.Wake();
}

void Stack::LookIntoInboxes() noexcept {
  IoInbox* inbox = rung_.exchange(nullptr, std::memory_order_acquire);
  while (inbox != nullptr) {
    IoInbox* const next = std::exchange(inbox->next_rung_, nullptr);
    // Before the look: what is put in from here on rings again.
    inbox->rung_.store(false, std::memory_order_release);
    inbox->OnIoInbox();
    inbox = next;
  }
}

bool Stack::OnTurnEnd() noexcept {
  const bool stopping = stopping_.load(std::memory_order_acquire);
  // The tasks that were taken come first: what they start counts as in flight.
  if (stopping && !loop_.HasTasks() && !HasInbox()) EndIoTimers();
  transactions_.StartFresh();
  resolver_->Deliver();  // after the start of lookups, some of which are answered at once
  udp_->Flush();
  delivery_.HandOver();
  bool more = transactions_.can_start();
  if (stopping) {
    if (transactions_.idle() && io_timers_closed_) {
      loop_.Quit();
    } else if (Clock::now() >= stop_deadline_) {
      transactions_.FailAll();
      more = true;
    } else if (!stop_timer_.set()) {
      timers_.Set(stop_timer_, stop_deadline_);
    }
  }
  loop_.SetAlarm(timers_.NextDue());
  return more;
}

bool Stack::GuessLocalEndpoint(const nsip_uri& target, Endpoint& local) {
  Target to;
  std::string reason;
  const SocketAddress* best = nullptr;
  SocketAddress address;
  if (ChooseTarget(target, to, reason)) {
    if (to.host == "localhost") {  // RFC 6761 §6.3
      SocketAddress::FromLiteral(bound_.front().family() == AF_INET6 ? "::1" : "127.0.0.1", to.port,
                                 to.literal);
    }
    for (const SocketAddress& bound : bound_) {
      if (!to.is_literal() || bound.family() != to.literal.family()) continue;
      if (finder_.Find(to.literal, bound, address) == 0) best = &address;
    }
  }
  if (best == nullptr) {
    address = bound_.front();
    if (address.IsWildcard()) {
      address = MachineAddress(address.family());
      address.set_port(bound_.front().port());
    }
  }
  local.host = address.Host();
  local.port = address.port();
  local.transport = "UDP";
  return true;
}

}  // namespace sipcarrier
