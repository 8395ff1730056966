// A plug-in for the tests of the bus. It tells the world of its start and end by notifications 1
// and 2, and leaves a subscription behind for the bus to take back.
#include <atomic>
#include <cstring>
#include <thread>

#include "Brunelib/Brunelib.h"

#ifndef BUS_INITIALIZE
#define BUS_INITIALIZE 0
#endif

namespace {

int g_commands = 0;  // starts anew with every load
std::atomic<bool> g_inside{false};
std::atomic<bool> g_release{false};

}  // namespace

extern "C" {

TOLVANE_PUBLIC int BUSInformation(void* pInfo) {
  XSComponentInfo& info = *static_cast<XSComponentInfo*>(pInfo);
  std::strcpy(info.szIdentity, BUS_IDENTITY);
  std::strcpy(info.szVendor, "Tolvane");
  return 0;
}

// Notification 6 comes back as notification 7, with the same document.
TOLVANE_PUBLIC int BUSNtfCallBack(const char*, int, CXML* pDoc, void* pExtra) {
  return XSExpressNotify(BUS_IDENTITY, 7, pDoc, pExtra);
}

TOLVANE_PUBLIC int BUSInitialize(void*) {
  XSSubNotify("{T}", 6, BUSNtfCallBack);
  XSExpressNotify(BUS_IDENTITY, 1, nullptr, nullptr);
  return BUS_INITIALIZE;
}

TOLVANE_PUBLIC int BUSUninitialize() {
  XSExpressNotify(BUS_IDENTITY, 2, nullptr, nullptr);
  return 0;
}

// 1: counts; 2: stays inside until 4 has come; 3: is anybody inside?; 5: answers with what it was
// given.
TOLVANE_PUBLIC int BUSCmdCallBack(int nCmdId, CXML* pIn, CXML* pOut) {
  switch (nCmdId) {
    case 1:
      return ++g_commands;
    case 2:
      g_inside = true;
      while (!g_release) std::this_thread::yield();
      g_inside = false;
      return 0;
    case 3:
      return g_inside ? 1 : 0;
    case 4:
      g_release = true;
      return 0;
    case 5:
      pIn->ResetPos();
      pIn->FindElem("in");
      pOut->AddElem("out", pIn->GetData().c_str(), 0);
      return 0;
    default:
      return -1;
  }
}

}  // extern "C"
