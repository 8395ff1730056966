// Documents of a subscription from anywhere, several in turn: the component's table takes each that is handed on, and
// finds the own contact where and as it has to be. The bytes 1 and 2 end a document (2: the next one begins a dialog),
// 3 gives the subscription up, bytes from 0x80 on stand for pieces of documents.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

#include "registrationpackage.h"
#include "services/subscription/reginfo_sequence.h"

namespace {

void Require(bool holds) {
  if (!holds) std::abort();
}

std::vector<std::string> Pieces() {
  std::ifstream file(PIECES);
  std::vector<std::string> pieces;
  for (std::string line; std::getline(file, line);) pieces.push_back(line);
  Require(!pieces.empty());
  return pieces;
}

struct Reader {
  CRegistrationTable table;
  int next = 0;    // version
  std::string id;  // of the own contact
  bool ended = false;

  void Take(const std::string& document) {
    CRegInfo info;
    Require(info.Parse(document.c_str()) != 0 && info.GetVersion() == std::to_string(next));
    Require(table.Update(document.c_str()) == 0);
    const CContact* own = nullptr;
    int named = 0;
    for (int i = 0; i < info.GetRegistrationCount(); ++i) {
      const CRegistration* registration = info.GetRegistration(i);
      for (int k = 0; k < registration->GetContactCount(); ++k) {
        const CContact* contact = registration->GetContact(k);
        if (next == 0) id = contact->GetId();
        if (contact->GetId() != id) continue;
        own = contact;
        if (next > 0) Require(++named == 1 && k + 1 == registration->GetContactCount());
      }
    }
    Require(next++ > 0 || own != nullptr);
    Require(!ended || (own != nullptr && own->GetState() != "terminated"));  // behind its end it is active first
    ended = own != nullptr && own->GetState() == "terminated";
    Require(own == nullptr || own->GetEvent() != "shortened");
  }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const std::vector<std::string> kPieces = Pieces();
  subscription::ReginfoSequence sequence("sip:a@x");
  const std::vector<std::string> own = {"sip:a@192.0.2.1;line=7"};
  Reader reader;
  std::string body;
  bool new_dialog = true;
  size = std::min<std::size_t>(size, 1024);  // pieces make long documents of it
  for (std::size_t i = 0; i <= size; ++i) {
    const int byte = i < size ? data[i] : 1;
    if (byte == 3) sequence.Close();
    if (byte >= 0x80) body += kPieces[static_cast<std::size_t>(byte - 0x80) % kPieces.size()];
    if (byte == 0 || (byte > 3 && byte < 0x80)) body += static_cast<char>(byte);
    if (byte != 1 && byte != 2) continue;
    const auto result = sequence.Process(body, new_dialog, own);
    const bool handed_on = result.verdict == subscription::ReginfoSequence::Verdict::kHandedOn;
    Require(handed_on == !result.document.empty() && result.full_wanted == !result.reason.empty());
    if (handed_on) reader.Take(result.document);
    body.clear();
    new_dialog = byte == 2;
  }
  return 0;
}
