// CRegister: one SIP registration, one address of record at one registrar, with its state, its
// REGISTER traffic and its one timer.
//
// Who runs what:
//   SetRegInfo, Register, Deregister     the thread of a command
//   OnRegRsp, OnRegError                 the stack's delivery thread, under the registry's lock
//   TimerEvent, TimerProc and below      m_hThread, in its KD event loop
//   SubNotifyProc                        the bus's delivery thread, under the registry's lock
//   Release                              whoever ends the registration, under the registry's lock
// g_oRegLock is held by Register, Deregister, Release, OnRegRsp, OnRegError and SubNotifyProc for
// their whole run;
// the library lock (sivra_lock) from build to send of a REGISTER. The timer's side takes only the
// library lock.
//
// Invariants:
//   1. Every REGISTER carries the value that m_nExpires has when it is built.
//   2. There is one timer handle: the refresh timer and the re-register timer are never set at the
//   same time.
//   3. m_strDefaultUri differs from m_strAor only through a P-Associated-URI list.
//   4. After Deregister no refresh leaves, until a new Register; after Release nothing leaves any
//   more.
//   5. Who may still name the object keeps it: see RegisterEnd.h.
#pragma once

#include <atomic>
#include <string>
#include <string_view>
#include <vector>

#include "registrationpackage.h"
#include "Sipcarrier/Sipcarrier.h"
#include "VorelKDCore/VorelKDCore.h"
#include "Vorelkit/Vorelkit.h"
#include "XMLParserImpl.h"

enum E_REG_STATE {
  E_REG_STATE_UNREG = 0,     // no binding
  E_REG_STATE_REGING = 1,    // a REGISTER went out on command, no final answer yet
  E_REG_STATE_REGED = 2,     // registered
  E_REG_STATE_DEREGING = 3,  // deregistration under way
};

enum E_REG_EVENT {
  E_REG_EVENT_SUCCESS = 1,
  E_REG_EVENT_REREGISTERED = 2,  // not yielded: a re-registration is told as a success
  E_REG_EVENT_FAILURE = 3,       // a REGISTER failed with no live registration
  E_REG_EVENT_DEREGISTERED = 4,  // deregistration over, whatever the answer
  E_REG_EVENT_STATE_CHANGE = 5,  // a live registration changed state
  E_REG_EVENT_NONE = 6,
  E_REG_EVENT_SERVICE_LOST = 7,  // status 533 was answered with a new REGISTER
};

// Indices of the words that go into state notifications.
enum E_REG_WORD {
  E_REG_WORD_NONE = 0,
  E_REG_WORD_REGISTERED = 1,
  E_REG_WORD_CREATED = 2,
  E_REG_WORD_REFRESHED = 3,
  E_REG_WORD_SHORTED = 4,
  E_REG_WORD_EXPIRED = 5,
  E_REG_WORD_DEACTIVATED = 6,
  E_REG_WORD_PROBATION = 7,
  E_REG_WORD_UNREGISTERED = 8,
  E_REG_WORD_REJECTED = 9,
  E_REG_WORD_TIMEOUT = 10,
  E_REG_WORD_AUTO_REREGISTER = 11,  // not yielded
};

// Thread events of the engine; the user pointer is the CRegister.
inline constexpr KDint E_REG_TIMER_EVENT_START_REFRESH = 0x400000c8;
inline constexpr KDint E_REG_TIMER_EVENT_START_REREG = 0x400000c9;
inline constexpr KDint E_REG_TIMER_EVENT_STOP = 0x400000ca;

// What happened, from a CRegister to the manager, which makes the record and frees its texts
// (FreeRegEvent).
struct ST_REG_EVENT {
  int eRegEventType;  // E_REG_EVENT; -1 as the manager makes it
  int nEventWord;     // E_REG_WORD
  int nRegId;
  int eRegState;
  int nStatusCode;
  int nWarnCode;  // -1: no Warning header
  char* pszReserved;
  char* strAor;
  char* strWarnText;
};

