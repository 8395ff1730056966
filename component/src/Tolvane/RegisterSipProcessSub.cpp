// The subscription to the registrar's own view: exchanges with the subscription service, and what
// its notifications do.
//
// An exchange is a bus command that has to run on m_hMainThread with no lock held, so it is put
// into a block, queued, and a thread event sets the queue going. m_oRegMgrMutex guards the queue
// and the members of a CRegister that belong to its subscription.

#include <chrono>
#include <cstddef>
#include <memory>
#include <new>
#include <thread>
#include <utility>
#include <vector>

#include "Brunelib/identities.h"
#include "ParserBaseImpl.h"
#include "RegEventRecord.h"
#include "RegLog.h"

namespace {

constexpr std::size_t E_SUB_EARLY_MAX = 64;

}  // namespace

// One exchange with its own documents.
struct ST_SUB_PENDING {
  explicit ST_SUB_PENDING(int nEvent) : nType(nEvent) {}

  const int nType;  // of the thread event
  // Of a subscribe. The pointer is only compared: its object may have gone when the block runs.
  int nRegId = 0;
  CRegister* pRegister = nullptr;
  std::unique_ptr<CRegSubcribe> pSubMsg;
  const std::unique_ptr<CXML> pRequest{vktNew<CXML>()};
  const std::unique_ptr<CXML> pResponse{vktNew<CXML>()};
  ST_SUB_PENDING* pNext = nullptr;
};

