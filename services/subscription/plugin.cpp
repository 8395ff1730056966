// The service as a plug-in of the bus: the five functions that its host calls.

#include <cstring>
#include <memory>

#include "base/mutex.h"
#include "Brunelib/Brunelib.h"
#include "Brunelib/identities.h"
#include "service.h"

namespace {

// How long the end of the plug-in waits for the last NOTIFYs.
constexpr std::chrono::milliseconds kPatience{2000};

// Set from Initialize to Uninitialize; commands hold the lock shared.
base::SharedMutex g_mutex;
std::shared_ptr<subscription::Service> g_service TOLVANE_GUARDED_BY(g_mutex);

}  // namespace

extern "C" {

TOLVANE_PUBLIC int SUBSCRIPTION_XSCInformation(XSComponentInfo* pInfo) {
  if (pInfo == nullptr) return -1;
  const std::int32_t nHostUse = pInfo->nHostUse;
  *pInfo = XSComponentInfo{};
  pInfo->nHostUse = nHostUse;
  std::strncpy(pInfo->szIdentity, bus::subscription::kIdentity, sizeof pInfo->szIdentity - 1);
  std::strncpy(pInfo->szVendor, "Tolvane", sizeof pInfo->szVendor - 1);
  std::strncpy(pInfo->szText, "SIP subscriptions", sizeof pInfo->szText - 1);
  pInfo->nNumber = 2;
  pInfo->nVersion[1] = 1;
  pInfo->nYear = 2026;
  pInfo->nMonth = 11;
  pInfo->nDay = 22;
  return 0;
}

TOLVANE_PUBLIC int SUBSCRIPTION_XSCInitialize(void* /*pParam*/) {
  try {
    const base::WriterLock lock(g_mutex);
    if (g_service != nullptr) return -1;
    g_service = std::make_shared<subscription::Service>();
    return 0;
  } catch (const std::bad_alloc&) {
    return -1;
  }
}

TOLVANE_PUBLIC int SUBSCRIPTION_XSCUninitialize() {
  std::shared_ptr<subscription::Service> service;
  {
    const base::WriterLock lock(g_mutex);
    service.swap(g_service);
  }
  try {
    if (service != nullptr) service->Stop(kPatience);
  } catch (const std::bad_alloc&) {
    sivra::ForgetListener(service.get());
  }
  return 0;
}

TOLVANE_PUBLIC int SUBSCRIPTION_XSCCmdCallBack(int nCmdId, CXML* pIn, CXML* pOut) {
  try {
    const base::ReaderLock lock(g_mutex);
    return g_service != nullptr ? g_service->OnCommand(nCmdId, pIn, pOut) : -1;
  } catch (const std::bad_alloc&) {
    return -1;
  }
}

// It subscribes to nothing.
TOLVANE_PUBLIC int SUBSCRIPTION_XSCNtfCallBack(const char* /*szSource*/, int /*nNtfId*/,
                                               CXML* /*pDoc*/, void* /*pExtra*/) {
  return -1;
}

}  // extern "C"
