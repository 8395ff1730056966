// A plug-in for the tests of the bus. It tells of its start and end by notifications 1 and 2, and
// leaves a subscription behind for the bus to take back.
#include <atomic>
#include <cstring>
#include <thread>

#include "Brunelib/Brunelib.h"

#ifndef BUS_INITIALIZE
#define BUS_INITIALIZE 0
#endif

namespace {

int g_commands = 0;  // starts again with every load
std::atomic<bool> g_inside{false};
std::atomic<bool> g_release{false};

}  // namespace

extern "C" {

TOLVANE_PUBLIC int BUSInformation(void* pInfo) {
  std::strcpy(static_cast<XSComponentInfo*>(pInfo)->szIdentity, BUS_IDENTITY);
  return 0;
}

// Notification 6 comes back as notification 7.
TOLVANE_PUBLIC int BUSNtfCallBack(const char*, int, CXML* pDoc, void* pExtra) {
  return XSExpressNotify(BUS_IDENTITY, 7, pDoc, pExtra);
}

TOLVANE_PUBLIC int BUSInitialize(void*) {
  XSSubNotify("{T}", 6, BUSNtfCallBack);
  XSExpressNotify(BUS_IDENTITY, 1, nullptr, nullptr);
  return BUS_INITIALIZE;
}

TOLVANE_PUBLIC int BUSUninitialize() { return XSExpressNotify(BUS_IDENTITY, 2, nullptr, nullptr); }

// 1: counts; 2: stays inside until 4 has come; 3: is anybody inside?
TOLVANE_PUBLIC int BUSCmdCallBack(int nCmdId, CXML* pIn, CXML* pOut) {
  if (pIn != nullptr) *pOut = *pIn;
  if (nCmdId == 1) return ++g_commands;
  if (nCmdId == 3) return g_inside ? 1 : 0;
  if (nCmdId == 4) g_release = true;
  if (nCmdId == 2) g_inside = true;
  while (g_inside && !g_release) std::this_thread::yield();
  return 0;
}

}  // extern "C"
