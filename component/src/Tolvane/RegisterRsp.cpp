// What the SIP side says about a sent REGISTER: final responses and the stack's errors.

#include <algorithm>
#include <new>
#include <string_view>
#include <utility>

#include "Register.h"
#include "RegLog.h"

namespace {

// The header's value as a number; 0 when it is absent, empty or no number.
int HeaderNumber(const nsip_message* pMsg, const char* szName) {
  nsip_header* pHeader = nullptr;
  if (nsip_message_header_get_byname(pMsg, szName, 0, &pHeader) < 0 || pHeader == nullptr) return 0;
  return kdStrtol(pHeader->hvalue.c_str(), nullptr, 10);
}

}  // namespace

// An own copy for the event record, or null when memory is exhausted.
char* CRegister::NewText(std::string_view strText) {
  char* const szCopy = new (std::nothrow) char[strText.size() + 1];
  if (szCopy != nullptr) {
    kdMemcpy(szCopy, strText.data(), strText.size());
    szCopy[strText.size()] = '\0';
  }
  return szCopy;
}

void CRegister::OnRegRsp(SipStackEvent* pEvent, ST_REG_EVENT& stRegEvent) {
  REG_LOG_SCOPE();
  const VkLocker oLocker(g_oRegLock);
  if (pEvent->pMessage == nullptr) {
    REG_LOG(E_LOG_INFO, "The Register Message is null");
    return;
  }
  const int nStatus = pEvent->pMessage->status_code;
  int eRegEventType = -1;
  if (nStatus >= 200 && nStatus <= 299) {
    eRegEventType = OnRegSuccess(pEvent);
  } else {
    eRegEventType = OnRegFailure(pEvent);
    std::string strWarnText;
    stRegEvent.nWarnCode = GetWarnValue(pEvent, strWarnText);
    stRegEvent.strWarnText = NewText(strWarnText);
  }
  SetRegEventType(pEvent, stRegEvent, eRegEventType);
}

int CRegister::OnRegSuccess(SipStackEvent* pEvent) {
  REG_LOG_SCOPE();
  if (m_eRegState == E_REG_STATE_DEREGING) {
    m_eRegState = E_REG_STATE_UNREG;
    return E_REG_EVENT_DEREGISTERED;
  }
  m_bEventPost = m_eRegState != E_REG_STATE_REGED;

  // A timer that runs keeps its period; the new one counts from its next start.
  const int nGranted = GetExpiresFromService(pEvent->pMessage);
  if (nGranted > 0) {
    m_nRefreshTime = GetRefreshTime(nGranted);
    m_stRegInfo.m_nExpires = nGranted;
  }

  if (GetPAssociatedURIFromService(pEvent->pMessage) > 0) {
    bool bHasAor = false;
    for (const std::string& strUri : m_vecAssociatedUri) bHasAor |= strUri == m_stRegInfo.m_strAor;
    if (bHasAor) {
      m_strDefaultUri.clear();
    } else if (DefaultUri() != m_vecAssociatedUri.front()) {
      Readdress(m_vecAssociatedUri.front());
    }
  }

  if (m_bReregTimerOn) {
    m_bReregTimerOn = false;
    PostThreadEvent(E_REG_TIMER_EVENT_STOP, this, m_hThread);
  }
  if (m_bRefreshEnabled && !m_bRefreshTimerOn) {
    PostThreadEvent(E_REG_TIMER_EVENT_START_REFRESH, this, m_hThread);
  }
  m_eRegState = E_REG_STATE_REGED;
  return E_REG_EVENT_SUCCESS;
}

