// Two documents of a registrar, one after the other, into a table. A document goes wherever its own
// words send it, and nowhere else: what is refused changes nothing, versions only grow, what is
// merged is what a plain search merges, and a part read from the whole is what it is by itself.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>

#include "RegInfoDump.h"
#include "VorelKDCore/VorelKDCore.h"

namespace {

void Must(bool holds, const char* what) {
  if (holds) return;
  std::fprintf(stderr, "does not hold: %s\n", what);
  std::abort();
}

template <typename T>
void MustBeReadAlone(const T& element) {
  T alone;
  Must(alone.Parse(RegInfoDump::Document(element).c_str()) == 1, "a part is a document");
  Must(RegInfoDump::Of(alone, true) == RegInfoDump::Of(element, true), "a part is the same by itself");
}

// A merge by plain searches among those that were there before, and single updates.
void MergePlainly(CRegInfo& own, const CRegInfo& newer) {
  CRegInfo root(newer);
  root.ClearRegistrations();
  own.Update(&root);
  const int registrations = own.GetRegistrationCount();
  for (int i = 0; CRegistration* from = newer.GetRegistration(i); ++i) {
    int at = 0;
    while (at < registrations && own.GetRegistration(at)->GetId() != from->GetId()) ++at;
    if (at == registrations) {
      own.AddRegistration(from->Clone());
      continue;
    }
    CRegistration* to = own.GetRegistration(at);
    CRegistration head(*from);
    head.ClearContacts();
    to->Update(&head);
    const int contacts = to->GetContactCount();
    for (int j = 0; CContact* contact = from->GetContact(j); ++j) {
      int k = 0;
      while (k < contacts && to->GetContact(k)->GetId() != contact->GetId()) ++k;
      k < contacts ? to->GetContact(k)->Update(contact) : to->AddContact(contact->Clone());
    }
  }
}

void Apply(CRegistrationTable& table, CRegInfo& plain, const std::string& document) {
  const std::string before = RegInfoDump::Registrations(table, true);
  const std::int64_t old = kdStrtol(table.GetVersion().c_str(), nullptr, 10);
  const int result = table.Update(document.c_str());
  const std::string after = RegInfoDump::Registrations(table, true);
  CRegInfo info;
  const bool read = info.Parse(document.c_str()) == 1;
  const std::int64_t version = kdStrtol(info.GetVersion().c_str(), nullptr, 10);
  const bool full = info.GetState() == "full";
  const bool partial = info.GetState() == "partial";
  Must(result == (!read ? -1 : version <= old ? 2 : partial && version - old > 1 ? 1 : 0), "the result");
  const bool applied = read && version > old && (full || partial);
  Must(applied || after == before, "what is refused changes nothing");
  if (applied && full) plain = info;
  if (applied && partial) MergePlainly(plain, info);
  Must(after == RegInfoDump::Registrations(plain, true), "the table is what it was told");
  if (!read) return;
  MustBeReadAlone(info);
  for (int i = 0; const CRegistration* registration = info.GetRegistration(i); ++i) {
    MustBeReadAlone(*registration);
    for (int j = 0; const CContact* contact = registration->GetContact(j); ++j) MustBeReadAlone(*contact);
  }
  const std::unique_ptr<CElement> clone(info.Clone());
  Must(RegInfoDump::Of(*clone, true) == RegInfoDump::Of(info, true), "a clone is a copy");
}

}  // namespace

// The documents stand in one input, "\n%%\n" between them.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  const auto cut = text.find("\n%%\n");
  CRegistrationTable table;
  CRegInfo plain;
  Apply(table, plain, text.substr(0, cut));
  if (cut != std::string::npos) Apply(table, plain, text.substr(cut + 4));
  return 0;
}
