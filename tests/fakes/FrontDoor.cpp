#include "FrontDoor.h"

#include <utility>

#include "RegisterProcess.h"

namespace fakes {

FrontDoor::FrontDoor() {
  vorelkd::SetClock(&clock);
  const long last_id = sip.last_id;
  sip = FakeSip();
  sip.last_id = last_id;  // ids are not reused
  bus = FakeBus();
  initialized = TOLVANE_XSCInitialize(nullptr);
}

FrontDoor::~FrontDoor() {
  TOLVANE_XSCUninitialize();
  kdPumpEvents();
  vorelkd::SetClock(nullptr);
}

Answer FrontDoor::Command(int id, const std::string& document) {
  CXML in;
  CXML out;
  in.SetDoc(document.c_str());
  const int result = TOLVANE_XSCCmdCallBack(id, &in, &out);
  return {result, out.GetDoc()};
}

int FrontDoor::Register(const std::string& children) {
  const Answer answer = Command(3, "<reg>" + children + "</reg>");
  const auto at = answer.document.find("<id>");
  return answer.result == 0 && at != std::string::npos ? std::stoi(answer.document.substr(at + 4)) : -1;
}

Answer FrontDoor::Deregister(int id, const std::string& children) {
  return Command(4, "<reg><id>" + std::to_string(id) + "</id>" + children + "</reg>");
}

int FrontDoor::Live(const std::string& children) {
  const int id = Register(children);
  Settle(200);
  Notifications();
  SentExpiries();
  return id;
}

void FrontDoor::Settle(int status, const std::string& headers) {
  sip.Respond(LastStackId(), status, headers);
  Pump();
}

long FrontDoor::LastStackId() const { return sip.sent.empty() ? 0 : sip.sent.back().stack_id; }

void FrontDoor::Pump() { kdPumpEvents(); }

void FrontDoor::Advance(std::chrono::seconds time) {
  for (auto left = time.count(); left > 0; --left) Jump(std::chrono::seconds(1));
}

void FrontDoor::Jump(std::chrono::nanoseconds time) {
  clock.now_ += time.count();
  kdPumpEvents();
}

std::vector<std::string> FrontDoor::Notifications() { return std::exchange(bus.expressed, {}); }

std::vector<int> FrontDoor::SentExpiries() {
  std::vector<int> expiries;
  for (; seen_sent_ < sip.sent.size(); ++seen_sent_) expiries.push_back(sip.sent[seen_sent_].expires);
  return expiries;
}

std::vector<int> FrontDoor::SentIn(std::chrono::seconds time) {
  Advance(time);
  return SentExpiries();
}

}  // namespace fakes
