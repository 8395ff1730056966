// The face of the library: the registry of entries, and the road of a REGISTER through the stack.
//
// Threads. The calls of the face run with the library lock held by the caller. What follows runs on
// the stack's I/O thread: it takes the lock for each look at an entry and holds it neither when it
// sends nor when it posts events.
#include "sivra/sivra.h"

#include <atomic>
#include <exception>
#include <functional>
#include <map>
#include <memory>
#include <new>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "base/mutex.h"
#include "base/never_destroyed.h"
#include "Sipcarrier/Sipcarrier.h"
#include "sivra/address.h"
#include "sivra/entry.h"
#include "sivra/registry.h"

namespace sivra {
namespace {

constinit base::Mutex g_lock;
constinit std::atomic<std::size_t> g_entry_count{0};

struct Registry {
  std::unordered_map<long, std::unique_ptr<Entry>> entries;
  // All of them by Entry::from_key: each NOTIFY asks for those of its address.
  std::unordered_multimap<std::size_t, Entry*> by_address;
  long last_id = 0;
  // The registrar named last: as a rule all entries have the same.
  std::string registrar_text;
  Registrar registrar;

  [[nodiscard]] Entry* Find(long id) const {
    const auto found = entries.find(id);
    return found == entries.end() || found->second->released() ? nullptr : found->second.get();
  }

  [[nodiscard]] Registrar FindRegistrar(const std::string& text) {
    if (!registrar || text != registrar_text) {
      Registrar fresh = ReadRegistrar(text);
      if (!fresh) {
        return nullptr;
      }
      registrar_text = text;
      registrar = std::move(fresh);
    }
    return registrar;
  }

  void Add(std::unique_ptr<Entry> entry) {
    const auto place = by_address.emplace(entry->from_key(), entry.get());
    try {
      entries.emplace(entry->id(), std::move(entry));
    } catch (...) {
      by_address.erase(place);
      throw;
    }
    g_entry_count = entries.size();
  }

  [[nodiscard]] bool Change(Entry& entry, const std::string& from, const std::string& to,
                            Registrar to_registrar) {
    const auto place = PlaceOf(entry);
    if (!entry.SetAddresses(from, to, std::move(to_registrar))) return false;
    auto node = by_address.extract(place);  // as many as before, so nothing is allocated
    node.key() = entry.from_key();
    by_address.insert(std::move(node));
    return true;
  }

  void Erase(Entry& entry) {
    by_address.erase(PlaceOf(entry));
    entries.erase(entry.id());
    g_entry_count = entries.size();
    Trim();
  }

  [[nodiscard]] std::unordered_multimap<std::size_t, Entry*>::iterator PlaceOf(const Entry& entry) {
    auto place = by_address.find(entry.from_key());
    while (place->second != &entry) ++place;
    return place;
  }

  void Trim() {
    if (entries.empty()) {  // nothing is kept for nobody
      registrar_text = std::string();
      registrar.reset();
    }
  }
};

// Never destroyed: a process may end while the stack still runs.
Registry& TheRegistry() TOLVANE_REQUIRES(g_lock) {
  static base::NeverDestroyed<Registry> registry;
  return *registry;
}

sipcarrier::Outcome Unsent(const char* reason) {
  sipcarrier::Outcome outcome;
  outcome.kind = sipcarrier::Outcome::Kind::kUnsent;
  outcome.reason = reason;  // short, so that it needs no memory
  return outcome;
}

void Report(long id, sipcarrier::Outcome outcome) {
  using Kind = sipcarrier::Outcome::Kind;
  const int event = outcome.kind == Kind::kResponse  ? SIP_EVENT_REGISTER_RESPONSE
                    : outcome.kind == Kind::kTimeout ? SIP_EVENT_REGISTER_TIMEOUT
                                                     : SIP_EVENT_REGISTER_UNSENT;
  try {
    sipcarrier::PostStackEvent(event, std::move(outcome.response), std::move(outcome.reason), id);
  } catch (const std::exception&) {
    // The event is lost; the entry itself has gone on already.
  }
}

// Deals with the outcome of the request in flight; true: something is to be sent for this entry
// now. When it is false the entry may be gone.
bool Conclude(Entry& entry, sipcarrier::Outcome outcome) {
  const long id = entry.id();
  bool more = false;
  bool report = false;
  {
    const base::MutexLock lock(g_lock);
    if (outcome.response) {
      try {
        if (entry.IsChallengeToAnswer(*outcome.response)) {
          return true;
        }
      } catch (const std::exception&) {
        outcome = Unsent("out of memory");
      }
    }
    if (outcome.response) {
      try {
        entry.Learn(*outcome.response);
      } catch (const std::exception&) {
        // The answer counts all the same; only what it could have spared later requests is lost.
      }
    }
    report = !entry.released();
    more = entry.Next();
    if (!more && entry.released()) {
      TheRegistry().Erase(entry);
    }
  }
  // Before the next request leaves, since this outcome is the older one. A release between the lock
  // and here comes too late for this event, as it would for one in the stack's queue.
  if (report) {
    Report(id, std::move(outcome));
  }
  return more;
}

void Send(Entry& entry);

void OnOutcome(Entry& entry, sipcarrier::Outcome outcome) {
  if (Conclude(entry, std::move(outcome))) {
    Send(entry);
  }
}

// Sends the request in flight. What cannot leave is over at once, and the one that waited has its
// turn.
void Send(Entry& entry) {
  const char* failure = nullptr;
  do {
    failure = nullptr;
    try {
      std::unique_ptr<nsip_message> request;
      {
        const base::MutexLock lock(g_lock);
        request = entry.Depart();
      }
      if (request) {
        // Plain pointers (E4): they fit into the function objects, so nothing is allocated for
        // them.
        sipcarrier::SendRequest(
            std::move(request),
            [&entry](nsip_message& message, const sipcarrier::Endpoint& local) {
              try {
                const base::MutexLock lock(g_lock);
                entry.SettleContact(message, local);
                return true;
              } catch (const std::exception&) {
                return false;
              }
            },
            [&entry](sipcarrier::Outcome outcome) { OnOutcome(entry, std::move(outcome)); });
      } else {
        failure = "no credentials";
      }
    } catch (const std::exception&) {
      failure = "out of memory";
    }
  } while (failure != nullptr && Conclude(entry, Unsent(failure)));
}

// Visits the entries of this address of record, until `visit` has had enough.
template <class Visit>
void ForEntriesOf(const nsip_uri& address, Visit visit) TOLVANE_REQUIRES(g_lock) {
  const std::string key = nsip_aor_key(address);
  const auto [begin, end] = TheRegistry().by_address.equal_range(std::hash<std::string>()(key));
  for (auto place = begin; place != end; ++place) {
    const Entry& entry = *place->second;
    if (!entry.released() && entry.IsFrom(key) && visit(entry)) {
      return;
    }
  }
}

}  // namespace

std::vector<std::string> RegisteredContacts(const std::string& address_of_record) {
  std::map<long, std::string> contacts;
  nsip_from address;
  if (ReadAddress(address_of_record, address)) {
    const base::MutexLock lock(g_lock);
    ForEntriesOf(*address.url, [&contacts](const Entry& entry) {
      if (!entry.contact().empty()) {
        contacts.emplace(entry.id(), entry.contact());
      }
      return false;
    });
  }
  std::vector<std::string> result;
  result.reserve(contacts.size());
  for (auto& [id, contact] : contacts) {
    result.push_back(std::move(contact));
  }
  return result;
}

bool FindEntryCredential(const nsip_uri& address, std::string_view realm,
                         sipcarrier::Credential& found) {
  const base::MutexLock lock(g_lock);
  bool any = false;
  ForEntriesOf(address, [&](const Entry& entry) {
    any = entry.FindCredential(realm, found);
    return any;
  });
  return any;
}

std::unique_ptr<nsip_uri> FindEntryRegistrar(const nsip_uri& address) {
  const base::MutexLock lock(g_lock);
  std::unique_ptr<nsip_uri> found;
  ForEntriesOf(address, [&](const Entry& entry) {
    found = std::make_unique<nsip_uri>(entry.registrar());
    return true;
  });
  return found;
}

void FreeMessage(nsip_message* msg) { delete msg; }

std::size_t EntryCount() { return g_entry_count; }

}  // namespace sivra

