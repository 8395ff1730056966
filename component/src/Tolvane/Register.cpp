// Commands and the road by which every REGISTER leaves. The answers are in RegisterRsp.cpp, the
// timer in RegisterTimer.cpp.

#include "Register.h"

#include <algorithm>
#include <new>

#include "RegisterCfg.h"
#include "RegisterSipProcess.h"
#include "RegLog.h"
#include "SivraLock.h"

void CRegister::SetRegInfo(const CRegMsg& stRegMsg) {
  REG_LOG_SCOPE();
  // m_nResult alone stays: it belongs to the answer of the command.
  const int nResult = m_stRegInfo.m_nResult;
  static_cast<CRegMsg&>(m_stRegInfo) = stRegMsg;
  m_stRegInfo.m_nResult = nResult;
  m_nRefreshTime = GetRefreshTime(m_stRegInfo.m_nExpires);
  AddSchema(m_stRegInfo.m_strAor);
  AddSchema(m_stRegInfo.m_strRegistrar);
  m_strDefaultUri = m_stRegInfo.m_strAor;
  Readdress(m_strDefaultUri);
}

int CRegister::Register() {
  REG_LOG_SCOPE();
  const VkLocker oLocker(g_oRegLock);
  KDThread* const hThread = kdThreadSelf();
  RememberThread(hThread);
  kdInstallCallback(TimerEvent, E_REG_TIMER_EVENT_START_REFRESH, this);
  kdInstallCallback(TimerEvent, E_REG_TIMER_EVENT_START_REREG, this);
  kdInstallCallback(TimerEvent, E_REG_TIMER_EVENT_STOP, this);
  m_hThread = hThread;
  {
    const CSivraLocker oSivraLocker;
    m_bNoRefresh = false;
  }
  const int nResult = SendRegister();
  if (nResult == 0) {
    m_eRegState = E_REG_STATE_REGING;
  } else {
    REG_LOG(E_LOG_INFO, "Send Register Fail\n");
  }
  return nResult;
}

int CRegister::Deregister(int bNoSend) {
  const VkLocker oLocker(g_oRegLock);
  return Deregister(bNoSend, oLocker);
}

int CRegister::Deregister(int bNoSend, const VkLocker& /*oHeld*/) {
  REG_LOG_SCOPE();
  int nResult = -1;
  {
    const CSivraLocker oSivraLocker;
    m_bNoRefresh = true;
  }
  kdInstallCallback(nullptr, E_REG_TIMER_EVENT_START_REFRESH, this);
  kdInstallCallback(nullptr, E_REG_TIMER_EVENT_START_REREG, this);
  kdInstallCallback(nullptr, E_REG_TIMER_EVENT_STOP, this);
  // On the timer's own thread nobody is left to receive a STOP, so the timer ends here.
  StopTimerOnOwnThread();

  if (m_eRegState == E_REG_STATE_REGED || m_eRegState == E_REG_STATE_REGING) {
    if (m_eRegState == E_REG_STATE_REGED && m_bRefreshTimerOn != 0) {
      m_bRefreshTimerOn = 0;
      PostThreadEvent(E_REG_TIMER_EVENT_STOP, this, m_hThread);
    }
    SetExpires(0);
    if (bNoSend != 0) {
      REG_LOG(E_LOG_INFO, "do not send deregister message");
      nResult = 0;
    } else {
      nResult = SendRegister();
    }
    m_eRegState = E_REG_STATE_DEREGING;
    REG_LOG(E_LOG_INFO, "m_eRegState is E_REG_STATE_DEREGING!");
    if (nResult == -1) {
      m_eRegState = E_REG_STATE_UNREG;
      REG_LOG(E_LOG_WARNING, "Send Register failed!\n");
    }
  } else if (m_eRegState == E_REG_STATE_DEREGING) {
    nResult = 0;
  }
  return nResult;
}

void CRegister::Release() {
  REG_LOG_SCOPE();
  // From the look at the state to the end of the stack id: a Register that comes in between would
  // leave a binding that nobody owns.
  const VkLocker oLocker(g_oRegLock);
  if (m_lStackRegId >= 1) {
    if (m_eRegState == E_REG_STATE_REGED || m_eRegState == E_REG_STATE_REGING) {
      if (Deregister(0, oLocker) != 0) REG_LOG(E_LOG_WARNING, "Send deregister failed!\n");
    }
    if (m_bRefreshTimerOn != 0 || m_bReregTimerOn != 0) {
      PostThreadEvent(E_REG_TIMER_EVENT_STOP, this, m_hThread);
    }
  }
  // Whoever still names the object finds it uninitialised from here on, sends nothing and gets no
  // new entry.
  const CSivraLocker oSivraLocker;
  m_bReleased = true;
  const long lStackRegId = m_lStackRegId.exchange(0);
  if (lStackRegId < 1) return;
  sivra_register_release(lStackRegId);
  GetRegGlobal().m_pRegisterSipProcess->OnStackIdChanged(this, lStackRegId, 0);
}

