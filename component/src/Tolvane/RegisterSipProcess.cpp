// The registry, start and stop. Stack events are in RegisterSipProcessEvent.cpp.

#include "RegisterSipProcess.h"

#include "Register.h"
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
  const CRegMgrLocker oLocker(*this);
  m_mapSubscribe.clear();
  return 0;
}

void CRegisterSipProcess::ClearRegisters() {
  const CRegMgrLocker oLocker(*this);
  while (!m_mapRegister.empty()) {
    const auto itFirst = m_mapRegister.begin();
    Remove(itFirst->second, itFirst->first);
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
  CRegister* const pRegister = vktNew<CRegister>();
  if (pRegister == nullptr) return nullptr;
  const CRegMgrLocker oLocker(*this);
  const int nRegId = m_oIds.Take();
  if (nRegId == 0) {
    vktDelete(pRegister);
    return nullptr;
  }
  try {
    m_mapRegister[nRegId] = pRegister;
  } catch (const std::bad_alloc&) {
    m_oIds.Untake(nRegId);
    vktDelete(pRegister);
    return nullptr;
  }
  m_oEnd.Hold(pRegister);
  *pnRegId = nRegId;
  REG_LOG(E_LOG_INFO, "new  nRegId is %d\n", nRegId);
  REG_LOG_KEYS("CreateRegister:new after m_mapRegister is %d\n");
  return pRegister;
}

CRegister* CRegisterSipProcess::GetRegisterById(int nRegId) {
  const CRegMgrLocker oLocker(*this);
  REG_LOG_KEYS("GetRegisterById: m_mapRegister is %d\n");
  const auto it = m_mapRegister.find(nRegId);
  if (it == m_mapRegister.end()) return nullptr;
  m_oEnd.Hold(it->second);
  return it->second;
}

void CRegisterSipProcess::DeleteRegister(int nRegId, const CRegister* pOnly) {
  const CRegMgrLocker oLocker(*this);
  const auto it = m_mapRegister.find(nRegId);
  if (it != m_mapRegister.end() && (pOnly == nullptr || it->second == pOnly)) {
    CRegister* const pRegister = it->second;
    if (Remove(pRegister, nRegId)) REG_LOG(E_LOG_INFO, "DeleteRegister vktDelete pRegister");
  }
  REG_LOG(E_LOG_INFO, "DeleteRegister  nRegId is %d\n", nRegId);
  REG_LOG_KEYS("DeleteRegister: m_mapRegister is %d\n");
}

void CRegisterSipProcess::OnStackIdChanged(CRegister* pRegister, long lOld, long lNew) {
  if (lOld == lNew) return;
  const VkLocker oLocker(m_oStackIdMutex);
  const auto oRange = m_mapStackId.equal_range(lOld);
  for (auto it = oRange.first; it != oRange.second; ++it) {
    if (it->second == pRegister) {
      m_mapStackId.erase(it);
      break;
    }
  }
  if (lNew > 0) m_mapStackId.emplace(lNew, pRegister);
}

// What a scan of the registry in ascending order of ids would find first.
CRegister* CRegisterSipProcess::FindByStackId(long lStackRegId) {
  const VkLocker oLocker(m_oStackIdMutex);
  CRegister* pFound = nullptr;
  const auto oRange = m_mapStackId.equal_range(lStackRegId);
  for (auto it = oRange.first; it != oRange.second; ++it) {
    if (pFound == nullptr || it->second->GetRegId() < pFound->GetRegId()) pFound = it->second;
  }
  return pFound;
}

// With m_oRegMgrMutex held. The object may be freed on return. True when no timer of it runs.
bool CRegisterSipProcess::Remove(CRegister* pRegister, int nRegId) {
  EndSubscription(pRegister);
  pRegister->Release();
  m_mapRegister.erase(nRegId);
  m_oIds.Give(nRegId);
  const bool bFree = pRegister->IsTimerRunning() == 0;
  m_oEnd.Retire(pRegister);
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