namespace {

// For the calls of the face, whose callers hold the library lock.
sivra::Registry& RegistryOfCaller() TOLVANE_NO_THREAD_SAFETY_ANALYSIS {
  return sivra::TheRegistry();
}

}  // namespace

void sivra_lock() TOLVANE_NO_THREAD_SAFETY_ANALYSIS { sivra::g_lock.Lock(); }

void sivra_unlock() TOLVANE_NO_THREAD_SAFETY_ANALYSIS { sivra::g_lock.Unlock(); }

long sivra_register_set_info(long id, const std::string& from, const std::string& to,
                             const std::string& registrar) {
  sivra::Registry& registry = RegistryOfCaller();
  long result = -1;
  try {
    sivra::Registrar uri = registry.FindRegistrar(registrar);
    if (id != 0) {
      sivra::Entry* const entry = registry.Find(id);
      return entry != nullptr && registry.Change(*entry, from, to, std::move(uri)) ? id : -1;
    }
    auto entry = std::make_unique<sivra::Entry>(registry.last_id + 1);
    if (entry->SetAddresses(from, to, std::move(uri)) && entry->Identify()) {
      registry.Add(std::move(entry));
      result = ++registry.last_id;
    }
  } catch (const std::exception&) {
    result = -1;
  }
  registry.Trim();
  return result;
}

int sivra_register_build_register(nsip_message** msg, long id, int expires) {
  if (msg == nullptr) {
    return -1;
  }
  *msg = nullptr;
  try {
    const sivra::Entry* const entry = RegistryOfCaller().Find(id);
    sipcarrier::Endpoint local;
    if (entry == nullptr || expires < 0 ||
        !sipcarrier::GuessLocalEndpoint(entry->registrar(), local)) {
      return -1;
    }
    *msg = entry->Build(expires, local).release();
    return *msg == nullptr ? -1 : 0;
  } catch (const std::exception&) {
    return -1;
  }
}

int sivra_register_send_register(long id, nsip_message* msg) {
  std::unique_ptr<nsip_message> message(msg);
  try {
    sivra::Entry* const entry = RegistryOfCaller().Find(id);
    if (!message || entry == nullptr) {
      return -1;
    }
    if (!entry->Submit(std::move(message))) {
      return 0;
    }
    bool accepted = false;
    try {
      accepted = sipcarrier::RunOnIoThread([entry] { sivra::Send(*entry); });
    } catch (const std::exception&) {
      accepted = false;
    }
    if (accepted) {
      return 0;
    }
    static_cast<void>(entry->Next());  // nothing can wait yet
    return -1;
  } catch (const std::exception&) {
    return -1;
  }
}

void sivra_register_release(long id) {
  sivra::Registry& registry = RegistryOfCaller();
  sivra::Entry* const entry = registry.Find(id);
  if (entry == nullptr) {
    return;
  }
  if (entry->in_flight()) {
    entry->set_released();
  } else {
    registry.Erase(*entry);
  }
}
