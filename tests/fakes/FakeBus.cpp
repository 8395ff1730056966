#include "FakeBus.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <utility>

#include "Brunelib/identities.h"

namespace fakes {

FakeBus& FakeBus::Get() {
  static FakeBus bus;
  return bus;
}

int FakeBus::Notify(int id, CXML& document) {
  return subscribers.at(id)(bus::subscription::kIdentity, id, &document, nullptr);
}

}  // namespace fakes

using fakes::FakeBus;

int XSSubNotify(const char* szSource, int nNtfId, XSNotifyCallback* pCallback) {
  EXPECT_STREQ(szSource, bus::subscription::kIdentity);
  FakeBus::Get().subscribers[nNtfId] = pCallback;
  return XS_OK;
}

int XSUnsubNotify(const char*, int nNtfId, XSNotifyCallback*) {
  FakeBus::Get().subscribers.erase(nNtfId);
  return XS_OK;
}

int XSExecuteCommand(const char* szTarget, int nCmdId, CXML* pIn, CXML* pOut) {
  EXPECT_STREQ(szTarget, bus::subscription::kIdentity);
  FakeBus& bus = FakeBus::Get();
  bus.expressed.push_back("service " + std::to_string(nCmdId) + " " + pIn->GetDoc());
  if (const auto hook = std::exchange(bus.at_command, nullptr)) hook();
  if (nCmdId != 2) return XS_OK;
  std::string answer = "<sub><id>" + std::to_string(bus.last_id + 1) + "</id></sub>";
  if (bus.answers.empty()) {
    ++bus.last_id;
  } else {
    answer = std::move(bus.answers.front());
    bus.answers.pop_front();
  }
  if (answer.empty()) return -1;
  pOut->SetDoc(answer);
  return XS_OK;
}

int XSExpressNotify(const char* szSource, int nNtfId, CXML* pDoc, void* pExtra) {
  EXPECT_STREQ(szSource, bus::registration::kIdentity);
  EXPECT_EQ(pExtra, nullptr);
  char id[16];
  std::snprintf(id, sizeof id, "%x ", static_cast<unsigned>(nNtfId));
  FakeBus::Get().expressed.push_back(id + pDoc->GetDoc());
  return XS_OK;
}
