// What the registrar's own view (reginfo documents, RFC 3680) does to a registration.

#include "Brunelib/Brunelib.h"
#include "Brunelib/identities.h"
#include "Register.h"
#include "registrationpackage.h"
#include "RegLog.h"

namespace {

// Registrars spell addresses of record in their own way (RFC 3261 §19.1.4).
bool SameAddress(const std::string& strOne, const std::string& strOther) {
  if (strOne == strOther) return true;
  nsip_uri oOne;
  nsip_uri oOther;
  return nsip_uri_parse(strOne, oOne) && nsip_uri_parse(strOther, oOther) &&
         nsip_uri_equal(oOne, oOther);
}

}  // namespace

int CRegister::SubNotifyProc(const std::string& strDoc, ST_REG_EVENT& stRegEvent) {
  REG_LOG_SCOPE();
  const VkLocker oLocker(g_oRegLock);
  if (m_pView == nullptr) m_pView.reset(vktNew<ST_REG_VIEW>());
  const int nUpdate =
      m_pView != nullptr ? m_pView->m_oRegistrationTable.Update(strDoc.c_str()) : -1;
  if (nUpdate != 0) {
    // A gap in the versions, or one that is not newer, is no news; the table has done with it what
    // it does.
    if (nUpdate == -1) REG_LOG(E_LOG_WARNING, "Update registration table failed!\n");
    return -1;
  }
  const int nCount = m_pView->m_oRegistrationTable.GetRegistrationCount();
  REG_LOG(E_LOG_INFO, "m_oRegistrationTable.GetRegistrationCount() = %d\n", nCount);
  if (nCount < 1) {
    REG_LOG(E_LOG_WARNING, "Not find degistration in table!\n");
    return -1;
  }
  for (int i = 0; i < nCount; ++i) {
    CRegistration* const pRegistration = m_pView->m_oRegistrationTable.GetRegistration(i);
    if (pRegistration == nullptr) continue;
    if (IsOwnAor(pRegistration->GetAor())) RegState(pRegistration, stRegEvent);
  }
  return 0;
}

// Many registrars never send P-Associated-URI, so the address of record counts beside that list.
bool CRegister::IsOwnAor(const std::string& strAor) {
  return SameAddress(strAor, m_stRegInfo.m_strAor) || SameAddress(strAor, DefaultUri()) ||
         IsInPAssociatedURI(strAor) == 1;
}

int CRegister::RegState(CRegistration* pRegistration, ST_REG_EVENT& stRegEvent) {
  REG_LOG_SCOPE();
  const int nCount = pRegistration->GetContactCount();
  REG_LOG(E_LOG_INFO, "pRegistration->GetContactCount() = %d\n", nCount);
  for (int i = 0; i < nCount; ++i) {
    const CContact* const pContact = pRegistration->GetContact(i);
    if (pContact == nullptr) continue;
    // The first document tells which contact is ours: its last one.
    if (m_pView->m_oRegistrationTable.GetVersion() == "0") {
      m_pView->m_strContactId = pContact->GetId();
    } else if (pContact->GetId() != m_pView->m_strContactId) {
      continue;
    }
    const std::string& strState = pContact->GetState();
    REG_LOG(E_LOG_INFO, "pContact->GetState() = %s\n", strState.c_str());
    if (strState == "active") {
      if (m_eRegState == E_REG_STATE_DEREGING) continue;
      RegStateActive(pContact->GetEvent(), stRegEvent);
    } else if (strState == "terminated") {
      if (m_eRegState == E_REG_STATE_DEREGING) {
        const std::unique_ptr<CXML> pReply = NewDeregisteredReply();
        if (pReply == nullptr) {
          REG_LOG(E_LOG_ERROR, "vktNew CXML failed!\n");
          return -1;
        }
        REG_LOG(E_LOG_INFO, "Notify DeRegister Success!\n");
        XSExpressNotify(bus::registration::kIdentity, bus::registration::kNotifyDeregistered,
                        pReply.get(), nullptr);
      }
      StopRefresh();
      RegStateTerminated(pContact->GetEvent(), stRegEvent);
    }
  }
  stRegEvent.nRegId = m_stRegInfo.m_nId;
  stRegEvent.eRegState = m_eRegState;
  delete[] stRegEvent.strAor;  // of an earlier registration of the same document
  stRegEvent.strAor = NewText(DefaultUri());
  return 0;
}

