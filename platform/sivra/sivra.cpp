// The face of the library: what callers promised each other about set, build and send. What is on
// the wire belongs to the I/O thread (wire.h).
#include "sivra/sivra.h"

#include <exception>
#include <memory>
#include <string>
#include <unordered_map>
#include <utility>

#include "base/never_destroyed.h"
#include "Sipcarrier/Sipcarrier.h"
#include "sivra/identity.h"
#include "sivra/wire.h"

namespace sivra {

constinit base::Mutex library_lock;

namespace {

// An entry as its callers see it.
struct Handle {
  SharedIdentity identity;
  Entry* entry = nullptr;  // the wire's, good until its release
};

// library_lock guards it.
struct Handles {
  std::unordered_map<long, Handle> by_id;
  long last_id = 0;
  // The registrar named last: as a rule all entries have the same.
  std::string registrar_text;
  Registrar registrar;

  [[nodiscard]] Handle* Find(long id) {
    const auto found = by_id.find(id);
    return found == by_id.end() ? nullptr : &found->second;
  }

  [[nodiscard]] Registrar FindRegistrar(const std::string& text) {
    if (!registrar || text != registrar_text) {
      Registrar fresh = ReadRegistrar(text);
      if (!fresh) return nullptr;
      registrar_text = text;
      registrar = std::move(fresh);
    }
    return registrar;
  }

  void Trim() noexcept {
    if (by_id.empty()) {  // nothing is kept for nobody
      std::string().swap(registrar_text);
      registrar.reset();
    }
  }
};

// Never destroyed: a process may end while the stack still runs.
Handles& TheHandles() TOLVANE_REQUIRES(library_lock) {
  static base::NeverDestroyed<Handles> handles;
  return *handles;
}

long SetInfo(Handles& handles, long id, const std::string& from, const std::string& to,
             const std::string& registrar) {
  Handle* const known = handles.Find(id);
  if (id != 0 && known == nullptr) return -1;
  const long own_id = id != 0 ? id : handles.last_id + 1;
  SharedIdentity identity = Identity::Read(own_id, from, to, handles.FindRegistrar(registrar),
                                           known == nullptr ? nullptr : known->identity.get());
  if (!identity) return -1;
  if (known != nullptr) {
    Wire::Instance().Readdress(*known->entry, identity);
    known->identity = std::move(identity);
    return id;
  }
  Handle& made = handles.by_id[own_id];
  try {
    made.entry = Wire::Instance().Add(identity);
  } catch (...) {
    handles.by_id.erase(own_id);
    throw;
  }
  made.identity = std::move(identity);
  return handles.last_id = own_id;
}

}  // namespace

void FreeMessage(nsip_message* msg) { delete msg; }

}  // namespace sivra

void sivra_lock() { sivra::library_lock.Lock(); }

void sivra_unlock() { sivra::library_lock.Unlock(); }

long sivra_register_set_info(long id, const std::string& from, const std::string& to,
                             const std::string& registrar) {
  sivra::Handles& handles = sivra::TheHandles();
  long result = -1;
  try {
    result = sivra::SetInfo(handles, id, from, to, registrar);
  } catch (const std::exception&) {
    result = -1;
  }
  handles.Trim();
  return result;
}

int sivra_register_build_register(nsip_message** msg, long id, int expires) {
  if (msg == nullptr) return -1;
  *msg = nullptr;
  try {
    const sivra::Handle* const handle = sivra::TheHandles().Find(id);
    sipcarrier::Endpoint local;
    if (handle == nullptr || expires < 0 ||
        !sipcarrier::GuessLocalEndpoint(handle->identity->registrar(), local)) {
      return -1;
    }
    *msg = handle->identity->BuildRegister(expires, local).release();
    return *msg == nullptr ? -1 : 0;
  } catch (const std::exception&) {
    return -1;
  }
}

int sivra_register_send_register(long id, nsip_message* msg) {
  std::unique_ptr<nsip_message> message(msg);
  try {
    const sivra::Handle* const handle = sivra::TheHandles().Find(id);
    if (!message || handle == nullptr || !sipcarrier::IsRunning()) return -1;
    sivra::Wire::Instance().Send(*handle->entry, std::move(message));
    return 0;
  } catch (const std::exception&) {
    return -1;
  }
}

void sivra_register_release(long id) {
  sivra::Handles& handles = sivra::TheHandles();
  const sivra::Handle* const handle = handles.Find(id);
  if (handle == nullptr) return;
  sivra::Wire::Instance().Release(*handle->entry);
  handles.by_id.erase(id);
  handles.Trim();
}
