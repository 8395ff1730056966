// The subscription service with a command handler that takes its time and refuses every fourth
// subscribe. It is built together with the plug-in, whose own handler goes by another name then.
#include <atomic>
#include <chrono>
#include <thread>

#include "Brunelib/Brunelib.h"

extern "C" {

int TrueCommand(int nCmdId, CXML* pIn, CXML* pOut);

TOLVANE_PUBLIC int SUBSCRIPTION_XSCCmdCallBack(int nCmdId, CXML* pIn, CXML* pOut) {
  static std::atomic<unsigned> g_subscribes{0};
  const unsigned nSubscribe = nCmdId == 2 ? ++g_subscribes : 1;
  if (nSubscribe % 4 == 0) return -1;
  std::this_thread::sleep_for(std::chrono::milliseconds(nSubscribe % 5));
  const int nResult = TrueCommand(nCmdId, pIn, pOut);
  std::this_thread::sleep_for(std::chrono::milliseconds(nSubscribe % 7));
  return nResult;
}

}  // extern "C"
