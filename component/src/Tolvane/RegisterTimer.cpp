// The one timer of a registration. All of it but PostThreadEvent runs on m_hThread.

#include "Register.h"
#include "RegLog.h"

int CRegister::GetRefreshTime(int nExpires) {
  if (nExpires > 1200) return nExpires - 600;
  return nExpires > 0 ? nExpires / 2 : 0;
}

void CRegister::PostThreadEvent(int nEvent, void* pUserPtr, KDThread* hThread) {
  KDEvent* const pEvent = kdCreateEvent();
  if (pEvent == nullptr) return;
  pEvent->type = nEvent;
  pEvent->userptr = pUserPtr;
  kdPostThreadEvent(pEvent, hThread);
}

void CRegister::TimerEvent(const KDEvent* pEvent) {
  REG_LOG_SCOPE();
  if (pEvent == nullptr) {
    REG_LOG(E_LOG_WARNING, "Event is null!");
    return;
  }
  if (pEvent->userptr == nullptr) {
    REG_LOG(E_LOG_ERROR, "userptr is Null!\n");
    return;
  }
  const CRegisterHold oRegister(static_cast<CRegister*>(pEvent->userptr));
  switch (pEvent->type) {
    case E_REG_TIMER_EVENT_START_REFRESH:
      oRegister->m_bRefreshTimerOn = true;
      oRegister->StartTimer(oRegister->m_nRefreshTime);
      break;
    case E_REG_TIMER_EVENT_START_REREG:
      oRegister->m_bReregTimerOn = true;
      oRegister->StartTimer(oRegister->m_stRegInfo.m_nReregisterInterval);
      break;
    case E_REG_TIMER_EVENT_STOP:
      oRegister->StopTimer();
      break;
    default:
      break;
  }
  oRegister->StopTimerIfRetired();
}

void CRegister::StartTimer(KDint64 nSeconds) {
  REG_LOG_SCOPE();
  if (kdInstallCallback(TimerProc, KD_EVENT_TIMER_FIRED, this) == -1) {
    REG_LOG(E_LOG_ERROR, "InstallCallBack fail;\n");
    return;
  }
  if (m_hTimer.load() != nullptr) return;
  m_hTimer = kdSetTimer(nSeconds * 1'000'000'000, KD_TIMER_PERIODIC_AVERAGE, this);
  if (m_hTimer.load() == nullptr) {
    REG_LOG(E_LOG_ERROR, "Set Timer Fail\n");
    return;
  }
  m_oEndNode.m_bTimerRunning = 1;
}

void CRegister::StopTimer() {
  REG_LOG_SCOPE();
  if (m_hTimer.load() == nullptr) return;
  if (kdCancelTimer(m_hTimer) == 0) {
    m_hTimer = nullptr;
  } else {
    REG_LOG(E_LOG_WARNING, "Stop Timer Fail and errorcode is %d!\n", kdGetError());
  }
  m_oEndNode.m_bTimerRunning = 0;
}

void CRegister::TimerProc(const KDEvent* pEvent) {
  REG_LOG_SCOPE();
  if (pEvent == nullptr || pEvent->userptr == nullptr) return;
  const CRegisterHold oRegister(static_cast<CRegister*>(pEvent->userptr));
  if (oRegister->m_eRegState == E_REG_STATE_REGED || oRegister->m_bReregTimerOn) {
    if (oRegister->SendRegister(E_SEND_REFRESH) != 0) {
      REG_LOG(E_LOG_WARNING, "Send Register failed!\n");
    }
  }
  oRegister->StopTimerIfRetired();
}

// A firing or a START that finds its registration gone makes up for a STOP that was lost or is
// still behind it.
void CRegister::StopTimerIfRetired() {
  if (m_oEndNode.IsRetired()) StopTimer();
}

void CRegister::RegTimerLock() {
  REG_LOG(E_LOG_INFO, "Begin RegTimerLock;\n");
  m_oTimerMutex.Lock();
}

void CRegister::RegTimerUnlock() {
  m_oTimerMutex.Unlock();
  REG_LOG(E_LOG_INFO, "After RegTimerUnLock;\n");
}
