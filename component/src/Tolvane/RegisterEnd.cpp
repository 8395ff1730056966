#include "RegisterEnd.h"

#include <algorithm>
#include <chrono>
#include <thread>

constinit VkMutex CRegisterEnd::s_oMutex;

CRegisterEnd::~CRegisterEnd() { FreeAll(); }

void CRegisterEnd::Hold(CNode& oNode) {
  const VkLocker oLocker(s_oMutex);
  ++oNode.m_nHolds;
}

void CRegisterEnd::Unhold(CNode& oNode) {
  CRegister* pFree = nullptr;
  {
    const VkLocker oLocker(s_oMutex);
    --oNode.m_nHolds;
    if (m_pOldest == nullptr) return;
    pFree = oNode.m_bRetired ? TakeIfFree(oNode, false) : TakeOldest();
  }
  m_pFree(pFree);
}

void CRegisterEnd::RememberThread(CNode& oNode, KDThread* hThread) {
  const VkLocker oLocker(s_oMutex);
  if (oNode.m_hThread == nullptr) oNode.m_hThread = hThread;
  if (oNode.m_hThread == hThread) return;
  if (oNode.m_pOthers == nullptr) oNode.m_pOthers = std::make_unique<std::vector<KDThread*>>();
  std::vector<KDThread*>& vecOthers = *oNode.m_pOthers;
  if (std::find(vecOthers.begin(), vecOthers.end(), hThread) == vecOthers.end()) {
    vecOthers.push_back(hThread);
  }
}

void CRegisterEnd::Retire(CNode& oNode) {
  CRegister* pFree = nullptr;
  {
    const VkLocker oLocker(s_oMutex);
    Link(oNode);
    pFree = TakeIfFree(oNode, false);
  }
  m_pFree(pFree);
}

void CRegisterEnd::Sweep() {
  CRegister* pFree = nullptr;
  {
    const VkLocker oLocker(s_oMutex);
    pFree = TakeOldest();
  }
  m_pFree(pFree);
}

void CRegisterEnd::FreeAll() {
  const auto tEnd = std::chrono::steady_clock::now() + std::chrono::seconds(5);
  for (;;) {
    CRegister* pFree = nullptr;
    {
      const VkLocker oLocker(s_oMutex);
      if (m_pOldest == nullptr) return;
      for (CNode* pNode = m_pOldest; pNode != nullptr && pFree == nullptr;) {
        CNode& oNode = *pNode;
        pNode = pNode->m_pNext;
        pFree = TakeIfFree(oNode, true);
      }
    }
    if (pFree != nullptr) {
      m_pFree(pFree);
    } else if (std::chrono::steady_clock::now() < tEnd) {
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    } else {
      return;
    }
  }
}

// One that has to stay goes to the end, so that the next sweep looks at the one behind it.
CRegister* CRegisterEnd::TakeOldest() {
  if (m_pOldest == nullptr) return nullptr;
  CNode& oNode = *m_pOldest;
  CRegister* const pFree = TakeIfFree(oNode, false);
  if (pFree == nullptr) {
    Unlink(oNode);
    Link(oNode);
  }
  return pFree;
}

CRegister* CRegisterEnd::TakeIfFree(CNode& oNode, bool bShutdown) {
  if (oNode.m_nHolds > 0) return nullptr;
  const bool bStopped = oNode.m_bTimerRunning == 0 || bShutdown;
  // A thread that has ended forgets too, and says so at once.
  const auto bForgets = [&oNode, bStopped](KDThread* hThread) {
    return (bStopped || kdThreadEnded(hThread) != 0) &&
           kdForgetUserPtr(hThread, oNode.m_pRegister) == 0;
  };
  if (oNode.m_hThread != nullptr && !bForgets(oNode.m_hThread)) return nullptr;
  if (oNode.m_pOthers != nullptr) {
    for (KDThread* const hThread : *oNode.m_pOthers) {
      if (!bForgets(hThread)) return nullptr;
    }
  }
  Unlink(oNode);
  return oNode.m_pRegister;
}

void CRegisterEnd::Link(CNode& oNode) {
  oNode.m_bRetired = true;
  oNode.m_pNext = nullptr;
  oNode.m_pPrev = m_pNewest;
  (m_pNewest == nullptr ? m_pOldest : m_pNewest->m_pNext) = &oNode;
  m_pNewest = &oNode;
}

void CRegisterEnd::Unlink(CNode& oNode) {
  (oNode.m_pPrev == nullptr ? m_pOldest : oNode.m_pPrev->m_pNext) = oNode.m_pNext;
  (oNode.m_pNext == nullptr ? m_pNewest : oNode.m_pNext->m_pPrev) = oNode.m_pPrev;
}
