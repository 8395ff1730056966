#include "Sipcarrier/transaction_layer.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>
#include <utility>

#include "base/text.h"
#include "Sipcarrier/target.h"

namespace sipcarrier {
namespace {

using State = ClientTransaction::State;
using Kind = Outcome::Kind;

constexpr std::chrono::seconds kLookupDeadline{8};
// Between two looks at the socket: what comes back meanwhile must find room there.
constexpr int kStartsPerTurn = 64;
// Lists of destinations that are kept though nothing is under way to them.
constexpr std::size_t kIdleDestinations = 64;
// Short enough to need no memory.
constexpr std::string_view kNoMemory = "no memory";

}  // namespace

TransactionLayer::TransactionLayer(const Timing& timing, TimerQueue& timers,
                                   LocalAddressFinder& finder, Tracer& tracer,
                                   LiveCounters& counters, ServerLayer& server)
    : timing_(timing),
      timers_(timers),
      finder_(finder),
      tracer_(tracer),
      counters_(counters),
      server_(server),
      completed_timer_(*this) {
  RefillSpares();
}

TransactionLayer::~TransactionLayer() {
  while (ClientTransaction* transaction = all_.Front()) Remove(*transaction);
}

std::unique_ptr<ClientTransaction> TransactionLayer::Make() noexcept {
  std::unique_ptr<ClientTransaction> made(new (std::nothrow) ClientTransaction(*this));
  for (auto spare = spares_.begin(); made == nullptr && spare != spares_.end(); ++spare) {
    made = std::move(*spare);
  }
  return made;
}

void TransactionLayer::RefillSpares() noexcept {
  for (auto& spare : spares_) {
    if (spare == nullptr) spare.reset(new (std::nothrow) ClientTransaction(*this));
  }
}

void TransactionLayer::Submit(std::unique_ptr<nsip_message> request, PrepareFn prepare,
                              OutcomeFn done) noexcept {
  std::unique_ptr<ClientTransaction> transaction = Make();
  if (transaction == nullptr) {
    // The reserve is used up too: at once is late enough.
    LiveCounters::Add(counters_.lost_no_memory);
    Call(done, {Kind::kUnsent, nullptr, std::string(kNoMemory), std::move(request)});
    return;
  }
  transaction->request = std::move(request);
  transaction->prepare = std::move(prepare);
  transaction->done = std::move(done);
  all_.PushBack(*transaction);
  fresh_.PushBack(*transaction.release());
  LiveCounters::Add(counters_.transactions);
}

void TransactionLayer::StartFresh() noexcept {
  for (int i = 0; i < kStartsPerTurn && can_start(); ++i) {
    ClientTransaction* const transaction = fresh_.PopFront();
    try {
      Begin(*transaction);
    } catch (...) {
      FailNoMemory(*transaction);
    }
  }
  RefillSpares();
}

void TransactionLayer::Begin(ClientTransaction& transaction) {
  if (closed_) return Fail(transaction, Kind::kUnsent, "the SIP stack has stopped");
  const nsip_uri* uri = transaction.request == nullptr ? nullptr : NextHop(*transaction.request);
  if (uri == nullptr) return Fail(transaction, Kind::kUnsent, "the request has no destination");
  Target target;
  std::string reason;
  if (!ChooseTarget(*uri, target, reason)) return Fail(transaction, Kind::kUnsent, reason);
  transaction.port = target.port;
  if (target.is_literal()) {
    transaction.candidates.push_back(target.literal);
    return TryNext(transaction, {});
  }
  transaction.host = target.host;
  transaction.state = State::kResolving;
  timers_.Set(transaction.deadline_timer, Clock::now() + kLookupDeadline);
  resolver_->Lookup(target.host, transaction);
}

void TransactionLayer::OnAddresses(ClientTransaction& transaction,
                                   std::span<const SocketAddress> addresses,
                                   std::string_view failure) noexcept {
  timers_.Cancel(transaction.deadline_timer);
  try {
    if (addresses.empty()) {
      return Fail(transaction, Kind::kUnsent,
                  "cannot look up " + transaction.host + ": " + std::string(failure));
    }
    transaction.candidates.assign(addresses.begin(), addresses.end());
    for (SocketAddress& address : transaction.candidates) address.set_port(transaction.port);
    TryNext(transaction, {});
  } catch (...) {
    FailNoMemory(transaction);
  }
}

// Tries the next address (RFC 3263 §4.3: after a failure of the transport, as a transaction of its
// own), or fails with the last one's reason. The transaction may be gone afterwards, but not when
// this throws.
void TransactionLayer::TryNext(ClientTransaction& transaction, std::string reason) {
  while (transaction.next_candidate < transaction.candidates.size()) {
    const SocketAddress to = transaction.candidates[transaction.next_candidate++];
    const SocketAddress* bound = transport_->bound(to.family());
    if (bound == nullptr) {
      reason = std::string("cannot send to ") + to.Text() + ": no " +
               (to.family() == AF_INET6 ? "IPv6" : "IPv4") + " address is bound";
      continue;
    }
    SocketAddress local;
    if (const int error = finder_.Find(to, *bound, local); error != 0) {
      reason = "cannot send to " + to.Text() + ": " + std::strerror(error);
      continue;
    }
    return Send(transaction, to, local);
  }
  Fail(transaction, Kind::kUnsent, reason);
}

void TransactionLayer::Send(ClientTransaction& transaction, const SocketAddress& to,
                            const SocketAddress& local) {
  transaction.transport = transport_;
  transaction.to = to;
  transaction.local = local;
  std::string reason;
  if (!Write(transaction, reason)) return Fail(transaction, Kind::kUnsent, reason);
  by_destination_[to].PushBack(transaction);
  // Nothing below fails.
  transaction.Outgoing::text = transaction.text;
  transaction.state = State::kTrying;
  transaction.sends = 0;
  transaction.interval = timing_.t1;
  const auto now = Clock::now();
  timers_.Set(transaction.retransmit_timer, now + timing_.t1);
  timers_.Set(transaction.deadline_timer, now + 64 * timing_.t1);
  if (!transaction.in_window) {
    transaction.in_window = true;
    ++in_window_;
  }
  transaction.transport->Send(transaction);
}

std::shared_ptr<const Endpoint> TransactionLayer::EndpointOf(const SocketAddress& local) {
  if (local_endpoint_ == nullptr || !(local_ == local)) {
    auto endpoint = std::make_shared<Endpoint>();
    endpoint->host = local.Host();
    endpoint->port = local.port();
    endpoint->transport = transport_->name();
    local_endpoint_ = std::move(endpoint);
    local_ = local;
  }
  return local_endpoint_;
}

bool TransactionLayer::Write(ClientTransaction& transaction, std::string& reason) {
  nsip_message& request = *transaction.request;
  transaction.sent_by = EndpointOf(transaction.local);
  const Endpoint& local = *transaction.sent_by;
  if (transaction.prepare && !transaction.prepare(request, local)) {
    reason = "given up before it was sent";
    return false;
  }
  // Each try is a transaction of its own (RFC 3263 §4.3).
  branches_.Remove(std::exchange(transaction.place, BranchTable::kNowhere));
  BranchText branch;
  transaction.place = branches_.Add(transaction, branch);
  if (transaction.place == BranchTable::kNowhere) {
    reason = "the system gives no random numbers";
    return false;
  }
  via_ = "SIP/2.0/";
  via_.append(local.transport).append(" ").append(local.host).append(":");
  via_.append(std::to_string(local.port)).append(";branch=");
  via_.append(branch.data(), branch.size()).append(";rport");
  if (nsip_message_to_str(request, transaction.text, via_) != 0) {
    reason = "the request lacks a mandatory part";
    return false;
  }
  return true;
}

// Takes the transaction off the wire: no send, timer, response or report reaches it any more.
void TransactionLayer::Detach(ClientTransaction& transaction) noexcept {
  timers_.Cancel(transaction.retransmit_timer);
  timers_.Cancel(transaction.deadline_timer);
  transaction.Outgoing::Unlink();
  transaction.LookupWaiter::Unlink();
  branches_.Remove(std::exchange(transaction.place, BranchTable::kNowhere));
  LeaveWindow(transaction);
  LeaveDestination(transaction);
}

void TransactionLayer::LeaveWindow(ClientTransaction& transaction) noexcept {
  if (std::exchange(transaction.in_window, false)) --in_window_;
}

void TransactionLayer::LeaveDestination(ClientTransaction& transaction) noexcept {
  static_cast<base::ListHook<DestinationTag>&>(transaction).Unlink();
  if (by_destination_.size() <= kIdleDestinations) return;
  const auto found = by_destination_.find(transaction.to);
  if (found != by_destination_.end() && found->second.empty()) by_destination_.erase(found);
}

void TransactionLayer::Remove(ClientTransaction& transaction) noexcept {
  Detach(transaction);
  counters_.transactions.fetch_sub(1, std::memory_order_relaxed);
  delete &transaction;
}

void TransactionLayer::Call(const OutcomeFn& done, Outcome outcome) noexcept {
  try {
    if (done) done(std::move(outcome));
  } catch (...) {
    LiveCounters::Add(counters_.lost_no_memory);
  }
}

// The end of a transaction that gets no final response.
void TransactionLayer::Finish(ClientTransaction& transaction, Outcome outcome) noexcept {
  const OutcomeFn done = std::move(transaction.done);
  outcome.request = std::move(transaction.request);
  Remove(transaction);
  Call(done, std::move(outcome));
}

void TransactionLayer::Fail(ClientTransaction& transaction, Kind kind,
                            std::string_view reason) noexcept {
  Outcome outcome;
  outcome.kind = kind;
  try {
    outcome.reason = reason;
  } catch (...) {
    LiveCounters::Add(counters_.lost_no_memory);
    outcome.reason = kNoMemory;
  }
  Finish(transaction, std::move(outcome));
}

void TransactionLayer::FailNoMemory(ClientTransaction& transaction) noexcept {
  LiveCounters::Add(counters_.lost_no_memory);
  Fail(transaction, Kind::kUnsent, kNoMemory);
}

void TransactionLayer::FailAll() noexcept {
  closed_ = true;
  while (ClientTransaction* transaction = all_.Front()) {
    if (transaction->sends > 0) {
      Fail(*transaction, Kind::kTimeout, "the SIP stack stopped before an answer came");
    } else {
      Fail(*transaction, Kind::kUnsent, "the SIP stack has stopped");
    }
  }
}

void TransactionLayer::OnTimer(Timer& /*timer*/) noexcept {
  counters_.transactions.fetch_sub(branches_.Expire(Clock::now()), std::memory_order_relaxed);
  if (branches_.NextDue() != Clock::time_point::max()) {
    // A mark may stay longer: they go together, a few times in the span of timer K.
    timers_.Set(completed_timer_, branches_.NextDue() + timing_.t4 / 16);
  }
}

void TransactionLayer::OnRetransmitTimer(ClientTransaction& transaction) noexcept {
  LeaveWindow(transaction);
  // RFC 3261 §17.1.2.2. One that still waits for room in the socket is not doubled.
  if (!transaction.Outgoing::linked()) transaction.transport->Send(transaction);
  transaction.interval = transaction.state == State::kProceeding
                             ? timing_.t2
                             : std::min(2 * transaction.interval, timing_.t2);
  timers_.Set(transaction.retransmit_timer, Clock::now() + transaction.interval);
}

void TransactionLayer::OnDeadline(ClientTransaction& transaction) noexcept {
  switch (transaction.state) {
    case State::kTrying:
    case State::kProceeding:
      if (transaction.sends == 0) {
        return Fail(transaction, Kind::kUnsent, "the socket took no message in time");
      }
      // RFC 3263 §4.3: a server that says nothing at all has failed, and the next address has its
      // turn.
      if (transaction.state == State::kTrying &&
          transaction.next_candidate < transaction.candidates.size()) {
        return TryElsewhere(transaction, "no answer from ", ETIMEDOUT);
      }
      LiveCounters::Add(counters_.timeouts);
      return Fail(transaction, Kind::kTimeout, "no answer in time");
    case State::kFresh:
    case State::kResolving:
      return Fail(transaction, Kind::kUnsent, "the lookup of the destination's name took too long");
  }
}

void TransactionLayer::OnSent(Outgoing& message) noexcept {
  auto& transaction = static_cast<ClientTransaction&>(message);
  LiveCounters::Add(counters_.sent);
  if (transaction.sends++ > 0) LiveCounters::Add(counters_.retransmitted);
  tracer_.Record(true, transaction.local, message.to, message.text);
}

void TransactionLayer::OnSendFailed(Outgoing& message, int error) noexcept {
  auto& transaction = static_cast<ClientTransaction&>(message);
  if (error == ENOBUFS || error == ENOMEM) {
    // As if the network had lost it: the retransmission mends that.
    LiveCounters::Add(counters_.lost_no_memory);
    return;
  }
  TryElsewhere(transaction, "cannot send to ", error);
}

void TransactionLayer::OnUnreachable(const SocketAddress& to, int error) noexcept {
  const auto found = by_destination_.find(to);
  if (found == by_destination_.end()) return;
  DestinationList all;
  DestinationList affected;
  all.Splice(found->second);
  while (ClientTransaction* transaction = all.PopFront()) {
    // What has not left yet cannot be what the report is about.
    (transaction->sends > 0 ? affected : found->second).PushBack(*transaction);
  }
  while (ClientTransaction* transaction = affected.Front()) {
    TryElsewhere(*transaction, "the network refused what was sent to ", error);
  }
}

void TransactionLayer::TryElsewhere(ClientTransaction& transaction, std::string_view problem,
                                    int error) noexcept {
  const SocketAddress to = transaction.to;
  Detach(transaction);
  try {
    std::string reason(problem);
    reason += to.Text();
    reason += ": ";
    reason += std::strerror(error);
    TryNext(transaction, std::move(reason));
  } catch (...) {
    FailNoMemory(transaction);
  }
}

void TransactionLayer::OnReceived(std::string_view text, const SocketAddress& from,
                                  const SocketAddress& local) noexcept {
  LiveCounters::Add(counters_.received);
  try {
    Receive(text, from, local);
  } catch (...) {
    LiveCounters::Add(counters_.lost_no_memory);
  }
}

void TransactionLayer::Receive(std::string_view text, const SocketAddress& from,
                               const SocketAddress& local) {
  std::string reason;
  std::unique_ptr<nsip_message> message = nsip_message_parse(text, reason);
  if (message == nullptr) {
    LiveCounters::Add(counters_.dropped_garbage);
    return;
  }
  if (message->status_code == 0) return server_.Receive(std::move(message), text, from, local);
  const auto [known, transaction] = Match(*message);
  tracer_.Record(false, transaction == nullptr ? local : transaction->local, from, text);
  if (!known) {
    LiveCounters::Add(counters_.dropped_stray);
    return;
  }
  if (transaction == nullptr) return;  // a copy, absorbed until timer K
  LeaveWindow(*transaction);
  if (message->status_code < 200) {
    // Timer E goes on as it is set, and from then on with T2 (RFC 3261 §17.1.2.2).
    transaction->state = State::kProceeding;
    return;
  }
  Complete(*transaction, std::move(message));
}

void TransactionLayer::Complete(ClientTransaction& transaction,
                                std::unique_ptr<nsip_message> response) noexcept {
  const OutcomeFn done = std::move(transaction.done);
  Outcome outcome{Kind::kResponse, std::move(response), {}, std::move(transaction.request)};
  const auto place = std::exchange(transaction.place, BranchTable::kNowhere);
  if (branches_.Complete(place, Clock::now() + timing_.t4)) {
    LiveCounters::Add(counters_.transactions);  // the mark's, for the one that Remove takes off
    if (!completed_timer_.set()) timers_.Set(completed_timer_, branches_.NextDue());
  }
  Remove(transaction);
  Call(done, std::move(outcome));
}

// RFC 3261 §17.1.3 (branch and CSeq method), §18.1.2 (sent-by), §8.1.3.3 (one Via only).
BranchTable::Found TransactionLayer::Match(const nsip_message& response) const {
  if (response.vias.size() != 1) return {};
  const nsip_via& via = *response.vias.front();
  const nsip_generic_param* branch = nullptr;
  if (nsip_generic_param_get_byname(via.params, "branch", &branch) != 0) return {};
  const BranchTable::Found found = branches_.Find(branch->value);
  if (found.transaction == nullptr) return found;
  const ClientTransaction& transaction = *found.transaction;
  const int port = via.port == 0 ? 5060 : via.port;
  if (response.cseq_method != transaction.request->cseq_method ||
      port != transaction.sent_by->port ||
      !base::EqualNoCase(via.host, transaction.sent_by->host)) {
    return {};
  }
  return found;
}

}  // namespace sipcarrier