class CRegister {
 public:
  CRegister() { ++s_nAlive; }
  virtual ~CRegister() { --s_nAlive; }
  CRegister(const CRegister&) = delete;
  CRegister& operator=(const CRegister&) = delete;

  // How many there are, the retired ones included: what a leak would show in.
  static inline std::atomic<int> s_nAlive{0};

  // ---- commands (Register.cpp)
  void SetRegInfo(const CRegMsg& stRegMsg);
  // Sends a REGISTER on the calling thread, which becomes the registration's own: it must run a KD
  // event loop.
  int Register();
  // 0: started, or under way already; -1: failed, or nothing was registered; else the library's
  // result.
  int Deregister(int bNoSend);
  // Gives a live registration back and lets the library's entry go. Nothing leaves afterwards.
  void Release();
  // The one road by which every REGISTER leaves. -1: not initialised or not built; else the
  // library's result.
  int SendRegister();

  // ---- answers (RegisterRsp.cpp)
  void OnRegRsp(SipStackEvent* pEvent, ST_REG_EVENT& stRegEvent);
  void OnRegError(SipStackEvent* pEvent, ST_REG_EVENT& stRegEvent);
  int IsInPAssociatedURI(const std::string& strUri);

  // ---- the registrar's own view (RegisterSub.cpp)
  // Applies a reginfo document. 0: the record tells what it means, and is all 0 when nothing in the
  // document is about this registration; -1: it is no news, or unusable.
  int SubNotifyProc(const std::string& strDoc, ST_REG_EVENT& stRegEvent);

  // ---- timer (RegisterTimer.cpp)
  // The period in seconds of the refresh timer for an expiry of nExpires seconds.
  static int GetRefreshTime(int nExpires);
  static void PostThreadEvent(int nEvent, void* pUserPtr, KDThread* hThread);
  static void TimerEvent(const KDEvent* pEvent);
  static void TimerProc(const KDEvent* pEvent);
  void RegTimerLock();
  void RegTimerUnlock();

  int GetRegState() const { return m_eRegState; }
  int GetRegId() const { return m_stRegInfo.m_nId; }
  long GetStackRegId() const { return m_lStackRegId; }
  int GetSubscribeId() const { return m_nSubscribeId; }
  void SetSubscribeId(int nSubscribeId) { m_nSubscribeId = nSubscribeId; }
  const std::string& GetDefaultUri() const { return m_strDefaultUri; }
  // The registry's lock guards these two: a subscribe is on its way; nobody owes the subscription
  // an end any more, since the client has said what is to become of it.
  bool IsSubExchanging() const { return m_bSubExchanging; }
  void SetSubExchanging(bool bExchanging) { m_bSubExchanging = bExchanging; }
  bool HasLeftSubscription() const { return m_bSubLeft; }
  void SetLeftSubscription(bool bLeft) { m_bSubLeft = bLeft; }
  int IsSubscribeEnabled() const { return m_bSubscribeEnabled; }
  void SetSubscribeEnabled(int bEnabled) { m_bSubscribeEnabled = bEnabled; }
  void SetRefreshEnabled(int bEnabled) { m_bRefreshEnabled = bEnabled; }
  int IsAutoReregister() const { return m_stRegInfo.m_bAutoReregister; }
  int IsTimerRunning() const { return m_bTimerRunning; }
  void GetRetryAfter(int* pnSeconds) const { *pnSeconds = m_nRetryAfter; }
  int IsEventPost() const { return m_bEventPost; }

 private:
  friend class CRegisterEnd;

