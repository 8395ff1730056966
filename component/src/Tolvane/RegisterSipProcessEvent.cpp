// The road from the SIP stack to the bus: an event is matched to its registration, which decides
// what it means, and becomes a notification. All of it runs on the stack's delivery thread, with
// the registry locked.

#include <memory>

#include "Brunelib/identities.h"
#include "ParserBaseImpl.h"
#include "RegEventRecord.h"
#include "RegisterSipProcess.h"
#include "RegLog.h"

const PS_EVENT_ENTRY CRegisterSipProcess::s_astEvents[] = {
    {SIP_EVENT_REGISTER_RESPONSE,
     static_cast<PS_EVENT_HANDLER>(&CRegisterSipProcess::OnRegisterRsp)},
    {SIP_EVENT_REGISTER_TIMEOUT,
     static_cast<PS_EVENT_HANDLER>(&CRegisterSipProcess::OnRegisterErr)},
    {SIP_EVENT_REGISTER_UNSENT, static_cast<PS_EVENT_HANDLER>(&CRegisterSipProcess::OnRegisterErr)},
    {0, nullptr},
};

const PS_EVENT_MAP CRegisterSipProcess::s_stRegEventMap = {&CPSObject::s_stEventMap, s_astEvents};

const PS_EVENT_MAP* CRegisterSipProcess::GetEventMap() const { return &s_stRegEventMap; }

int CRegisterSipProcess::OnRegisterRsp(SipStackEvent* pEvent) {
  const CLocker oLocker(*this);
  REG_LOG_KEYS("resp m_mapRegister is %d\n");
  if (CRegister* const pRegister = FindByStackId(pEvent->nStackId)) {
    REG_LOG(E_LOG_INFO, "OnRegisterRsp id is %d\n", pRegister->GetRegId());
    CRegEventRecord oRecord(-1);
    pRegister->OnRegRsp(pEvent, *oRecord.Get());
    OnRegEvent(pRegister, oRecord.Get());
  }
  return 0;
}

int CRegisterSipProcess::OnRegisterErr(SipStackEvent* pEvent) {
  const CLocker oLocker(*this);
  if (CRegister* const pRegister = FindByStackId(pEvent->nStackId)) {
    REG_LOG(E_LOG_INFO, "OnRegisterRsp id is %d\n", pRegister->GetRegId());
    CRegEventRecord oRecord(-1);
    pRegister->OnRegError(pEvent, *oRecord.Get());
    OnRegEvent(pRegister, oRecord.Get());
  }
  return 0;
}

void CRegisterSipProcess::FreeRegEvent(ST_REG_EVENT* pRegEvent) {
  delete[] pRegEvent->strAor;
  delete[] pRegEvent->pszReserved;
  delete[] pRegEvent->strWarnText;
}

std::string CRegisterSipProcess::GetEventWord(int nEventWord) const {
  const auto itWord = m_mapRegEventName.find(nEventWord);
  return itWord != m_mapRegEventName.end() ? itWord->second : std::string();
}

int CRegisterSipProcess::OnRegEvent(CRegister* pRegister, ST_REG_EVENT* pRegEvent) {
  REG_LOG_SCOPE();
  const std::unique_ptr<CXML> oDoc(vktNew<CXML>());
  if (oDoc == nullptr) {
    REG_LOG(E_LOG_ERROR, "vktNew CXML failed!\n");
    return -1;
  }
  switch (pRegEvent->eRegEventType) {
    case E_REG_EVENT_SERVICE_LOST:
      EventSerLost(oDoc.get(), pRegEvent);
      break;
    case E_REG_EVENT_STATE_CHANGE:
      EventSubNotify(pRegister, pRegEvent, oDoc.get());
      break;
    case E_REG_EVENT_NONE:
      break;
    default:
      EventIgnore(pRegister, pRegEvent, oDoc.get());
      break;
  }
  return 0;
}

void CRegisterSipProcess::EventSerLost(CXML* pDoc, ST_REG_EVENT* pRegEvent) {
  const std::unique_ptr<CRegSerLost> oMsg(GetRegGlobal().m_pParserFactory->CreateRegSerLost());
  if (oMsg == nullptr) return;
  oMsg->m_nId = pRegEvent->nRegId;
  oMsg->Result(pDoc);
  XSExpressNotify(bus::registration::kIdentity, bus::registration::kNotifyServiceLost, pDoc,
                  nullptr);
}