int CRegister::SendRegister() { return SendRegister(false); }

// bRefresh: a firing asks for it, which must not come behind a deregistration. No exception leaves
// it.
int CRegister::SendRegister(bool bRefresh) {
  REG_LOG_SCOPE();
  if (m_lStackRegId < 1) {
    REG_LOG(E_LOG_WARNING, "Register is not initialized\n");
    return -1;
  }
  int nResult = -1;
  bool bBuilt = false;
  {
    const CSivraLocker oSivraLocker;
    const long lStackRegId = m_lStackRegId;
    // Both can have come about while this thread waited for the lock.
    if (lStackRegId < 1) return -1;
    if (bRefresh && m_bNoRefresh) return 0;

    REG_LOG(E_LOG_INFO, "m_lStackRegId is %d\n", static_cast<int>(lStackRegId));
    REG_LOG(E_LOG_INFO, "m_stRegInfo.m_nExpires is %d\n", m_stRegInfo.m_nExpires);
    nsip_message* pMsg = nullptr;
    bBuilt = sivra_register_build_register(&pMsg, lStackRegId, m_stRegInfo.m_nExpires) == 0 &&
             pMsg != nullptr;
    if (bBuilt) {
      if (CompleteRegister(pMsg)) {
        nResult = sivra_register_send_register(lStackRegId, pMsg);
      } else {
        sivra::FreeMessage(pMsg);
      }
    }
  }
  if (!bBuilt) {
    REG_LOG(E_LOG_ERROR, "sivra build build fail\n");
  } else if (nResult != 0) {
    REG_LOG(E_LOG_WARNING, "send register fail\n");
  }
  return nResult;
}

// What the component adds to the library's request, with the library lock held. False when memory
// is exhausted.
bool CRegister::CompleteRegister(nsip_message* pMsg) {
  try {
    // In front of the headers below, which a template cannot take away. A REGISTER that could not
    // be configured goes out all the same.
    if (CRegSipCfg* const pCfg = GetRegGlobal().m_pRegSipCfg) {
      pCfg->ConfigureSipMessage("REG", "REGISTER", pMsg);
    }
    if (!m_stRegInfo.m_strUserAgent.empty()) {
      nsip_message_set_header(pMsg, "User-Agent", m_stRegInfo.m_strUserAgent.c_str());
    }
    if (m_stRegInfo.m_nExpires > 0) {
      char szExpires[100];
      kdMemset(szExpires, 0, sizeof szExpires);
      kdSprintfKHR(szExpires, "%d", m_stRegInfo.m_nExpires);
      nsip_message_set_header(pMsg, "Expires", szExpires);
    }
    return true;
  } catch (const std::bad_alloc&) {
    return false;
  }
}

void CRegister::AddSchema(std::string& strUri) {
  if (strUri.find("sip:") == std::string::npos) strUri.insert(0, "sip:");
}

std::string CRegister::ConstructUri(const std::string& strUri, const std::string& strDisplayName) {
  if (strDisplayName.empty()) return strUri;
  return strDisplayName + "<" + strUri + ">";
}

long CRegister::InitRegister(long lStackRegId, const std::string& strUri,
                             const std::string& strDisplayName, const std::string& strRegistrar) {
  REG_LOG_SCOPE();
  const std::string strFull = ConstructUri(strUri, strDisplayName);
  const CSivraLocker oSivraLocker;
  // A command may end a registration that another one is still filling.
  if (m_bReleased) return -1;
  const long lNew = sivra_register_set_info(lStackRegId, strFull, strFull, strRegistrar);
  // A URI that the library refuses, say out of a registrar's answer, must not cost an entry that
  // works.
  if (lNew >= 1) {
    m_lStackRegId = lNew;
    GetRegGlobal().m_pRegisterSipProcess->OnStackIdChanged(this, lStackRegId, lNew);
  }
  return lNew;
}

void CRegister::Readdress(const std::string& strUri) {
  std::string strOwn = strUri;
  const long lNew =
      InitRegister(m_lStackRegId, strUri, m_stRegInfo.m_strDisplayName, m_stRegInfo.m_strRegistrar);
  if (lNew >= 1) m_strDefaultUri.swap(strOwn);
}

// A firing reads the expiry with the library lock held.
void CRegister::SetExpires(int nExpires) {
  const CSivraLocker oSivraLocker;
  m_stRegInfo.m_nExpires = nExpires;
}

void CRegister::RememberThread(KDThread* hThread) {
  if (std::find(m_vecThreads.begin(), m_vecThreads.end(), hThread) == m_vecThreads.end()) {
    m_vecThreads.push_back(hThread);
  }
}

void CRegister::StopTimerOnOwnThread() {
  if (m_hThread.load() != nullptr && m_hThread == kdThreadSelf()) StopTimer();
}
