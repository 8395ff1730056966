// Commands and the road by which every REGISTER leaves. The responses are in RegisterRsp.cpp, the
// timer in RegisterTimer.cpp.

#include "Register.h"

#include <charconv>
#include <new>

#include "RegisterCfg.h"
#include "RegLog.h"
#include "SivraLock.h"

namespace {

std::unique_ptr<const std::string> KeepUnlessEmpty(const std::string& strText) {
  return strText.empty() ? nullptr : std::make_unique<const std::string>(strText);
}

std::string TextOf(const std::unique_ptr<const std::string>& pText) {
  return pText != nullptr ? *pText : std::string();
}

}  // namespace

void CRegister::SetRegInfo(const CRegMsg& stRegMsg) {
  REG_LOG_SCOPE();
  const VkLocker oLocker(g_oRegLock);
  m_stRegInfo.m_strAor = stRegMsg.m_strAor;
  m_stRegInfo.m_strRegistrar = stRegMsg.m_strRegistrar;
  m_stRegInfo.m_pDisplayName = KeepUnlessEmpty(stRegMsg.m_strDisplayName);
  m_stRegInfo.m_pUserAgent = KeepUnlessEmpty(stRegMsg.m_strUserAgent);
  m_stRegInfo.m_nExpires = stRegMsg.m_nExpires;
  m_stRegInfo.m_nReregisterInterval = stRegMsg.m_nReregisterInterval;
  m_stRegInfo.m_bAutoReregister = stRegMsg.m_bAutoReregister;
  m_stRegInfo.m_nId = stRegMsg.m_nId;
  m_nRefreshTime = GetRefreshTime(m_stRegInfo.m_nExpires);
  AddSchema(m_stRegInfo.m_strAor);
  AddSchema(m_stRegInfo.m_strRegistrar);
  Readdress(m_stRegInfo.m_strAor);
}

int CRegister::Register() {
  REG_LOG_SCOPE();
  const VkLocker oLocker(g_oRegLock);
  KDThread* const hThread = kdThreadSelf();
  CRegisterEnd::RememberThread(m_oEndNode, hThread);
  kdInstallCallback(TimerEvent, E_REG_TIMER_EVENT_START_REFRESH, this);
  kdInstallCallback(TimerEvent, E_REG_TIMER_EVENT_START_REREG, this);
  kdInstallCallback(TimerEvent, E_REG_TIMER_EVENT_STOP, this);
  m_hThread = hThread;
  const int nResult = SendRegister(E_SEND_FIRST);
  if (nResult == 0) {
    m_eRegState = E_REG_STATE_REGING;
  } else {
    REG_LOG(E_LOG_INFO, "Send Register Fail\n");
  }
  return nResult;
}

int CRegister::Deregister(int bNoSend) {
  const VkLocker oLocker(g_oRegLock);
  return DeregisterLocked(bNoSend);
}

int CRegister::DeregisterLocked(int bNoSend) {
  REG_LOG_SCOPE();
  int nResult = -1;
  const bool bLive = m_eRegState == E_REG_STATE_REGED || m_eRegState == E_REG_STATE_REGING;
  {
    // Both at once for a firing, which looks at the gate and reads the expiry with this lock held.
    const CSivraLocker oSivraLocker;
    m_bNoRefresh = true;
    if (bLive) m_stRegInfo.m_nExpires = 0;
  }
  kdInstallCallback(nullptr, E_REG_TIMER_EVENT_START_REFRESH, this);
  kdInstallCallback(nullptr, E_REG_TIMER_EVENT_START_REREG, this);
  kdInstallCallback(nullptr, E_REG_TIMER_EVENT_STOP, this);
  // On the timer's own thread nobody is left to receive a STOP, so the timer ends here.
  StopTimerOnOwnThread();

  if (bLive) {
    if (m_eRegState == E_REG_STATE_REGED && m_bRefreshTimerOn) {
      m_bRefreshTimerOn = false;
      PostThreadEvent(E_REG_TIMER_EVENT_STOP, this, m_hThread);
    }
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
      if (DeregisterLocked(0) != 0) REG_LOG(E_LOG_WARNING, "Send deregister failed!\n");
    }
    if (m_bRefreshTimerOn || m_bReregTimerOn) {
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
  m_oStackIds.Change(m_stRegInfo.m_nId, lStackRegId, 0);
}

// The first one of a Register opens the gate of invariant 4, which a refresh passes. No exception
// leaves it.
int CRegister::SendRegister(E_SEND eSend) {
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
    if (eSend == E_SEND_REFRESH && m_bNoRefresh) return 0;  // no failure of anything
    if (eSend == E_SEND_FIRST) m_bNoRefresh = false;

    REG_LOG(E_LOG_INFO, "m_lStackRegId is %d\n", static_cast<int>(lStackRegId));
    const int nExpires = m_stRegInfo.m_nExpires;
    REG_LOG(E_LOG_INFO, "m_stRegInfo.m_nExpires is %d\n", nExpires);
    nsip_message* pMsg = nullptr;
    bBuilt = sivra_register_build_register(&pMsg, lStackRegId, nExpires) == 0 && pMsg != nullptr;
    if (bBuilt) {
      if (CompleteRegister(pMsg, nExpires)) {
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

// What the component adds to the library's request. False when memory is exhausted.
bool CRegister::CompleteRegister(nsip_message* pMsg, int nExpires) {
  try {
    // In front of the headers below, which a template cannot take away. A REGISTER that could not
    // be configured goes out all the same.
    if (CRegSipCfg* const pCfg = GetRegGlobal().m_pRegSipCfg) {
      pCfg->ConfigureSipMessage("REG", "REGISTER", pMsg);
    }
    if (m_stRegInfo.m_pUserAgent != nullptr) {
      nsip_message_set_header(pMsg, "User-Agent", m_stRegInfo.m_pUserAgent->c_str());
    }
    if (nExpires > 0) {
      char szExpires[16] = {};
      std::to_chars(szExpires, szExpires + sizeof szExpires - 1, nExpires);
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
  // A URI that the library refuses, say out of a registrar's response, must not cost an entry that
  // works: the former entry and address stay in force.
  if (lNew >= 1) {
    m_lStackRegId = lNew;
    m_oStackIds.Change(m_stRegInfo.m_nId, lStackRegId, lNew);
  }
  return lNew;
}

void CRegister::Readdress(const std::string& strUri) {
  const bool bAor = &strUri == &m_stRegInfo.m_strAor || strUri == m_stRegInfo.m_strAor;
  std::string strOwn = bAor ? std::string() : strUri;
  const long lNew = InitRegister(m_lStackRegId, strUri, TextOf(m_stRegInfo.m_pDisplayName),
                                 m_stRegInfo.m_strRegistrar);
  if (lNew >= 1) m_strDefaultUri.swap(strOwn);
}

const std::string& CRegister::DefaultUri() const {
  return m_strDefaultUri.empty() ? m_stRegInfo.m_strAor : m_strDefaultUri;
}

std::string CRegister::GetDefaultUri() const {
  const VkLocker oLocker(g_oRegLock);
  return DefaultUri();
}

void CRegister::StopTimerOnOwnThread() {
  if (m_hThread.load() != nullptr && m_hThread == kdThreadSelf()) StopTimer();
}