namespace {

// A block with both documents, or null.
std::unique_ptr<ST_SUB_PENDING> NewSubPending(int nType) {
  std::unique_ptr<ST_SUB_PENDING> pPending(vktNew<ST_SUB_PENDING>(nType));
  if (pPending != nullptr && (pPending->pRequest == nullptr || pPending->pResponse == nullptr)) {
    pPending.reset();
  }
  return pPending;
}

// A desubscribe for this subscription, or null.
std::unique_ptr<ST_SUB_PENDING> NewDesubscribe(int nSubscribeId) {
  try {
    std::unique_ptr<ST_SUB_PENDING> pPending = NewSubPending(E_SUB_EVENT_DESUBSCRIBE);
    const std::unique_ptr<CRegDeSub> pMsg(GetRegGlobal().m_pParserFactory->CreateRegDeSub());
    if (pPending == nullptr || pMsg == nullptr) return nullptr;
    pMsg->m_nId = nSubscribeId;
    pMsg->Result(pPending->pRequest.get());
    return pPending;
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

void RunDesubscribe(const ST_SUB_PENDING& stPending) {
  XSExecuteCommand(bus::subscription::kIdentity, bus::subscription::kCommandDesubscribe,
                   stPending.pRequest.get(), stPending.pResponse.get());
}

}  // namespace

// ---- asking, with m_oRegMgrMutex held

// Takes the block; false when there is none.
bool CRegisterSipProcess::QueueSubPending(std::unique_ptr<ST_SUB_PENDING> pPending) {
  if (pPending == nullptr) return false;
  const int nType = pPending->nType;
  ST_SUB_PENDING*& pEnd =
      m_stSubPending.pFirst == nullptr ? m_stSubPending.pFirst : m_stSubPending.pLast->pNext;
  pEnd = m_stSubPending.pLast = pPending.release();
  CRegister::PostThreadEvent(nType, this, m_hMainThread);
  return true;
}

void CRegisterSipProcess::Subscribe(CRegister* pRegister, int nExpires) {
  REG_LOG_SCOPE();
  if (pRegister->IsSubExchanging()) {
    // The event of a block that still waits may have got no memory.
    if (m_stSubPending.pFirst != nullptr) {
      CRegister::PostThreadEvent(E_SUB_EVENT_SUBSCRIBE, this, m_hMainThread);
    }
    return;
  }
  std::unique_ptr<ST_SUB_PENDING> pPending = NewSubPending(E_SUB_EVENT_SUBSCRIBE);
  if (pPending == nullptr) {
    REG_LOG(E_LOG_ERROR, "vktNew CXML failed!\n");
    return;
  }
  pPending->pSubMsg.reset(GetRegGlobal().m_pParserFactory->CreateRegSubcribe());
  CRegSubcribe* const pMsg = pPending->pSubMsg.get();
  if (pMsg == nullptr) return;  // the next success asks again
  pMsg->m_strFrom = pRegister->GetDefaultUri();
  pMsg->m_strTo = pMsg->m_strFrom;
  pMsg->m_strEvent = "reg";
  pMsg->m_nExpires = nExpires;
  pMsg->Result(pPending->pRequest.get());
  pPending->nRegId = pRegister->GetRegId();
  pPending->pRegister = pRegister;
  pRegister->SetSubExchanging(true);
  pRegister->SetLeftSubscription(false);  // what was said was said of an earlier one
  m_stSubPending.bSubscribed = true;
  QueueSubPending(std::move(pPending));
}

void CRegisterSipProcess::Desubscribe(int nRegId) {
  REG_LOG_SCOPE();
  const CLocker oLocker(*this);
  CRegister* const pRegister = m_mapRegister.Find(nRegId);
  if (pRegister == nullptr) {
    REG_LOG(E_LOG_ERROR, "Register is not exist!\n");
    return;
  }
  if (pRegister->IsSubscribeEnabled() == 0) return;
  int nSubscribeId = -1;
  for (const auto& [nKey, nValue] : m_mapSubscribe) {
    if (nValue == nRegId) {
      nSubscribeId = nKey;
      break;
    }
  }
  if (!QueueSubPending(NewDesubscribe(nSubscribeId))) {
    REG_LOG(E_LOG_ERROR, "vktNew CXML failed!\n");
    return;
  }
  if (nSubscribeId > 0) pRegister->SetLeftSubscription(true);
}

void CRegisterSipProcess::KeepSubscription(int nRegId) {
  const CLocker oLocker(*this);
  if (CRegister* const pRegister = m_mapRegister.Find(nRegId)) {
    pRegister->SetLeftSubscription(true);
  }
}

// The subscription of a registration that leaves the registry. Nobody else would end it, and the
// service would refresh it for ever.
void CRegisterSipProcess::EndSubscription(CRegister* pRegister) {
  const int nSubscribeId = pRegister->GetSubscribeId();
  if (nSubscribeId <= 0) return;
  m_mapSubscribe.erase(nSubscribeId);
  if (!pRegister->HasLeftSubscription()) QueueSubPending(NewDesubscribe(nSubscribeId));
}

// ---- the exchanges, on m_hMainThread with no lock held

void CRegisterSipProcess::SubEventCallBack(const KDEvent* pKdEvent) {
  REG_LOG_SCOPE();
  CRegisterSipProcess& oManager = *GetRegGlobal().m_pRegisterSipProcess;
  if (pKdEvent == nullptr || !oManager.HasSubscribed()) {
    REG_LOG(E_LOG_INFO, "Leave SubEventCallBack because of null pointer;\n");
    while (oManager.TakeSubPending() != nullptr) {
    }
    return;
  }
  if (pKdEvent->userptr == nullptr) return;
  // All that wait, since another one's event may have got no memory.
  while (const std::unique_ptr<ST_SUB_PENDING> pPending = oManager.TakeSubPending()) {
    if (pPending->nType == E_SUB_EVENT_SUBSCRIBE) {
      oManager.RunSubscribe(*pPending);
    } else {
      RunDesubscribe(*pPending);
    }
  }
}

bool CRegisterSipProcess::HasSubscribed() {
  const CLocker oLocker(*this);
  return m_stSubPending.bSubscribed;
}

std::unique_ptr<ST_SUB_PENDING> CRegisterSipProcess::TakeSubPending() {
  const CLocker oLocker(*this);
  std::unique_ptr<ST_SUB_PENDING> pPending(m_stSubPending.pFirst);
  if (pPending != nullptr) m_stSubPending.pFirst = pPending->pNext;
  return pPending;
}

void CRegisterSipProcess::RunSubscribe(const ST_SUB_PENDING& stPending) {
  CRegSubcribe& oMsg = *stPending.pSubMsg;
  SetSubRunning();
  try {
    if (XSExecuteCommand(bus::subscription::kIdentity, bus::subscription::kCommandSubscribe,
                         stPending.pRequest.get(), stPending.pResponse.get()) == 0) {
      oMsg.Parse(stPending.pResponse.get());
    }
  } catch (const std::bad_alloc&) {
    REG_LOG(E_LOG_ERROR, "vktNew CXML failed!\n");
  }
  try {
    if (EnterSubscription(stPending, oMsg.m_nId)) return;
    const std::unique_ptr<ST_SUB_PENDING> pEnd = NewDesubscribe(oMsg.m_nId);
    if (pEnd != nullptr) RunDesubscribe(*pEnd);
  } catch (const std::bad_alloc&) {
    REG_LOG(E_LOG_ERROR, "vktNew CXML failed!\n");
  }
}

void CRegisterSipProcess::SetSubRunning() {
  const CLocker oLocker(*this);
  m_stSubPending.bRunning = true;
}

// What the service's answer means for the registration that asked. False: there is a subscription
// that nobody holds.
bool CRegisterSipProcess::EnterSubscription(const ST_SUB_PENDING& stPending, int nSubscribeId) {
  const CLocker oLocker(*this);
  m_stSubPending.bRunning = false;
  std::vector<ST_SUB_EARLY> vecEarly;
  vecEarly.swap(m_vecEarly);
  CRegister* const pRegister = m_mapRegister.Find(stPending.nRegId);
  if (pRegister == nullptr || pRegister != stPending.pRegister) return nSubscribeId <= 0;
  pRegister->SetSubExchanging(false);
  if (nSubscribeId <= 0) return true;
  try {
    m_mapSubscribe[nSubscribeId] = pRegister->GetRegId();
  } catch (const std::bad_alloc&) {
    return false;
  }
  pRegister->SetSubscribeId(nSubscribeId);
  for (const ST_SUB_EARLY& stEarly : vecEarly) {
    if (stEarly.nSubscribeId == nSubscribeId) ApplySubEvent(stEarly);
  }
  return true;
}

// At shutdown. The events in the queue of m_hMainThread name this object, so they go; what they
// would have ended at the service is ended from here.
void CRegisterSipProcess::EndSubExchanges() {
  const auto tEnd = std::chrono::steady_clock::now() + std::chrono::seconds(5);
  while (kdForgetUserPtr(m_hMainThread, this) != 0 && std::chrono::steady_clock::now() < tEnd) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  while (const std::unique_ptr<ST_SUB_PENDING> pPending = TakeSubPending()) {
    if (pPending->nType == E_SUB_EVENT_DESUBSCRIBE && HasSubscribed()) RunDesubscribe(*pPending);
  }
}

// ---- the service's notifications, on the bus's delivery thread

void CRegisterSipProcess::SubEventDispatch(int nNtfId, CXML* pDoc) {
  switch (nNtfId) {
    case bus::subscription::kNotifyLife:
      SubSuccess(nNtfId, pDoc);
      break;
    case bus::subscription::kNotifyFailure:
      SubFailure(nNtfId, pDoc);
      break;
    case bus::subscription::kNotifyBody:
      SubNotify(nNtfId, pDoc);
      break;
    default:
      break;
  }
}

void CRegisterSipProcess::SubSuccess(int nNtfId, CXML* pDoc) {
  if (nNtfId != bus::subscription::kNotifyLife || pDoc == nullptr) return;
  const std::unique_ptr<CRegSubSuccess> oMsg(
      GetRegGlobal().m_pParserFactory->CreateRegSubSuccess());
  if (oMsg == nullptr || oMsg->Parse(pDoc) != 0 || oMsg->m_strFinal != "SUB_STOP") return;
  const CLocker oLocker(*this);
  ApplySubEvent({oMsg->m_nId, true, {}});
}

void CRegisterSipProcess::SubFailure(int /*nNtfId*/, CXML* /*pDoc*/) {}

void CRegisterSipProcess::SubNotify(int nNtfId, CXML* pDoc) {
  if (nNtfId != bus::subscription::kNotifyBody || pDoc == nullptr) return;
  const std::unique_ptr<CRegSubNTFMsg> oMsg(GetRegGlobal().m_pParserFactory->CreateRegSubNTFMsg());
  if (oMsg == nullptr || oMsg->Parse(pDoc) != 0) return;
  bool bNoMemory = false;
  {
    const CLocker oLocker(*this);
    bNoMemory = !ApplySubEvent({oMsg->m_nId, false, std::move(oMsg->m_strMsgBody)});
  }
  if (bNoMemory) REG_LOG(E_LOG_ERROR, "Create xml Fail\n");
}

// With m_oRegMgrMutex held. False when there was no memory to tell the client.
bool CRegisterSipProcess::ApplySubEvent(const ST_SUB_EARLY& stEvent) {
  const auto itSubscribe = m_mapSubscribe.find(stEvent.nSubscribeId);
  if (itSubscribe == m_mapSubscribe.end()) {
    // The service may be faster than the thread that waits for its answer: the first document,
    // which tells our contact's id, must not be lost.
    if (m_stSubPending.bRunning && m_vecEarly.size() < E_SUB_EARLY_MAX) {
      m_vecEarly.push_back(stEvent);
    }
    return true;
  }
  CRegister* const pRegister = m_mapRegister.Find(itSubscribe->second);
  if (stEvent.bStop) {
    m_mapSubscribe.erase(itSubscribe);
    if (pRegister != nullptr) pRegister->SetSubscribeId(-1);
    return true;
  }
  if (pRegister == nullptr) return true;
  CRegEventRecord oRecord(0);
  const ST_REG_EVENT& stRegEvent = *oRecord.Get();
  const int nResult = pRegister->SubNotifyProc(stEvent.strBody, *oRecord.Get());
  // A record without an id: nothing in the document was about this registration.
  if (nResult != 0 || stRegEvent.eRegEventType == E_REG_EVENT_NONE || stRegEvent.nRegId == 0) {
    return true;
  }
  return NotifySubState(pRegister, stRegEvent);
}

// With m_oRegMgrMutex held. Tells the client of the registration's state; one that is not
// registered any more ends before. False without memory for the document.
bool CRegisterSipProcess::NotifySubState(CRegister* pRegister, const ST_REG_EVENT& stRegEvent) {
  const std::unique_ptr<CXML> oDoc(vktNew<CXML>());
  const std::unique_ptr<CRegStateNotify> oNotify(
      GetRegGlobal().m_pParserFactory->CreateRegStateNotify());
  if (oDoc == nullptr || oNotify == nullptr) return false;
  oNotify->m_nId = stRegEvent.nRegId;
  oNotify->m_strEvent = GetEventWord(stRegEvent.nEventWord);
  const bool bActive = stRegEvent.eRegState == E_REG_STATE_REGED;
  oNotify->m_strState = bActive ? "Active" : "Terminate";
  oNotify->Result(oDoc.get());
  if (!bActive) {
    const int nRegId = pRegister->GetRegId();
    REG_LOG(E_LOG_INFO, "SubNotify: id is %d\n", nRegId);
    if (Remove(pRegister, nRegId)) REG_LOG(E_LOG_INFO, "SubNotify:vktDelete pReg");
    REG_LOG_KEYS("SubNotify: m_mapRegister is %d\n");
  }
  XSExpressNotify(bus::registration::kIdentity, bus::registration::kNotifyState, oDoc.get(),
                  nullptr);
  return true;
}