  // The new stack id, which the object has taken over, as has the manager's index; below 1:
  // refused, nothing changed.
  long InitRegister(long lStackRegId, const std::string& strUri, const std::string& strDisplayName,
                    const std::string& strRegistrar);
  static std::string ConstructUri(const std::string& strUri, const std::string& strDisplayName);
  static void AddSchema(std::string& strUri);
  // Registers under this URI from now on, unless the library refuses it.
  void Readdress(const std::string& strUri);
  int SendRegister(bool bRefresh);
  bool CompleteRegister(nsip_message* pMsg);
  void SetExpires(int nExpires);
  int Deregister(int bNoSend, const VkLocker& oHeld);  // with g_oRegLock held
  void RememberThread(KDThread* hThread);
  void StopTimerOnOwnThread();

  static char* NewText(std::string_view strText);
  int OnRegSuccess(SipStackEvent* pEvent);
  int OnRegFailure(SipStackEvent* pEvent);
  int IntervalShort(SipStackEvent* pEvent);
  void ReTry(SipStackEvent* pEvent);
  void SetRegEventType(SipStackEvent* pEvent, ST_REG_EVENT& stRegEvent, int& eRegEventType);
  int GetExpiresFromService(nsip_message* pMsg);
  int GetMinExpiresFromService(nsip_message* pMsg);
  int GetPAssociatedURIFromService(nsip_message* pMsg);
  int GetWarnValue(SipStackEvent* pEvent, std::string& strWarnText);

  bool IsOwnAor(const std::string& strAor);
  int RegState(CRegistration* pRegistration, ST_REG_EVENT& stRegEvent);
  void RegStateActive(const std::string& strEvent, ST_REG_EVENT& stRegEvent);
  void RegStateTerminated(const std::string& strEvent, ST_REG_EVENT& stRegEvent);
  void RegStatusRegistered(const std::string& strEvent, ST_REG_EVENT& stRegEvent);
  void RegStatusShorted(ST_REG_EVENT& stRegEvent);
  void RegStatusExpired(const std::string& strEvent, ST_REG_EVENT& stRegEvent);
  void SetUnregistered(int nEventWord, ST_REG_EVENT& stRegEvent);
  void StopRefresh();
  CXML* NewDeregisteredReply() const;

  void StartTimer(KDint64 nSeconds);
  void StopTimer();
  void StopTimerIfRetired();

  // Members that the timer's side reads without g_oRegLock are atomic: it may see them late, which
  // is harmless, since a late firing finds the state changed and does nothing.
  VkMutex m_oTimerMutex;
  CXMLCRegMsg m_stRegInfo;  // m_nExpires: written with the library lock held, read with it or under
                            // g_oRegLock
  int m_bRefreshEnabled = 1;
  int m_bSubscribeEnabled = 0;
  std::atomic<int> m_bRefreshTimerOn{0};
  std::atomic<int> m_nRefreshTime{0};  // seconds
  std::atomic<long> m_lStackRegId{0};  // below 1: not initialised, or released
  int m_nSubscribeId = -1;
  bool m_bSubExchanging = false;
  bool m_bSubLeft = false;
  CRegistrationTable m_oRegistrationTable;
  std::string m_strContactId;  // of our own contact in the table
  std::atomic<int> m_bReregTimerOn{0};
  std::atomic<int> m_eRegState{E_REG_STATE_UNREG};
  std::vector<std::string> m_vecAssociatedUri;
  std::string m_strDefaultUri;
  std::atomic<KDTimer*> m_hTimer{nullptr};
  std::atomic<KDThread*> m_hThread{nullptr};
  std::atomic<int> m_bTimerRunning{0};
  int m_nRetryAfter = 0;  // seconds
  int m_bEventPost = 1;

  // Invariant 4; both are written with the library lock held.
  std::atomic<bool> m_bNoRefresh{false};
  std::atomic<bool> m_bReleased{false};

  // The end of the object; see RegisterEnd.h, whose lock guards these.
  std::vector<KDThread*>
      m_vecThreads;  // where Register ran: nowhere else does a queue or a timer name the object
  int m_nHolds = 0;
  bool m_bRetired = false;
  bool m_bWasBusy = false;
  CRegister* m_pNextRetired = nullptr;
  CRegister* m_pPrevRetired = nullptr;
};