int CRegister::OnRegFailure(SipStackEvent* pEvent) {
  REG_LOG_SCOPE();
  m_nRetryAfter = 0;
  switch (pEvent->pMessage->status_code) {
    case 404:
    case 408:
    case 480:
    case 481:
    case 486:
    case 500:
    case 503:
    case 504:
    case 600:
      ReTry(pEvent);
      break;
    case 423:  // Interval Too Brief, RFC 3261 §10.2.8
      if (IntervalShort(pEvent) == 0) return E_REG_EVENT_NONE;
      REG_LOG(E_LOG_WARNING, "Send register failed!\n");
      break;
    case 533:
      if (m_eRegState == E_REG_STATE_REGED && m_bRefreshTimerOn) {
        m_bRefreshTimerOn = false;
        PostThreadEvent(E_REG_TIMER_EVENT_STOP, this, m_hThread);
      }
      Readdress(m_stRegInfo.m_strAor);
      if (SendRegister() == 0) return E_REG_EVENT_SERVICE_LOST;
      REG_LOG(E_LOG_WARNING, "Send register failed!\n");
      break;
    default:
      break;
  }
  const int eRegState = m_eRegState.exchange(E_REG_STATE_UNREG);
  REG_LOG(E_LOG_INFO, "m_eRegState = E_REG_STATE_UNREG!");
  if (eRegState == E_REG_STATE_DEREGING) return E_REG_EVENT_DEREGISTERED;
  return eRegState == E_REG_STATE_REGED ? E_REG_EVENT_STATE_CHANGE : E_REG_EVENT_FAILURE;
}

int CRegister::IntervalShort(SipStackEvent* pEvent) {
  REG_LOG_SCOPE();
  const int nMinExpires = GetMinExpiresFromService(pEvent->pMessage);
  if (nMinExpires < 1) {
    REG_LOG(E_LOG_WARNING, "Not find expires in 423 response!\n");
    return -1;
  }
  m_stRegInfo.m_nExpires = nMinExpires;
  m_nRefreshTime = GetRefreshTime(nMinExpires);
  REG_LOG(E_LOG_INFO, "Refresh interval is %d\n", nMinExpires);
  if (m_eRegState == E_REG_STATE_REGED) {
    // The 2xx to the new REGISTER starts the timer again, with the new period.
    m_bRefreshTimerOn = false;
    PostThreadEvent(E_REG_TIMER_EVENT_STOP, this, m_hThread);
  }
  return SendRegister();
}

void CRegister::ReTry(SipStackEvent* pEvent) {
  REG_LOG_SCOPE();
  const int nRetryAfter = HeaderNumber(pEvent->pMessage, "Retry-After");
  if (nRetryAfter > 0) {
    m_nRetryAfter = nRetryAfter;
    REG_LOG(E_LOG_INFO, "retry-after %d", nRetryAfter);
  }
}

void CRegister::OnRegError(SipStackEvent* pEvent, ST_REG_EVENT& stRegEvent) {
  REG_LOG_SCOPE();
  const VkLocker oLocker(g_oRegLock);
  int eRegEventType = -1;
  if (m_bRefreshTimerOn && !m_bReregTimerOn) {
    m_bRefreshTimerOn = false;
    PostThreadEvent(E_REG_TIMER_EVENT_STOP, this, m_hThread);
  }
  if (m_eRegState == E_REG_STATE_DEREGING) {
    eRegEventType = E_REG_EVENT_DEREGISTERED;
  } else if (m_eRegState == E_REG_STATE_REGED) {
    eRegEventType = E_REG_EVENT_STATE_CHANGE;
    stRegEvent.nEventWord = E_REG_WORD_TIMEOUT;
    // Behind the STOP in the same queue, so that the timer has its own period.
    if (IsAutoReregister() != 0) {
      PostThreadEvent(E_REG_TIMER_EVENT_START_REREG, this, m_hThread);
    }
  } else if (m_bReregTimerOn) {
    eRegEventType = E_REG_EVENT_NONE;
  } else {
    eRegEventType = E_REG_EVENT_FAILURE;
  }
  m_eRegState = E_REG_STATE_UNREG;
  REG_LOG(E_LOG_INFO, "m_eRegState = E_REG_STATE_UNREG!");
  SetRegEventType(pEvent, stRegEvent, eRegEventType);
}

