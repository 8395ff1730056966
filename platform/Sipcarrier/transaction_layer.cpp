#include "Sipcarrier/transaction_layer.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>
#include <utility>

#include "base/text.h"
#include "Sipcarrier/branch.h"
#include "Sipcarrier/target.h"

namespace sipcarrier {
namespace {

using State = ClientTransaction::State;
using Kind = Outcome::Kind;

constexpr std::chrono::seconds kLookupDeadline{8};
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
      server_(server) {
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
    Call(done, {Kind::kUnsent, nullptr, std::string(kNoMemory)});
    return;
  }
  transaction->request = std::move(request);
  transaction->prepare = std::move(prepare);
  transaction->done = std::move(done);
  all_.PushBack(*transaction);
  fresh_.PushBack(*transaction.release());
  ++owed_;
  LiveCounters::Add(counters_.transactions);
}

void TransactionLayer::StartFresh() noexcept {
  base::IntrusiveList<ClientTransaction, FreshTag> batch;
  batch.Splice(fresh_);
  while (ClientTransaction* transaction = batch.PopFront()) {
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
  transaction.host = target.host;
  if (target.is_literal()) {
    transaction.candidates.push_back(target.literal);
    return TryNext(transaction, {});
  }
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
  DestinationList& neighbours = by_destination_[to];
  neighbours.PushBack(transaction);
  by_branch_.emplace(transaction.branch, &transaction);
  // Nothing below fails.
  if (transaction.next_candidate == transaction.candidates.size()) {
    transaction.request.reset();
    transaction.prepare = nullptr;
  }
  transaction.Outgoing::text = transaction.text;
  transaction.state = State::kTrying;
  transaction.sends = 0;
  transaction.interval = timing_.t1;
  const auto now = Clock::now();
  timers_.Set(transaction.retransmit_timer, now + timing_.t1);
  timers_.Set(transaction.deadline_timer, now + 64 * timing_.t1);
  transaction.transport->Send(transaction);
}

bool TransactionLayer::Write(ClientTransaction& transaction, std::string& reason) {
  nsip_message& request = *transaction.request;
  Endpoint local;
  local.host = transaction.local.Host();
  local.port = transaction.local.port();
  local.transport = transport_->name();
  if (transaction.has_via) {
    request.vias.erase(request.vias.begin());
    transaction.has_via = false;
  }
  if (transaction.prepare && !transaction.prepare(request, local)) {
    reason = "given up before it was sent";
    return false;
  }
  if (!MakeBranch(transaction.branch)) {
    reason = "the system gives no random numbers";
    return false;
  }
  auto via = std::make_unique<nsip_via>();
  via->protocol = "SIP/2.0";
  via->transport = local.transport;
  via->host = local.host;
  via->port = local.port;
  via->params.push_back({"branch", transaction.branch, true});
  via->params.push_back({"rport", {}, false});
  request.vias.insert(request.vias.begin(), std::move(via));
  transaction.has_via = true;
  transaction.method = request.cseq_method;
  transaction.sent_by_host = std::move(local.host);
  transaction.sent_by_port = local.port;
  transaction.text.clear();
  if (nsip_message_to_str(request, transaction.text) != 0) {
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
  if (!transaction.branch.empty()) {
    const auto found = by_branch_.find(transaction.branch);
    if (found != by_branch_.end() && found->second == &transaction) by_branch_.erase(found);
  }
  LeaveDestination(transaction);
}

void TransactionLayer::LeaveDestination(ClientTransaction& transaction) noexcept {
  static_cast<base::ListHook<DestinationTag>&>(transaction).Unlink();
  const auto found = by_destination_.find(transaction.to);
  if (found != by_destination_.end() && found->second.empty()) by_destination_.erase(found);
}

void TransactionLayer::Remove(ClientTransaction& transaction) noexcept {
  Detach(transaction);
  if (!transaction.finished) --owed_;
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
    if (transaction->finished) {
      Remove(*transaction);
    } else if (transaction->sends > 0) {
      Fail(*transaction, Kind::kTimeout, "the SIP stack stopped before an answer came");
    } else {
      Fail(*transaction, Kind::kUnsent, "the SIP stack has stopped");
    }
  }
}

void TransactionLayer::OnRetransmitTimer(ClientTransaction& transaction) noexcept {
  // RFC 3261 §17.1.2.2. One that still waits for room in the socket is not doubled.
  if (!transaction.Outgoing::linked()) transaction.transport->Send(transaction);
  transaction.interval = transaction.state == State::kProceeding
                             ? timing_.t2
                             : std::min(2 * transaction.interval, timing_.t2);
  timers_.Set(transaction.retransmit_timer, Clock::now() + transaction.interval);
}

void TransactionLayer::OnDeadline(ClientTransaction& transaction) noexcept {
  switch (transaction.state) {
    case State::kCompleted:  // timer K
      return Remove(transaction);
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
  ClientTransaction* transaction = Match(*message);
  tracer_.Record(false, transaction == nullptr ? local : transaction->local, from, text);
  if (transaction == nullptr) {
    LiveCounters::Add(counters_.dropped_stray);
    return;
  }
  if (transaction->state == State::kCompleted) return;  // retransmitted, absorbed until timer K
  if (message->status_code < 200) {
    // Timer E goes on as it is set, and from then on with T2 (RFC 3261 §17.1.2.2).
    transaction->state = State::kProceeding;
    return;
  }
  transaction->state = State::kCompleted;
  transaction->finished = true;
  --owed_;
  timers_.Cancel(transaction->retransmit_timer);
  timers_.Set(transaction->deadline_timer, Clock::now() + timing_.t4);
  transaction->Outgoing::Unlink();
  LeaveDestination(*transaction);
  // What is left until timer K is the branch and what it is compared with.
  transaction->request.reset();
  transaction->prepare = nullptr;
  std::string().swap(transaction->text);
  const OutcomeFn done = std::move(transaction->done);
  Call(done, {Kind::kResponse, std::move(message), {}});
}

// RFC 3261 §17.1.3 (branch and CSeq method), §18.1.2 (sent-by), §8.1.3.3 (one Via only).
ClientTransaction* TransactionLayer::Match(const nsip_message& response) const {
  if (response.vias.size() != 1) return nullptr;
  const nsip_via& via = *response.vias.front();
  const nsip_generic_param* branch = nullptr;
  if (nsip_generic_param_get_byname(via.params, "branch", &branch) != 0) return nullptr;
  const auto found = by_branch_.find(branch->value);
  if (found == by_branch_.end()) return nullptr;
  ClientTransaction& transaction = *found->second;
  const int port = via.port == 0 ? 5060 : via.port;
  if (response.cseq_method != transaction.method || port != transaction.sent_by_port ||
      !base::EqualNoCase(via.host, transaction.sent_by_host)) {
    return nullptr;
  }
  return &transaction;
}

}  // namespace sipcarrier
