#include "Sipcarrier/server_layer.h"

#include <atomic>
#include <cerrno>
#include <utility>

#include "Sipcarrier/server_message.h"

namespace sipcarrier {
namespace {

// Of the process, so that an id of an earlier run of the stack names nothing in this one.
ServerTransactionId NewId() {
  static std::atomic<ServerTransactionId> last{0};
  return last.fetch_add(1, std::memory_order_relaxed) + 1;
}

}  // namespace

void ServerLayer::Receive(std::unique_ptr<nsip_message> request, std::string_view text,
                          const SocketAddress& from, const SocketAddress& local) {
  std::string key = TransactionKey(*request);
  if (const auto known = by_key_.find(key); known != by_key_.end()) {
    tracer_.Record(false, known->second->local, from, text);
    return Repeat(*known->second);
  }
  // The end of somebody's INVITE, which has been refused; it has no answer (RFC 3261 §17.1.1.3).
  const bool served = request->sip_method != "ACK";
  ServerTransaction* transaction = served ? Begin(*request, std::move(key), from, local) : nullptr;
  tracer_.Record(false, transaction == nullptr ? local : transaction->local, from, text);
  if (!served) LiveCounters::Add(counters_.dropped_stray);
  if (transaction == nullptr) return;
  const ServerTransactionId id = transaction->id;
  try {
    Serve(std::move(request), id, transaction->local);
  } catch (...) {
    const auto found = unanswered_.find(id);
    if (found != unanswered_.end()) Remove(*found->second);
    throw;
  }
}

void ServerLayer::Repeat(ServerTransaction& transaction) noexcept {
  LiveCounters::Add(counters_.requests_repeated);
  // One that still waits for room in the socket is not doubled.
  if (transaction.completed && !transaction.Outgoing::linked()) transport_->Send(transaction);
}

// Null when the request is dropped.
ServerTransaction* ServerLayer::Begin(nsip_message& request, std::string key,
                                      const SocketAddress& from, const SocketAddress& local) {
  ServerTransactionEvents& events = *this;
  auto made = std::make_unique<ServerTransaction>(events);
  ServerTransaction& transaction = *made;
  transaction.to = ResponseAddress(*request.vias.front(), from);
  NoteSource(*request.vias.front(), from);
  if (!WriteHead(request, transaction.text) || transaction.text.size() + key.size() > kMaxKept) {
    LiveCounters::Add(counters_.dropped_garbage);
    return nullptr;
  }
  if (!MakeRoom()) {
    LiveCounters::Add(counters_.dropped_overload);
    return nullptr;
  }
  if (finder_.Find(transaction.to, local, transaction.local) != 0) transaction.local = local;
  transaction.id = NewId();
  transaction.key = std::move(key);
  by_key_.emplace(transaction.key, std::move(made));
  LiveCounters::Add(counters_.server_transactions);
  try {
    unanswered_.emplace(transaction.id, &transaction);
  } catch (...) {
    Remove(transaction);
    throw;
  }
  LiveCounters::Add(counters_.requests);
  timers_.Set(transaction.end_timer, Clock::now() + 64 * t1_);
  return &transaction;
}

bool ServerLayer::MakeRoom() noexcept {
  if (by_key_.size() < kMaxTransactions) return true;
  ServerTransaction* oldest = completed_.Front();
  if (oldest != nullptr) Remove(*oldest);
  return oldest != nullptr;
}

// In the order of RFC 3261 §8.2. The transaction may be gone afterwards.
void ServerLayer::Serve(std::unique_ptr<nsip_message> request, ServerTransactionId id,
                        const SocketAddress& local) {
  const std::string& method = request->sip_method;
  const RequestHandlers::Use use(handlers_, method);
  const bool options = method == "OPTIONS";
  if (method == "CANCEL") {
    Respond(id, 481, "Call/Transaction Does Not Exist", {}, {});
    return;
  }
  if (use.handler() == nullptr && !options) {
    Respond(id, 405, "Method Not Allowed", {{"Allow", handlers_.Allow()}}, {});
    return;
  }
  if (request->req_uri->scheme != "sip" && request->req_uri->scheme != "sips") {
    Respond(id, 416, "Unsupported URI Scheme", {}, {});
    return;
  }
  if (std::string required = RequiredOptions(*request); !required.empty()) {
    Respond(id, 420, "Bad Extension", {{"Unsupported", std::move(required)}}, {});
    return;
  }
  if (use.handler() == nullptr) {
    Respond(id, 200, "OK", {{"Allow", handlers_.Allow()}}, {});
    return;
  }
  (*use.handler())(std::move(request), id,
                   {local.Host(), local.port(), std::string(transport_->name())});
}

bool ServerLayer::Respond(ServerTransactionId id, int status, std::string_view reason,
                          const std::vector<nsip_header>& headers,
                          std::string_view to_tag) noexcept {
  const auto found = unanswered_.find(id);
  if (found == unanswered_.end() || status < 200 || status > 699) return false;
  ServerTransaction& transaction = *found->second;
  try {
    std::string answer;
    if (!WriteResponse(transaction.text, status, reason, headers, to_tag, answer)) return false;
    transaction.text = std::move(answer);
  } catch (...) {
    // Gone, so that the peer's next copy brings the request once more.
    LiveCounters::Add(counters_.lost_no_memory);
    Remove(transaction);
    return false;
  }
  unanswered_.erase(found);
  transaction.completed = true;
  completed_.PushBack(transaction);
  transaction.Outgoing::text = transaction.text;
  LiveCounters::Add(counters_.requests_answered);
  timers_.Set(transaction.end_timer, Clock::now() + 64 * t1_);  // timer J
  transport_->Send(transaction);
  return true;
}

void ServerLayer::Remove(ServerTransaction& transaction) noexcept {
  counters_.server_transactions.fetch_sub(1, std::memory_order_relaxed);
  unanswered_.erase(transaction.id);
  by_key_.erase(by_key_.find(transaction.key));
}

void ServerLayer::Close() noexcept {
  handlers_.Close();
  while (!by_key_.empty()) Remove(*by_key_.begin()->second);
}

void ServerLayer::OnSent(Outgoing& message) noexcept {
  const auto& transaction = static_cast<const ServerTransaction&>(message);
  LiveCounters::Add(counters_.sent);
  tracer_.Record(true, transaction.local, transaction.to, transaction.text);
}

// As if the network had lost it: the next copy of the request mends that.
void ServerLayer::OnSendFailed(Outgoing& /*message*/, int error) noexcept {
  if (error == ENOBUFS || error == ENOMEM) LiveCounters::Add(counters_.lost_no_memory);
}

}  // namespace sipcarrier
