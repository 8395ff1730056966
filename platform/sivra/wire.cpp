#include "sivra/wire.h"

#include <exception>
#include <functional>
#include <map>
#include <string>
#include <utility>

#include "sivra/address.h"
#include "sivra/registry.h"
#include "sivra/sivra.h"

namespace sivra {
namespace {

using sipcarrier::Outcome;

Outcome Unsent(const char* reason) {
  Outcome outcome;
  outcome.kind = Outcome::Kind::kUnsent;
  outcome.reason = reason;  // short, so that it needs no memory
  return outcome;
}

void Report(long id, Outcome outcome) noexcept {
  using Kind = Outcome::Kind;
  const int event = outcome.kind == Kind::kResponse  ? SIP_EVENT_REGISTER_RESPONSE
                    : outcome.kind == Kind::kTimeout ? SIP_EVENT_REGISTER_TIMEOUT
                                                     : SIP_EVENT_REGISTER_UNSENT;
  try {
    sipcarrier::PostStackEvent(event, std::move(outcome.response), std::move(outcome.reason), id);
  } catch (const std::exception&) {
    // The event is lost; the entry itself has gone on already.
  }
}

// Visits the entries of this address of record, until `visit` has had enough.
template <class Visit>
void ForEntriesOf(const nsip_uri& address, Visit visit) {
  const std::string key = nsip_aor_key(address);
  const std::size_t hash = std::hash<std::string>()(key);
  Wire::Instance().by_address().ForEach(hash, [&](const Entry& entry) {
    return !entry.released() && entry.identity().IsFrom(key) && visit(entry);
  });
}

}  // namespace

// --- the index -----------------------------------------------------------------------------------

void AddressIndex::Insert(Entry& entry) noexcept {
  if (count_ >= buckets_.size()) Grow();
  if (entry.indexed_ || buckets_.empty()) return;
  Entry*& first = buckets_[entry.identity().from_key() & (buckets_.size() - 1)];
  entry.next_by_address_ = std::exchange(first, &entry);
  entry.indexed_ = true;
  ++count_;
}

void AddressIndex::Remove(Entry& entry) noexcept {
  if (!entry.indexed_) return;
  Entry** at = &buckets_[entry.identity().from_key() & (buckets_.size() - 1)];
  while (*at != &entry) at = &(*at)->next_by_address_;
  *at = std::exchange(entry.next_by_address_, nullptr);
  entry.indexed_ = false;
  --count_;
}

void AddressIndex::Grow() noexcept {
  constexpr std::size_t kFew = 64;
  std::vector<Entry*> wider;
  try {
    wider.resize(buckets_.empty() ? kFew : buckets_.size() * 2);
  } catch (const std::exception&) {
    return;
  }
  for (Entry* first : buckets_) {
    while (first != nullptr) {
      Entry* const entry = std::exchange(first, first->next_by_address_);
      Entry*& place = wider[entry->identity().from_key() & (wider.size() - 1)];
      entry->next_by_address_ = std::exchange(place, entry);
    }
  }
  buckets_ = std::move(wider);
}

// --- the queue -----------------------------------------------------------------------------------

struct Wire::Order : base::ListHook<Order> {
  Entry* entry = nullptr;
  SharedIdentity identity;                // to take the place of the entry's; or null, and
  std::unique_ptr<nsip_message> message;  // to be sent
};

Wire& Wire::Instance() {
  static base::NeverDestroyed<Wire> instance;
  return *instance;
}

Entry* Wire::Add(SharedIdentity identity) {
  Entry* const entry = new Entry(std::move(identity));
  count_.fetch_add(1, std::memory_order_relaxed);
  return entry;
}

void Wire::Readdress(Entry& entry, SharedIdentity identity) {
  Post(entry, std::move(identity), nullptr);
}

void Wire::Send(Entry& entry, std::unique_ptr<nsip_message> message) {
  Post(entry, nullptr, std::move(message));
}

void Wire::Post(Entry& entry, SharedIdentity identity, std::unique_ptr<nsip_message> message) {
  std::unique_ptr<Order> order;
  bool first = false;
  {
    base::MutexLock lock(mutex_);
    order.reset(spare_.PopFront());
    if (order) {
      --spares_;
    } else {
      lock.Unlock();
      order = std::make_unique<Order>();
      lock.Lock();
    }
    order->entry = &entry;
    order->identity = std::move(identity);
    order->message = std::move(message);
    first = orders_.empty() && released_.empty();
    orders_.PushBack(*order.release());
  }
  if (first) sipcarrier::Ring(*this);
}

void Wire::Release(Entry& entry) noexcept {
  entry.Silence();
  bool first = false;
  {
    const base::MutexLock lock(mutex_);
    first = orders_.empty() && released_.empty();
    released_.PushBack(entry);
  }
  if (first) sipcarrier::Ring(*this);
}

void Wire::OnIoInbox() noexcept {
  Orders orders;
  base::IntrusiveList<Entry, ReleasedTag> released;
  {
    const base::MutexLock lock(mutex_);
    orders.Splice(orders_);
    released.Splice(released_);
  }
  Orders used;
  std::size_t count = 0;
  while (Order* const order = orders.PopFront()) {
    CarryOut(*order);
    used.PushBack(*order);
    ++count;
  }
  // Behind the orders: the last of an entry is its release.
  while (Entry* const entry = released.PopFront()) {
    entry->set_released();
    if (!entry->in_flight()) Erase(*entry);
  }
  if (this->count() > 0) {
    const base::MutexLock lock(mutex_);
    for (; spares_ < kKeptOrders && count > 0; --count, ++spares_) {
      spare_.PushBack(*used.PopFront());
    }
  }
  Free(used);
}

void Wire::Free(Orders& orders) noexcept {
  while (Order* const order = orders.PopFront()) delete order;
}

// --- on the wire ---------------------------------------------------------------------------------

void Wire::CarryOut(Order& order) noexcept {
  Entry& entry = *order.entry;
  if (order.identity) {
    by_address_.Remove(entry);
    entry.set_identity(std::move(order.identity));
  }
  by_address_.Insert(entry);
  if (order.message && entry.Submit(std::move(order.message))) Depart(entry);
}

// Sends the request in flight. What cannot leave is over at once, and the one that waited has its
// turn.
void Wire::Depart(Entry& entry) noexcept {
  const char* failure = nullptr;
  do {
    failure = "no credentials";
    try {
      if (std::unique_ptr<nsip_message> request = entry.Depart()) {
        failure = nullptr;
        // Two words at the most (E3), which the function objects hold without memory of their own.
        sipcarrier::SendRequest(
            std::move(request),
            [this, &entry](nsip_message& message, const sipcarrier::Endpoint& local) {
              entry.SettleContact(message, Share(local));
              return true;
            },
            [this, &entry](Outcome outcome) { OnOutcome(entry, std::move(outcome)); });
      }
    } catch (const std::exception&) {
      failure = "out of memory";
    }
  } while (failure != nullptr && Conclude(entry, Unsent(failure)));
}

void Wire::OnOutcome(Entry& entry, Outcome outcome) noexcept {
  if (Conclude(entry, std::move(outcome))) Depart(entry);
}

// Deals with the outcome of the request in flight; true: something is to be sent for this entry
// now. When it is false the entry may be gone.
bool Wire::Conclude(Entry& entry, Outcome outcome) noexcept {
  if (outcome.response) {
    try {
      if (entry.TakeChallenge(outcome)) return true;
    } catch (const std::exception&) {
      outcome = Unsent("out of memory");
    }
  }
  if (outcome.response) {
    try {
      entry.Learn(outcome.request.get(), *outcome.response);
    } catch (const std::exception&) {
      // The response counts all the same; only what it could have spared later requests is lost.
    }
  }
  outcome.request.reset();
  const bool more = entry.Next();
  // Before the next request leaves, since this outcome is the older one.
  if (!entry.silent()) Report(entry.identity().id(), std::move(outcome));
  if (!more && entry.released()) Erase(entry);
  return more;
}

void Wire::Erase(Entry& entry) noexcept {
  by_address_.Remove(entry);
  delete &entry;
  if (count_.fetch_sub(1, std::memory_order_relaxed) == 1) Trim();
}

// Nothing is kept for nobody.
void Wire::Trim() noexcept {
  local_.reset();
  Orders spare;
  {
    const base::MutexLock lock(mutex_);
    spare.Splice(spare_);
    spares_ = 0;
  }
  Free(spare);
}

SharedEndpoint Wire::Share(const sipcarrier::Endpoint& local) {
  if (!local_ || local_->port != local.port || local_->host != local.host ||
      local_->transport != local.transport) {
    local_ = std::make_shared<const sipcarrier::Endpoint>(local);
  }
  return local_;
}

// --- what subscriptions ask ----------------------------------------------------------------------

std::vector<std::string> RegisteredContacts(const std::string& address_of_record) {
  std::map<long, std::string> contacts;
  nsip_from address;
  if (ReadAddress(address_of_record, address)) {
    ForEntriesOf(*address.url, [&contacts](const Entry& entry) {
      if (entry.local()) {
        const Identity& identity = entry.identity();
        contacts.emplace(identity.id(), nsip_uri_text(identity.ContactAt(*entry.local())));
      }
      return false;
    });
  }
  std::vector<std::string> result;
  result.reserve(contacts.size());
  for (auto& [id, contact] : contacts) result.push_back(std::move(contact));
  return result;
}

bool FindEntryCredential(const nsip_uri& address, std::string_view realm,
                         sipcarrier::Credential& found) {
  bool any = false;
  ForEntriesOf(address, [&](const Entry& entry) {
    any = entry.identity().FindCredential(realm, found);
    return any;
  });
  return any;
}

std::unique_ptr<nsip_uri> FindEntryRegistrar(const nsip_uri& address) {
  std::unique_ptr<nsip_uri> found;
  ForEntriesOf(address, [&](const Entry& entry) {
    found = std::make_unique<nsip_uri>(entry.identity().registrar());
    return true;
  });
  return found;
}

std::size_t EntryCount() { return Wire::Instance().count(); }

}  // namespace sivra
