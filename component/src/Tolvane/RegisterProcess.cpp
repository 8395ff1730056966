#include "RegisterProcess.h"

#include <algorithm>
#include <cstddef>
#include <iterator>
#include <memory>

#include "Brunelib/identities.h"
#include "Register.h"
#include "RegisterSipProcess.h"
#include "RegLog.h"
#include "XMLParserImpl.h"

namespace {

// Ends a registration that a command has begun and could not finish.
class [[nodiscard]] CUnlessDone {
 public:
  CUnlessDone(CRegister* pRegister, int nRegId) : m_pRegister(pRegister), m_nRegId(nRegId) {}
  ~CUnlessDone() {
    if (m_pRegister != nullptr) {
      GetRegGlobal().m_pRegisterSipProcess->DeleteRegister(m_nRegId, m_pRegister);
    }
  }
  CUnlessDone(const CUnlessDone&) = delete;
  CUnlessDone& operator=(const CUnlessDone&) = delete;
  void Done() { m_pRegister = nullptr; }

 private:
  CRegister* m_pRegister;
  int m_nRegId;
};

// A row for a notification of the subscription service.
using SUB_NTF_HANDLER = int (CRegisterProcess::*)(const char* szSource, CXML* pDoc, void* pExtra);
constexpr US_NTF_ENTRY SubRow(int nNtfId, SUB_NTF_HANDLER pHandler) {
  US_NTF_ENTRY stRow = {"", nNtfId, static_cast<US_NTF_HANDLER>(pHandler)};
  std::copy(std::begin(bus::subscription::kIdentity), std::end(bus::subscription::kIdentity),
            stRow.szSource);
  return stRow;
}

}  // namespace

const US_CMD_ENTRY CRegisterProcess::s_astCommands[] = {
    {bus::registration::kCommandSettings,
     static_cast<US_CMD_HANDLER>(&CRegisterProcess::RegSystemSettings)},
    {bus::registration::kCommandLogSwitch,
     static_cast<US_CMD_HANDLER>(&CRegisterProcess::OnLogSwitch)},
    {bus::registration::kCommandReadConfig,
     static_cast<US_CMD_HANDLER>(&CRegisterProcess::OnReadConf)},
    {bus::registration::kCommandRegister,
     static_cast<US_CMD_HANDLER>(&CRegisterProcess::OnRegister)},
    {bus::registration::kCommandDeregister,
     static_cast<US_CMD_HANDLER>(&CRegisterProcess::OnDeregister)},
    {0, nullptr},
};

const US_NTF_ENTRY CRegisterProcess::s_astNotifies[] = {
    SubRow(bus::subscription::kNotifyLife, &CRegisterProcess::OnSubSuccessNtf),
    SubRow(bus::subscription::kNotifyFailure, &CRegisterProcess::OnSubFailureNtf),
    SubRow(bus::subscription::kNotifyBody, &CRegisterProcess::OnSubNotifyNtf),
    {"", 0, nullptr},
};

const US_MSG_MAP CRegisterProcess::s_stRegMsgMap = {&CUSObject::s_stMsgMap, s_astCommands,
                                                    s_astNotifies};

const US_MSG_MAP* CRegisterProcess::GetMsgMap() const { return &s_stRegMsgMap; }

int CRegisterProcess::Initialize(void* /*pParam*/) {
  return GetRegGlobal().m_pRegisterSipProcess->Initialize();
}

int CRegisterProcess::Uninitialize() {
  return GetRegGlobal().m_pRegisterSipProcess->Uninitialize();
}

int CRegisterProcess::OnRegister(CXML* pIn, CXML* pOut) {
  REG_LOG_SCOPE();
  CRegisterSipProcess* const pManager = GetRegGlobal().m_pRegisterSipProcess;
  const std::unique_ptr<CRegMsg> oMsg(GetRegGlobal().m_pParserFactory->CreateRegMsg());
  if (oMsg == nullptr) return -1;

  int nResult = oMsg->Parse(pIn);
  if (nResult != 0) {
    oMsg->m_nResult = nResult;
    oMsg->Result(pOut);
    return nResult;
  }

  const bool bNew = oMsg->m_nId <= 0;
  int nRegId = oMsg->m_nId;
  const CRegisterHold oRegister(
      bNew ? pManager->CreateRegister(&nRegId) : pManager->GetRegisterById(nRegId),
      CRegisterHold::E_ADOPT);
  if (!oRegister) {
    if (bNew) {
      REG_LOG(E_LOG_ERROR, "Register object is null!\n");
    } else {
      REG_LOG(E_LOG_ERROR, "Register is KD_NULL\n");
    }
    return -1;
  }
  // Also when memory runs out below: a client that is told -1 has no registration.
  CUnlessDone oUnlessDone(oRegister.Get(), nRegId);
  if (bNew) {
    oMsg->m_nId = nRegId;
    oRegister->SetRegInfo(*oMsg);
    oRegister->SetRefreshEnabled(oMsg->m_bAutoRefresh);
    oRegister->SetSubscribeEnabled(oMsg->m_bSubscribe);
  }
  nResult = oRegister->Register() == 0 ? 0 : -1;
  oMsg->m_nResult = nResult;
  oMsg->Result(pOut);
  if (nResult == 0) oUnlessDone.Done();
  return nResult;
}