void CRegister::SetRegEventType(SipStackEvent* pEvent, ST_REG_EVENT& stRegEvent,
                                int& eRegEventType) {
  stRegEvent.nRegId = m_stRegInfo.m_nId;
  stRegEvent.eRegState = m_eRegState;
  stRegEvent.strAor = NewText(DefaultUri());
  if (stRegEvent.strAor == nullptr) {
    REG_LOG(E_LOG_INFO, "stRegEvent.strAor new fail! m_strDefaultUri.length is:%d\n",
            static_cast<int>(DefaultUri().length()));
  }
  if (eRegEventType < E_REG_EVENT_SUCCESS || eRegEventType > E_REG_EVENT_SERVICE_LOST) {
    eRegEventType = E_REG_EVENT_NONE;
  }
  stRegEvent.eRegEventType = eRegEventType;
  if ((eRegEventType == E_REG_EVENT_FAILURE || eRegEventType == E_REG_EVENT_SERVICE_LOST) &&
      pEvent->pMessage != nullptr) {
    stRegEvent.nStatusCode = pEvent->pMessage->status_code;
  }
  if (eRegEventType == E_REG_EVENT_STATE_CHANGE) {
    if (stRegEvent.nEventWord == E_REG_WORD_TIMEOUT) {
      REG_LOG(E_LOG_WARNING, "Time Out!\n");
    } else {
      stRegEvent.nEventWord = E_REG_WORD_REFRESHED;
    }
  }
}

// The granted expiry: the first Contact's "expires" when it has one, whatever it says, else the
// Expires header (RFC 3261 §10.2.4).
int CRegister::GetExpiresFromService(nsip_message* pMsg) {
  nsip_contact* pContact = nullptr;
  const nsip_generic_param* pParam = nullptr;
  nsip_message_get_contact(pMsg, 0, &pContact);
  if (pContact != nullptr) nsip_generic_param_get_byname(pContact->params, "expires", &pParam);
  if (pParam != nullptr && !pParam->value.empty()) {
    return kdStrtol(pParam->value.c_str(), nullptr, 10);
  }
  return HeaderNumber(pMsg, "Expires");
}

int CRegister::GetMinExpiresFromService(nsip_message* pMsg) {
  return HeaderNumber(pMsg, "Min-Expires");
}

int CRegister::GetPAssociatedURIFromService(nsip_message* pMsg) {
  std::vector<std::string> vecUri;
  for (int nPos = 0;; ++nPos) {
    nsip_from* pHeader = nullptr;
    if (nsip_message_get_p_associated_uri(pMsg, nPos, &pHeader) < 0) break;
    char* szText = nullptr;
    if (pHeader == nullptr || nsip_from_to_str(pHeader, &szText) != 0 || szText == nullptr)
      continue;
    std::string strUri;
    try {
      strUri = szText;
    } catch (...) {
      nsip_free(szText);
      throw;
    }
    nsip_free(szText);
    strUri.erase(0, strUri.find('<') + 1);  // nothing, when there is no bracket
    strUri.erase(std::min(strUri.find('>'), strUri.size()));
    vecUri.push_back(std::move(strUri));
  }
  const int nCount = static_cast<int>(vecUri.size());
  if (nCount > 0) m_vecAssociatedUri = std::move(vecUri);
  return nCount;
}

int CRegister::IsInPAssociatedURI(const std::string& strUri) {
  for (const std::string& strEntry : m_vecAssociatedUri) {
    if (strEntry == strUri) {
      REG_LOG(E_LOG_INFO, "AssociatedURI is existed\n");
      return 1;
    }
  }
  return 0;
}

// warn-code SP warn-agent SP quoted text (RFC 3261 §20.43). The code, or -1 without a Warning.
int CRegister::GetWarnValue(SipStackEvent* pEvent, std::string& strWarnText) {
  nsip_header* pHeader = nullptr;
  if (nsip_message_header_get_byname(pEvent->pMessage, "warning", 0, &pHeader) < 0 ||
      pHeader == nullptr || pHeader->hvalue.empty()) {
    return -1;
  }
  const std::string& strValue = pHeader->hvalue;
  const std::size_t nFirst = strValue.find('"');
  if (nFirst != std::string::npos) {
    const std::size_t nSecond = strValue.find('"', nFirst + 1);
    if (nSecond != std::string::npos) {
      strWarnText = strValue.substr(nFirst + 1, nSecond - nFirst - 1);
    }
  }
  return kdStrtol(strValue.substr(0, 3).c_str(), nullptr, 10);
}
