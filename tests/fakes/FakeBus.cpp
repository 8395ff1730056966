#include "FakeBus.h"

#include <gtest/gtest.h>

#include <cstdio>

namespace fakes {

FakeBus& FakeBus::Get() {
  static FakeBus bus;
  return bus;
}

}  // namespace fakes

int XSSubNotify(const char*, int, XSNotifyCallback*) { return XS_OK; }
int XSUnsubNotify(const char*, int, XSNotifyCallback*) { return XS_OK; }
int XSExecuteCommand(const char*, int, CXML*, CXML*) { return XS_E_UNKNOWN; }

int XSExpressNotify(const char* szSource, int nNtfId, CXML* pDoc, void* pExtra) {
  EXPECT_STREQ(szSource, "{8836E13D-A307-43DF-8C88-B7783DC728BF}");
  EXPECT_EQ(pExtra, nullptr);
  char id[16];
  std::snprintf(id, sizeof id, "%x ", static_cast<unsigned>(nNtfId));
  fakes::FakeBus::Get().expressed.push_back(id + pDoc->GetDoc());
  return XS_OK;
}
