#include "RegisterEnd.h"

#include <algorithm>
#include <chrono>
#include <thread>

#include "RegGlobal.h"
#include "Register.h"
#include "RegisterSipProcess.h"

CRegisterEnd::~CRegisterEnd() { FreeAll(); }

void CRegisterEnd::Hold(CRegister* pRegister) {
  const VkLocker oLocker(m_oMutex);
  ++pRegister->m_nHolds;
}

void CRegisterEnd::Unhold(CRegister* pRegister) {
  {
    const VkLocker oLocker(m_oMutex);
    --pRegister->m_nHolds;
    if (!pRegister->m_bRetired || !TakeIfFree(pRegister, EReason::Usual)) pRegister = nullptr;
  }
  vktDelete(pRegister);
  Sweep();
}

bool CRegisterEnd::IsRetired(CRegister* pRegister) {
  const VkLocker oLocker(m_oMutex);
  return pRegister->m_bRetired;
}

void CRegisterEnd::Retire(CRegister* pRegister) {
  {
    const VkLocker oLocker(m_oMutex);
    Link(pRegister);
    if (!TakeIfFree(pRegister, EReason::Usual)) return;
  }
  vktDelete(pRegister);
}

void CRegisterEnd::Sweep() {
  CRegister* pRegister = nullptr;
  {
    const VkLocker oLocker(m_oMutex);
    if (m_pOldest == nullptr) return;
    pRegister = m_pOldest;
    if (!TakeIfFree(pRegister, pRegister->m_bWasBusy ? EReason::Usual : EReason::Ended)) {
      // It waits for its STOP, or is still busy; the next sweep looks at the one behind it.
      Unlink(pRegister);
      Link(pRegister);
      return;
    }
  }
  vktDelete(pRegister);
}

void CRegisterEnd::FreeAll() {
  const auto tEnd = std::chrono::steady_clock::now() + std::chrono::seconds(5);
  for (;;) {
    CRegister* pFree = nullptr;
    {
      const VkLocker oLocker(m_oMutex);
      if (m_pOldest == nullptr) return;
      for (CRegister* pRegister = m_pOldest; pRegister != nullptr;
           pRegister = pRegister->m_pNextRetired) {
        if (TakeIfFree(pRegister, EReason::Shutdown)) {
          pFree = pRegister;
          break;
        }
      }
    }
    if (pFree != nullptr) {
      vktDelete(pFree);
    } else if (std::chrono::steady_clock::now() < tEnd) {
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    } else {
      return;
    }
  }
}

// With the lock held. True: the object is off the list, nothing names it, the caller deletes it
// without the lock.
bool CRegisterEnd::TakeIfFree(CRegister* pRegister, EReason eReason) {
  if (pRegister->m_nHolds > 0) return false;
  const auto& vecThreads = pRegister->m_vecThreads;
  if (eReason == EReason::Usual && pRegister->IsTimerRunning() != 0) return false;
  if (eReason == EReason::Ended &&
      !std::all_of(vecThreads.begin(), vecThreads.end(),
                   [](KDThread* hThread) { return kdThreadEnded(hThread) != 0; })) {
    return false;
  }
  for (KDThread* hThread : vecThreads) {
    // Busy: a callback with this object is about to run or running there. It takes a hold, and
    // frees the object when it gives that back.
    if (kdForgetUserPtr(hThread, pRegister) != 0) return false;
  }
  Unlink(pRegister);
  return true;
}

void CRegisterEnd::Link(CRegister* pRegister) {
  pRegister->m_bRetired = true;
  pRegister->m_pNextRetired = nullptr;
  pRegister->m_pPrevRetired = m_pNewest;
  (m_pNewest == nullptr ? m_pOldest : m_pNewest->m_pNextRetired) = pRegister;
  m_pNewest = pRegister;
}

void CRegisterEnd::Unlink(CRegister* pRegister) {
  CRegister* const pPrev = pRegister->m_pPrevRetired;
  CRegister* const pNext = pRegister->m_pNextRetired;
  (pPrev == nullptr ? m_pOldest : pPrev->m_pNextRetired) = pNext;
  (pNext == nullptr ? m_pNewest : pNext->m_pPrevRetired) = pPrev;
}

CRegisterHold::CRegisterHold(CRegister* pRegister) : m_pRegister(pRegister) {
  GetRegGlobal().m_pRegisterSipProcess->GetEnd().Hold(pRegister);
}

CRegisterHold::~CRegisterHold() {
  if (m_pRegister != nullptr) GetRegGlobal().m_pRegisterSipProcess->GetEnd().Unhold(m_pRegister);
}
