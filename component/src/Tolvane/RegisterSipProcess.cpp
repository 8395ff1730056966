// The registry, start and stop. Stack events are in RegisterSipProcessEvent.cpp.

#include "RegisterSipProcess.h"

#include "RegLog.h"

CRegisterSipProcess::~CRegisterSipProcess() {
  // A host that unloads without stopping first: the stack, timers and queues must not name what
  // goes now.
  if (m_hMainThread != nullptr) Uninitialize();
}

int CRegisterSipProcess::Initialize() {
  const int nResult = Sipcarrier_RegisterHandler(this);
  InitTables();
  return nResult;
}

void CRegisterSipProcess::InitTables() {
  m_mapRegEventName = {
      {E_REG_WORD_REGISTERED, "registered"},
      {E_REG_WORD_CREATED, "created"},
      {E_REG_WORD_REFRESHED, "refreshed"},
      {E_REG_WORD_SHORTED, "shorted"},
      {E_REG_WORD_EXPIRED, "expired"},
      {E_REG_WORD_DEACTIVATED, "deactivated"},
      {E_REG_WORD_PROBATION, "probation"},
      {E_REG_WORD_UNREGISTERED, "unregistered"},
      {E_REG_WORD_REJECTED, "rejected"},
      {E_REG_WORD_TIMEOUT, "timeout"},
      {E_REG_WORD_AUTO_REREGISTER, "auto-reregister"},
  };
  kdInstallCallback(SubEventCallBack, E_SUB_EVENT_SUBSCRIBE, this);
  kdInstallCallback(SubEventCallBack, E_SUB_EVENT_DESUBSCRIBE, this);
  m_hMainThread = kdThreadSelf();
}

int CRegisterSipProcess::Uninitialize() {
  Sipcarrier_DeRegisterHandler(this);
  ClearRegisters();
  EndSubExchanges();
  // Queues and timers that name a registration name code of this library too, which may go at any
  // moment now.
  m_oEnd.FreeAll();
  m_mapRegEventName.clear();
  m_hMainThread = nullptr;
  const CLocker oLocker(*this);
  m_mapSubscribe.clear();
  return 0;
}

void CRegisterSipProcess::ClearRegisters() {
  const CLocker oLocker(*this);
  for (int nId = m_mapRegister.First(); nId != 0; nId = m_mapRegister.First()) {
    Remove(m_mapRegister.Find(nId), nId);
  }
}

void CRegisterSipProcess::RegMgrLock() {
  REG_LOG(E_LOG_INFO, "Begin RegMgrLock;\n");
  m_oRegMgrMutex.Lock();
}

void CRegisterSipProcess::RegMgrUnlock() {
  m_oRegMgrMutex.Unlock();
  REG_LOG(E_LOG_INFO, "After RegMgrLock;\n");
}

CRegister* CRegisterSipProcess::CreateRegister(int* pnRegId) {
  REG_LOG_SCOPE();
  m_oEnd.Sweep();
  CRegister* const pRegister = vktNew<CRegister>(m_oEnd, m_oStackIds);
  if (pRegister == nullptr) return nullptr;
  const CLocker oLocker(*this);
  int nRegId = 0;
  try {
    nRegId = m_mapRegister.Add(pRegister);
  } catch (const std::bad_alloc&) {
    // As when all ids are in use.
  }
  if (nRegId == 0) {
    vktDelete(pRegister);
    return nullptr;
  }
  CRegisterEnd::Hold(pRegister->GetEndNode());
  *pnRegId = nRegId;
  REG_LOG(E_LOG_INFO, "new  nRegId is %d\n", nRegId);
  REG_LOG_KEYS("CreateRegister:new after m_mapRegister is %d\n");
  return pRegister;
}

CRegister* CRegisterSipProcess::GetRegisterById(int nRegId) {
  const CLocker oLocker(*this);
  REG_LOG_KEYS("GetRegisterById: m_mapRegister is %d\n");
  CRegister* const pRegister = m_mapRegister.Find(nRegId);
  if (pRegister != nullptr) CRegisterEnd::Hold(pRegister->GetEndNode());
  return pRegister;
}

void CRegisterSipProcess::DeleteRegister(int nRegId, const CRegister* pOnly) {
  const CLocker oLocker(*this);
  CRegister* const pRegister = m_mapRegister.Find(nRegId);
  if (pRegister != nullptr && (pOnly == nullptr || pRegister == pOnly)) {
    if (Remove(pRegister, nRegId)) REG_LOG(E_LOG_INFO, "DeleteRegister vktDelete pRegister");
  }
  REG_LOG(E_LOG_INFO, "DeleteRegister  nRegId is %d\n", nRegId);
  REG_LOG_KEYS("DeleteRegister: m_mapRegister is %d\n");
}

CRegister* CRegisterSipProcess::FindByStackId(long lStackRegId) {
  return m_mapRegister.Find(m_oStackIds.Find(lStackRegId));
}

void CRegisterSipProcess::LogKeys(const char* szFunction, const char* szFile, int nLine,
                                  const char* szFormat) {
  for (int nId = m_mapRegister.First(); nId != 0; nId = m_mapRegister.Next(nId)) {
    ILogOne* const pLog = GetRegGlobal().m_pLog.load(std::memory_order_acquire);
    if (pLog == nullptr) return;
    pLog->SetLocation(szFunction, szFile, nLine, E_LOG_INFO);
    pLog->Print(szFormat, nId);
  }
}

bool CRegisterSipProcess::Remove(CRegister* pRegister, int nRegId) {
  EndSubscription(pRegister);
  pRegister->Release();
  m_mapRegister.Remove(nRegId);
  const bool bFree = pRegister->IsTimerRunning() == 0;
  m_oEnd.Retire(pRegister->GetEndNode());
  m_oEnd.Sweep();
  return bFree;
}

int CRegisterSipProcess::OnStackEvent(SipStackEvent* pEvent) {
  if (pEvent == nullptr) return -1;
  try {
    return OnEvent(pEvent->nEventId, pEvent);
  } catch (...) {  // no memory: the event is lost, the registry as it was
    return -1;
  }
}

std::string CRegisterSipProcess::GetServiceName() { return "Tolvane_SERVICE"; }
