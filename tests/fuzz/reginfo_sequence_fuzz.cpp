// Documents of a subscription from anywhere, several in turn: the component's table takes each that is handed on, and
// finds the own contact where and as it has to be. The bytes 1 and 2 end a document (2: the next one begins a dialog),
// 3 gives the subscription up, bytes from 0x80 on stand for pieces of documents.
#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "registrationpackage.h"
#include "services/subscription/reginfo_sequence.h"

namespace {

#define OWN "<uri>sip:a@192.0.2.1;line=7</uri></contact>"
#define OTHER "<uri>sip:b@192.0.2.1;line=7</uri></contact>"
constexpr std::array kPieces = {
    "<reginfo version='0' state='full'>",
    "<reginfo version='2' state='partial'>",
    "</reginfo>",
    "<registration aor='sip:a@x' id='r' state='active'>",
    "<registration aor='sip:a@x' id='s' state='terminated'>",
    "<registration aor='sip:b@x' id='r' state='active'>",
    "</registration>",
    "<contact id='o' state='active' event='created'>" OWN,
    "<contact id='p' state='active' event='shortened'>" OWN,
    "<contact id='o' state='terminated' event='rejected'>" OWN,
    "<contact id='o' state='active' event='created'>" OTHER,
    "<contact id='p' state='terminated' event='expired'>" OTHER,
    "<contact id='o~' state='active' event='created'>" OTHER,
    "<contact id='o' state='terminated' event='expired'/>",
    "<r:reginfo version='1' state='full'>",
    "</r:reginfo>",
    "\xC3\xA4",
    "<contact id='&quot;&#9;&#13;' state=\"active\" event='x'>" OWN,
    "<contact id='q' state='active' event='created'><uri>sip:a@192.0.2.1:5060;transport=udp;line=7</uri></contact>"};

void Must(bool holds, const char* what) {
  if (holds) return;
  std::fprintf(stderr, "does not hold: %s\n", what);
  std::abort();
}

class Reader {
 public:
  void Take(const std::string& document) {
    CRegInfo info;
    Must(info.Parse(document.c_str()) != 0, "it is readable");
    Must(info.GetVersion() == std::to_string(next_++), "its version is the next one");
    Must(table_.Update(document.c_str()) == 0, "the table takes it");
    const CContact* last = nullptr;
    const CContact* own = nullptr;
    for (int i = 0; i < info.GetRegistrationCount(); ++i) {
      const CRegistration* registration = info.GetRegistration(i);
      for (int k = 0; k < registration->GetContactCount(); ++k) {
        last = registration->GetContact(k);
        Must(next_ == 1 || own == nullptr || last->GetId() != own->GetId(), "nobody else has the own id");
        if (next_ == 1 || last->GetId() != id_) continue;
        own = last;
        Must(k + 1 == registration->GetContactCount(), "the own contact is last");
      }
    }
    if (next_ == 1) {
      Must(last != nullptr, "the first one holds the own contact");
      own = last;
      id_ = own->GetId();
    }
    const bool end = own != nullptr && own->GetState() == "terminated";
    Must(!ended_ || (own != nullptr && !end), "behind its end it is active first");
    ended_ = end;
    Must(own == nullptr || own->GetEvent() != "shortened", "shortened is spelt shorted");
  }

 private:
  CRegistrationTable table_;
  int next_ = 0;
  std::string id_;
  bool ended_ = false;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
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
    Must(handed_on == !result.document.empty() && result.full_wanted == !result.reason.empty(),
         "a reason for each wish");
    if (handed_on) reader.Take(result.document);
    body.clear();
    new_dialog = byte == 2;
  }
  return 0;
}