// What tells the client of a deregistration that the registrar's view has shown before its answer
// came; null without memory.
std::unique_ptr<CXML> CRegister::NewDeregisteredReply() const {
  std::unique_ptr<CXML> pXml(vktNew<CXML>());
  if (pXml != nullptr) {
    pXml->AddElem("reg", nullptr, 0);
    pXml->AddChildElem("id", m_stRegInfo.m_nId, 0);
    pXml->AddChildElem("result", "0", 0);
    pXml->ResetPos();
  }
  return pXml;
}

void CRegister::RegStateActive(const std::string& strEvent, ST_REG_EVENT& stRegEvent) {
  REG_LOG_SCOPE();
  if (strEvent == "refreshed") {
    stRegEvent.eRegEventType = E_REG_EVENT_NONE;
  } else if (strEvent == "registered" || strEvent == "created") {
    RegStatusRegistered(strEvent, stRegEvent);
  } else if (strEvent == "shorted") {
    RegStatusShorted(stRegEvent);
  }
}

void CRegister::RegStatusRegistered(const std::string& strEvent, ST_REG_EVENT& stRegEvent) {
  REG_LOG_SCOPE();
  m_eRegState = E_REG_STATE_REGED;
  REG_LOG(E_LOG_INFO, "m_eRegState = E_REG_STATE_REGED!");
  stRegEvent.eRegEventType = E_REG_EVENT_STATE_CHANGE;
  stRegEvent.nEventWord = strEvent == "registered" ? E_REG_WORD_REGISTERED : E_REG_WORD_CREATED;
}

// The registrar has cut the binding's life short: register at once. The 2xx starts the timer again.
void CRegister::RegStatusShorted(ST_REG_EVENT& stRegEvent) {
  REG_LOG_SCOPE();
  StopRefresh();
  if (SendRegister() == 0) {
    stRegEvent.eRegEventType = E_REG_EVENT_NONE;
    return;
  }
  SetUnregistered(E_REG_WORD_SHORTED, stRegEvent);
  REG_LOG(E_LOG_INFO, "m_eRegState = E_REG_STATE_UNREG!");
  REG_LOG(E_LOG_WARNING, "Send register failed!\n");
}

void CRegister::RegStateTerminated(const std::string& strEvent, ST_REG_EVENT& stRegEvent) {
  REG_LOG_SCOPE();
  if (strEvent == "expired" || strEvent == "deactivated") {
    RegStatusExpired(strEvent, stRegEvent);
    return;
  }
  if (strEvent == "probation") {
    SetUnregistered(E_REG_WORD_PROBATION, stRegEvent);
  } else if (strEvent == "unregistered") {
    SetUnregistered(E_REG_WORD_UNREGISTERED, stRegEvent);
  } else if (strEvent == "rejected") {
    SetUnregistered(E_REG_WORD_REJECTED, stRegEvent);
  } else {
    return;
  }
  REG_LOG(E_LOG_INFO, "m_eRegState = E_REG_STATE_UNREG!");
}

void CRegister::RegStatusExpired(const std::string& strEvent, ST_REG_EVENT& stRegEvent) {
  REG_LOG_SCOPE();
  SetUnregistered(strEvent == "expired" ? E_REG_WORD_EXPIRED : E_REG_WORD_DEACTIVATED, stRegEvent);
  REG_LOG(E_LOG_INFO, "m_eRegState = E_REG_STATE_UNREG!");
}

void CRegister::SetUnregistered(int nEventWord, ST_REG_EVENT& stRegEvent) {
  m_eRegState = E_REG_STATE_UNREG;
  stRegEvent.eRegEventType = E_REG_EVENT_STATE_CHANGE;
  stRegEvent.nEventWord = nEventWord;
}

void CRegister::StopRefresh() {
  if (!m_bRefreshEnabled || !m_bRefreshTimerOn) return;
  m_bRefreshTimerOn = false;
  PostThreadEvent(E_REG_TIMER_EVENT_STOP, this, m_hThread);
}