int CRegisterProcess::OnDeregister(CXML* pIn, CXML* pOut) {
  CXMLCDeReg oMsg;
  int nResult = oMsg.Parse(pIn);
  if (nResult == 0) {
    REG_LOG(E_LOG_INFO, "Deregister id is %d\n", oMsg.m_nId);
    CRegisterSipProcess* const pManager = GetRegGlobal().m_pRegisterSipProcess;
    const CRegisterHold oRegister(pManager->GetRegisterById(oMsg.m_nId), CRegisterHold::E_ADOPT);
    if (!oRegister) {
      REG_LOG(E_LOG_ERROR, "DeRegister object is null!\n");
      return -1;
    }
    if (oMsg.m_bDesubscribe == 0) {
      pManager->KeepSubscription(oMsg.m_nId);
    } else if (oRegister->IsSubscribeEnabled() != 0) {
      pManager->Desubscribe(oMsg.m_nId);
    }
    nResult = oRegister->Deregister(oMsg.m_bNoSend);
    if (nResult == -1 || oMsg.m_bNoSend != 0) {
      pManager->DeleteRegister(oMsg.m_nId, oRegister.Get());
    }
  }
  oMsg.m_nResult = nResult;
  oMsg.Result(pOut);
  return nResult;
}

int CRegisterProcess::OnSubSuccessNtf(const char* /*szSource*/, CXML* pDoc, void* /*pExtra*/) {
  GetRegGlobal().m_pRegisterSipProcess->SubEventDispatch(bus::subscription::kNotifyLife, pDoc);
  return 0;
}

int CRegisterProcess::OnSubFailureNtf(const char* /*szSource*/, CXML* pDoc, void* /*pExtra*/) {
  GetRegGlobal().m_pRegisterSipProcess->SubEventDispatch(bus::subscription::kNotifyFailure, pDoc);
  return 0;
}

int CRegisterProcess::OnSubNotifyNtf(const char* /*szSource*/, CXML* pDoc, void* /*pExtra*/) {
  GetRegGlobal().m_pRegisterSipProcess->SubEventDispatch(bus::subscription::kNotifyBody, pDoc);
  return 0;
}

// ---- the exported functions

int TOLVANE_XSCInformation(XSComponentInfo* pInfo) {
  if (pInfo == nullptr) return -1;
  XSComponentInfo stInfo = {};
  kdStrcpy_s(stInfo.szIdentity, sizeof stInfo.szIdentity, bus::registration::kIdentity);
  stInfo.nNumber = 1;
  stInfo.nVersion[1] = 1;
  stInfo.nYear = 2011;
  stInfo.nMonth = 3;
  stInfo.nDay = 17;
  kdStrcpy_s(stInfo.szVendor, sizeof stInfo.szVendor, "Tolvane");
  kdStrcpy_s(stInfo.szText, sizeof stInfo.szText, "");
  // The first field is the host's.
  constexpr std::size_t nOwn = offsetof(XSComponentInfo, szIdentity);
  kdMemcpy(reinterpret_cast<char*>(pInfo) + nOwn, reinterpret_cast<const char*>(&stInfo) + nOwn,
           sizeof stInfo - nOwn);
  return 0;
}

int TOLVANE_XSCInitialize(void* pParam) {
  const CRegGlobal& oGlobal = GetRegGlobal();
  // Memory that ran out at load.
  if (oGlobal.m_pParserFactory == nullptr || oGlobal.m_pRegisterSipProcess == nullptr ||
      oGlobal.m_pRegisterProcess == nullptr) {
    return -1;
  }
  try {
    oGlobal.m_pRegisterProcess->RegisterNotifies(TOLVANE_XSCNtfCallBack);
    return oGlobal.m_pRegisterProcess->Initialize(pParam);
  } catch (...) {
    return -1;
  }
}

int TOLVANE_XSCUninitialize() {
  CRegisterProcess* const pProcess = GetRegGlobal().m_pRegisterProcess;
  if (pProcess == nullptr || GetRegGlobal().m_pRegisterSipProcess == nullptr) return 0;
  try {
    pProcess->UnregisterNotifies(TOLVANE_XSCNtfCallBack);
    return pProcess->Uninitialize();
  } catch (...) {
    return 0;
  }
}

int TOLVANE_XSCCmdCallBack(int nCmdId, CXML* pIn, CXML* pOut) {
  CRegisterProcess* const pProcess = GetRegGlobal().m_pRegisterProcess;
  if (pProcess == nullptr) return -1;
  try {
    return pProcess->OnCommand(nCmdId, pIn, pOut);
  } catch (...) {
    return -1;
  }
}

int TOLVANE_XSCNtfCallBack(const char* szSource, int nNtfId, CXML* pDoc, void* pExtra) {
  CRegisterProcess* const pProcess = GetRegGlobal().m_pRegisterProcess;
  if (pProcess == nullptr) return -1;
  try {
    return pProcess->OnNotify(szSource, nNtfId, pDoc, pExtra);
  } catch (...) {
    return -1;
  }
}
