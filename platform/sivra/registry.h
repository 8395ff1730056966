// What subscriptions ask the registrations of the same account. I/O thread.
#pragma once

#include <memory>
#include <string_view>

#include "nsip/nsip.h"
#include "Sipcarrier/Sipcarrier.h"

namespace sivra {

// The credential with which an entry whose From is this address answers challenges of this realm.
[[nodiscard]] bool FindEntryCredential(const nsip_uri& address, std::string_view realm,
                                       sipcarrier::Credential& found);

// The registrar of an entry whose From is this address; null: there is none.
[[nodiscard]] std::unique_ptr<nsip_uri> FindEntryRegistrar(const nsip_uri& address);

}  // namespace sivra