void CRegisterSipProcess::EventSubNotify(CRegister* pRegister, ST_REG_EVENT* pRegEvent,
                                         CXML* pDoc) {
  {
    const std::unique_ptr<CRegStateNotify> oMsg(
        GetRegGlobal().m_pParserFactory->CreateRegStateNotify());
    if (oMsg == nullptr) return;
    oMsg->m_nId = pRegEvent->nRegId;
    oMsg->m_strEvent = GetEventWord(pRegEvent->nEventWord);
    oMsg->m_strState = pRegister->GetRegState() == E_REG_STATE_REGED ? "Active" : "Terminate";
    int nRetryAfter = 0;
    pRegister->GetRetryAfter(&nRetryAfter);
    if (nRetryAfter > 0) oMsg->m_nRetryAfter = nRetryAfter;
    oMsg->Result(pDoc);
    XSExpressNotify(bus::registration::kIdentity, bus::registration::kNotifyState, pDoc, nullptr);
  }
  if (pRegister->IsAutoReregister() == 0) {
    const int nRegId = pRegister->GetRegId();
    const bool bFree = Remove(pRegister, nRegId);
    REG_LOG(E_LOG_INFO, "EventSubNotify  nRegId is %d\n", nRegId);
    if (bFree) REG_LOG(E_LOG_INFO, "EventSubNotify vktDelete pReg");
    REG_LOG_KEYS("EventSubNotify: m_mapRegister is %d\n");
  }
}

void CRegisterSipProcess::EventIgnore(CRegister* pRegister, ST_REG_EVENT* pRegEvent, CXML* pDoc) {
  REG_LOG_SCOPE();
  {
    const std::unique_ptr<CRegNtfRsp> oMsg(GetRegGlobal().m_pParserFactory->CreateRegNtfRsp());
    if (oMsg == nullptr) return;
    oMsg->m_nId = pRegEvent->nRegId;
    switch (pRegEvent->eRegEventType) {
      case E_REG_EVENT_SUCCESS:
        oMsg->m_nResult = 0;
        if (pRegEvent->strAor != nullptr) oMsg->m_strUri = pRegEvent->strAor;
        break;
      case E_REG_EVENT_DEREGISTERED:
        oMsg->m_nResult = 0;
        break;
      default: {
        oMsg->m_nResult = -1;
        oMsg->m_nErrorCode = pRegEvent->nStatusCode;
        if (pRegEvent->nWarnCode != -1) {
          oMsg->m_nWarnCode = pRegEvent->nWarnCode;
          if (pRegEvent->strWarnText != nullptr) oMsg->m_strWarnText = pRegEvent->strWarnText;
        }
        int nRetryAfter = 0;
        pRegister->GetRetryAfter(&nRetryAfter);
        if (nRetryAfter > 0) oMsg->m_nRetryAfter = nRetryAfter;
        break;
      }
    }
    oMsg->Result(pDoc);
    REG_LOG(E_LOG_INFO, "strRegEvent.eRegEventType is %d\n", pRegEvent->eRegEventType);
    if (pRegEvent->eRegEventType == E_REG_EVENT_DEREGISTERED) {
      XSExpressNotify(bus::registration::kIdentity, bus::registration::kNotifyDeregistered, pDoc,
                      nullptr);
    } else if (pRegister->IsEventPost() == 0) {
      REG_LOG(E_LOG_INFO, "do not post reg event!\n");
    } else {
      REG_LOG(E_LOG_INFO, "post event!\n");
      XSExpressNotify(bus::registration::kIdentity, bus::registration::kNotifyOutcome, pDoc,
                      nullptr);
    }
    REG_LOG_KEYS("post event m_mapRegister is %d\n");
  }
  if (pRegEvent->eRegEventType == E_REG_EVENT_SUCCESS) {
    // At every success, so that a subscription that did not come about is asked for again.
    if (pRegister->GetSubscribeId() <= 0 && pRegister->IsSubscribeEnabled() != 0) {
      Subscribe(pRegister, E_SUB_EXPIRES);
    }
    return;
  }
  const int nRegId = pRegister->GetRegId();
  const bool bFree = Remove(pRegister, nRegId);
  REG_LOG(E_LOG_INFO, "EventIgnore regid is %d\n", nRegId);
  if (bFree) REG_LOG(E_LOG_INFO, "EventIgnore vktDelete pReg");
  REG_LOG_KEYS("EventIgnore: m_mapRegister is %d\n");
}
