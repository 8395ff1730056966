#include "FakeSip.h"

#include <gtest/gtest.h>

#include <memory>
#include <utility>

#include "sivra/sivra.h"

namespace fakes {

FakeSip& FakeSip::Get() {
  static FakeSip sip;
  return sip;
}

int FakeSip::Respond(long stack_id, int status, const std::string& headers) {
  std::string why;
  const std::unique_ptr<nsip_message> message =
      nsip_message_parse("SIP/2.0 " + std::to_string(status) +
                             " Reason\r\nVia: SIP/2.0/UDP 127.0.0.1:5060;branch=z9hG4bK1\r\nFrom: <sip:a@b>;tag=1\r\n"
                             "To: <sip:a@b>;tag=2\r\nCall-ID: 1\r\nCSeq: 1 REGISTER\r\n" +
                             headers + "Content-Length: 0\r\n\r\n",
                         why);
  EXPECT_NE(message, nullptr) << why;
  SipStackEvent event{SIP_EVENT_REGISTER_RESPONSE, message.get(), 0, nullptr, stack_id};
  return handler->OnStackEvent(&event);
}

int FakeSip::Error(long stack_id, int event_id) {
  SipStackEvent event{event_id, nullptr, 0, "told to", stack_id};
  return handler->OnStackEvent(&event);
}

}  // namespace fakes

using fakes::FakeSip;

constinit base::Mutex sivra::library_lock;

void sivra_lock() {
  if (const auto hook = std::exchange(FakeSip::Get().before_lock, nullptr)) hook();
  EXPECT_FALSE(FakeSip::Get().locked);
  sivra::library_lock.Lock();
  FakeSip::Get().locked = true;
}
void sivra_unlock() {
  FakeSip::Get().locked = false;
  sivra::library_lock.Unlock();
}

long sivra_register_set_info(long id, const std::string& from, const std::string& to, const std::string& registrar) {
  FakeSip& sip = FakeSip::Get();
  EXPECT_TRUE(sip.locked);
  EXPECT_EQ(from, to);
  if (sip.refuse_addresses || (id != 0 && !sip.entries.contains(id))) return -1;
  const long entry = id != 0 ? id : ++sip.last_id;
  sip.entries[entry] = from;
  sip.registrars[entry] = registrar;
  return entry;
}

int sivra_register_build_register(nsip_message** msg, long id, int expires) {
  FakeSip& sip = FakeSip::Get();
  EXPECT_TRUE(sip.locked);
  *msg = nullptr;
  if (sip.build_result != 0 || !sip.entries.contains(id)) return -1;
  auto message = std::make_unique<nsip_message>();
  message->sip_method = "REGISTER";
  message->cseq_number = static_cast<std::uint32_t>(expires);
  const auto address = [](const std::string& text) {
    auto read = std::make_unique<nsip_from>();
    static_cast<void>(nsip_from_parse(text, *read));  // some tests want addresses that are none
    return read;
  };
  message->from = address(sip.entries[id]);
  message->to = address("<sip:remote@example.com>");
  message->req_uri = std::move(address(sip.registrars[id])->url);
  message->contacts.push_back(address("<sip:me@127.0.0.1:5060>"));
  for (const nsip_header& header : sip.built_headers) {
    message->headers.items.push_back(std::make_unique<nsip_header>(header));
  }
  *msg = message.release();
  return 0;
}

int sivra_register_send_register(long id, nsip_message* msg) {
  FakeSip& sip = FakeSip::Get();
  EXPECT_TRUE(sip.locked);
  const std::unique_ptr<nsip_message> message(msg);
  if (sip.send_result != 0) return sip.send_result;
  const auto header = [&](const char* name) {
    nsip_header* found = nullptr;
    nsip_message_header_get_byname(msg, name, 0, &found);
    return found != nullptr ? found->hvalue : std::string();
  };
  std::string lines;
  for (const auto& line : msg->headers.items) lines += line->hname + ": " + line->hvalue + "\n";
  sip.sent.push_back({id, static_cast<int>(msg->cseq_number), sip.entries.at(id), sip.registrars.at(id),
                      header("Expires"), header("User-Agent"), lines});
  return 0;
}

void sivra_register_release(long id) {
  EXPECT_TRUE(FakeSip::Get().locked);
  EXPECT_EQ(FakeSip::Get().entries.erase(id), 1u) << "released twice: " << id;
  FakeSip::Get().registrars.erase(id);
}

int Sipcarrier_RegisterHandler(ISipStackEvent* pHandler) {
  FakeSip::Get().handler = pHandler;
  return FakeSip::Get().register_handler_result;
}
int Sipcarrier_DeRegisterHandler(ISipStackEvent*) {
  FakeSip::Get().handler = nullptr;
  return 0;
}

ISipStackEvent::~ISipStackEvent() = default;
void ISipStackEvent::SetServerName(const char*) {}
const char* ISipStackEvent::GetServerName(unsigned int*) { return m_szServerName; }
void ISipStackEvent::SetComponentName(const char*) {}
const char* ISipStackEvent::GetComponentName(unsigned int*) { return m_szComponentName; }

void sivra::FreeMessage(nsip_message* msg) { delete msg; }
