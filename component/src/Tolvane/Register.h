// CRegister: one SIP registration, one address of record at one registrar, with its state, its
// REGISTER traffic and its one timer.
//
// Who runs what:
//   SetRegInfo, Register, Deregister     the thread of a command
//   OnRegRsp, OnRegError                 the stack's delivery thread, under the registry's lock
//   TimerEvent, TimerProc and below      m_hThread, in its KD event loop
//   SubNotifyProc                        the bus's delivery thread, under the registry's lock
//   Release                              whoever ends the registration, under the registry's lock
// g_oRegLock is held by SetRegInfo, Register, Deregister, Release, OnRegRsp, OnRegError and
// SubNotifyProc for their whole run; the library lock (sivra_lock) from build to send of a REGISTER.
// The timer's side takes only the library lock.
//
// Invariants:
//   1. Every REGISTER carries the value that m_nExpires has when it is built.
//   2. There is one timer handle: the refresh timer and the re-register timer are never set at the
//      same time.
//   3. m_strDefaultUri differs from m_strAor only through a P-Associated-URI list.
//   4. After Deregister no refresh leaves, until a new Register; after Release nothing leaves any
//      more.
//   5. Who may still name the object keeps it: see RegisterEnd.h.
#pragma once

#include <atomic>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "ParserBaseImpl.h"
#include "RegGlobal.h"
#include "RegisterEnd.h"
#include "registrationpackage.h"
#include "Sipcarrier/Sipcarrier.h"
#include "sivra/sivra.h"
#include "StackIdIndex.h"
#include "VorelKDCore/VorelKDCore.h"
#include "Vorelkit/Vorelkit.h"

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
  // Both live longer.
  CRegister(CRegisterEnd& oEnd, CStackIdIndex& oStackIds)
      : m_oEndNode(oEnd, this), m_oStackIds(oStackIds) {
    ++s_nAlive;
  }
  virtual ~CRegister() { --s_nAlive; }
  CRegister(const CRegister&) = delete;
  CRegister& operator=(const CRegister&) = delete;

  // How many there are, the retired ones included: what a leak would show in.
  static inline std::atomic<int> s_nAlive{0};

  // ---- commands (Register.cpp)
  void SetRegInfo(const CRegMsg& stRegMsg) TOLVANE_EXCLUDES(g_oRegLock);
  // Sends a REGISTER on the calling thread, which becomes the registration's own: it must run a KD
  // event loop.
  int Register() TOLVANE_EXCLUDES(g_oRegLock);
  // 0: started, or under way already; -1: failed, or nothing was registered; else the library's
  // result.
  int Deregister(int bNoSend) TOLVANE_EXCLUDES(g_oRegLock);
  // Removes a live binding and lets the library's entry go. Nothing leaves afterwards.
  void Release() TOLVANE_EXCLUDES(g_oRegLock);
  // The one road by which every REGISTER leaves. -1: not initialised or not built; else the
  // library's result.
  int SendRegister() { return SendRegister(E_SEND_AGAIN); }

  // ---- responses (RegisterRsp.cpp)
  void OnRegRsp(SipStackEvent* pEvent, ST_REG_EVENT& stRegEvent) TOLVANE_EXCLUDES(g_oRegLock);
  void OnRegError(SipStackEvent* pEvent, ST_REG_EVENT& stRegEvent) TOLVANE_EXCLUDES(g_oRegLock);
  int IsInPAssociatedURI(const std::string& strUri) TOLVANE_REQUIRES(g_oRegLock);

  // ---- the registrar's own view (RegisterSub.cpp)
  // Applies a reginfo document. 0: the record tells what it means, and is all 0 when nothing in the
  // document is about this registration; -1: it is no news, or unusable.
  int SubNotifyProc(const std::string& strDoc, ST_REG_EVENT& stRegEvent)
      TOLVANE_EXCLUDES(g_oRegLock);

  // ---- timer (RegisterTimer.cpp)
  // The period in seconds of the refresh timer for an expiry of nExpires seconds.
  static int GetRefreshTime(int nExpires);
  static void PostThreadEvent(int nEvent, void* pUserPtr, KDThread* hThread);
  static void TimerEvent(const KDEvent* pEvent);
  static void TimerProc(const KDEvent* pEvent);
  // For a client of the timer that does not exist yet; nothing here takes that mutex.
  void RegTimerLock() TOLVANE_ACQUIRE(m_oTimerMutex);
  void RegTimerUnlock() TOLVANE_RELEASE(m_oTimerMutex);

  // Any thread, no lock: each is one word.
  int GetRegState() const { return m_eRegState; }
  int GetRegId() const { return m_stRegInfo.m_nId; }
  long GetStackRegId() const { return m_lStackRegId; }
  int GetSubscribeId() const { return m_nSubscribeId; }
  void SetSubscribeId(int nSubscribeId) { m_nSubscribeId = nSubscribeId; }
  // A subscribe is on its way; nobody owes the subscription an end any more, since the client has
  // said what is to become of it. Both change with the registry's lock held.
  bool IsSubExchanging() const { return m_bSubExchanging; }
  void SetSubExchanging(bool bExchanging) { m_bSubExchanging = bExchanging; }
  bool HasLeftSubscription() const { return m_bSubLeft; }
  void SetLeftSubscription(bool bLeft) { m_bSubLeft = bLeft; }
  int IsSubscribeEnabled() const { return m_bSubscribeEnabled; }
  void SetSubscribeEnabled(int bEnabled) { m_bSubscribeEnabled = bEnabled; }
  void SetRefreshEnabled(int bEnabled) { m_bRefreshEnabled = bEnabled; }
  int IsAutoReregister() const { return m_stRegInfo.m_bAutoReregister; }
  int IsTimerRunning() const { return m_oEndNode.m_bTimerRunning; }
  void GetRetryAfter(int* pnSeconds) const { *pnSeconds = m_nRetryAfter; }
  int IsEventPost() const { return m_bEventPost; }

  // The URI that this registration registers under.
  std::string GetDefaultUri() const TOLVANE_EXCLUDES(g_oRegLock);
  CRegisterEnd::CNode& GetEndNode() { return m_oEndNode; }

 private:
  // Of the command, with the addresses completed. Constant from SetRegInfo on, but for the expiry.
  // What nobody reads ("contact-param", "require") is not kept.
  struct ST_REG_INFO {
    std::string m_strAor;
    std::string m_strRegistrar;
    std::unique_ptr<const std::string> m_pDisplayName;  // null: empty, as in most commands
    std::unique_ptr<const std::string> m_pUserAgent;    // the same
    std::atomic<int> m_nExpires{0};                     // seconds
    int m_nReregisterInterval = 0;                      // seconds
    int m_bAutoReregister = 0;
    int m_nId = -1;
  };
  // What reginfo documents say; most registrations never see one.
  struct ST_REG_VIEW {
    CRegistrationTable m_oRegistrationTable;
    std::string m_strContactId;  // of our own contact in the table
  };
  enum E_SEND { E_SEND_FIRST, E_SEND_REFRESH, E_SEND_AGAIN };

  // The new stack id, which the object has taken over, as has the index; below 1: refused, nothing
  // changed.
  long InitRegister(long lStackRegId, const std::string& strUri, const std::string& strDisplayName,
                    const std::string& strRegistrar) TOLVANE_REQUIRES(g_oRegLock);
  static std::string ConstructUri(const std::string& strUri, const std::string& strDisplayName);
  static void AddSchema(std::string& strUri);
  // Registers under this URI from now on, unless the library refuses it.
  void Readdress(const std::string& strUri) TOLVANE_REQUIRES(g_oRegLock);
  const std::string& DefaultUri() const TOLVANE_REQUIRES(g_oRegLock);
  int SendRegister(E_SEND eSend);
  bool CompleteRegister(nsip_message* pMsg, int nExpires) TOLVANE_REQUIRES(sivra::library_lock);
  int DeregisterLocked(int bNoSend) TOLVANE_REQUIRES(g_oRegLock);
  void StopTimerOnOwnThread();

  static char* NewText(std::string_view strText);
  int OnRegSuccess(SipStackEvent* pEvent) TOLVANE_REQUIRES(g_oRegLock);
  int OnRegFailure(SipStackEvent* pEvent) TOLVANE_REQUIRES(g_oRegLock);
  int IntervalShort(SipStackEvent* pEvent) TOLVANE_REQUIRES(g_oRegLock);
  void ReTry(SipStackEvent* pEvent) TOLVANE_REQUIRES(g_oRegLock);
  void SetRegEventType(SipStackEvent* pEvent, ST_REG_EVENT& stRegEvent, int& eRegEventType)
      TOLVANE_REQUIRES(g_oRegLock);
  int GetExpiresFromService(nsip_message* pMsg);
  int GetMinExpiresFromService(nsip_message* pMsg);
  int GetPAssociatedURIFromService(nsip_message* pMsg) TOLVANE_REQUIRES(g_oRegLock);
  int GetWarnValue(SipStackEvent* pEvent, std::string& strWarnText);

  bool IsOwnAor(const std::string& strAor) TOLVANE_REQUIRES(g_oRegLock);
  int RegState(CRegistration* pRegistration, ST_REG_EVENT& stRegEvent) TOLVANE_REQUIRES(g_oRegLock);
  void RegStateActive(const std::string& strEvent, ST_REG_EVENT& stRegEvent)
      TOLVANE_REQUIRES(g_oRegLock);
  void RegStateTerminated(const std::string& strEvent, ST_REG_EVENT& stRegEvent)
      TOLVANE_REQUIRES(g_oRegLock);
  void RegStatusRegistered(const std::string& strEvent, ST_REG_EVENT& stRegEvent)
      TOLVANE_REQUIRES(g_oRegLock);
  void RegStatusShorted(ST_REG_EVENT& stRegEvent) TOLVANE_REQUIRES(g_oRegLock);
  void RegStatusExpired(const std::string& strEvent, ST_REG_EVENT& stRegEvent)
      TOLVANE_REQUIRES(g_oRegLock);
  void SetUnregistered(int nEventWord, ST_REG_EVENT& stRegEvent) TOLVANE_REQUIRES(g_oRegLock);
  void StopRefresh() TOLVANE_REQUIRES(g_oRegLock);
  std::unique_ptr<CXML> NewDeregisteredReply() const;

  void StartTimer(KDint64 nSeconds);
  void StopTimer();
  void StopTimerIfRetired();

  // One for all: a mutex that nothing takes is not worth its bytes in every object.
  static inline VkMutex m_oTimerMutex;

  // The words that are read without g_oRegLock, by the timer's side, the manager or both, are
  // atomic: a reader may see them late, which is harmless, since a late firing finds the state
  // changed and does nothing.
  CRegisterEnd::CNode m_oEndNode;
  CStackIdIndex& m_oStackIds;
  ST_REG_INFO m_stRegInfo;
  // Empty while it is the address of record.
  std::string m_strDefaultUri TOLVANE_GUARDED_BY(g_oRegLock);
  std::vector<std::string> m_vecAssociatedUri TOLVANE_GUARDED_BY(g_oRegLock);
  std::unique_ptr<ST_REG_VIEW> m_pView
      TOLVANE_GUARDED_BY(g_oRegLock);  // from the first document on
  std::atomic<long> m_lStackRegId{0};  // below 1: not initialised, or released
  std::atomic<KDTimer*> m_hTimer{nullptr};
  std::atomic<KDThread*> m_hThread{nullptr};
  std::atomic<int> m_eRegState{E_REG_STATE_UNREG};
  std::atomic<int> m_nRefreshTime{0};  // seconds
  std::atomic<int> m_nRetryAfter{0};   // seconds
  std::atomic<int> m_nSubscribeId{-1};
  std::atomic<bool> m_bRefreshEnabled{true};
  std::atomic<bool> m_bSubscribeEnabled{false};
  std::atomic<bool> m_bRefreshTimerOn{false};
  std::atomic<bool> m_bReregTimerOn{false};
  std::atomic<bool> m_bEventPost{true};
  std::atomic<bool> m_bSubExchanging{false};
  std::atomic<bool> m_bSubLeft{false};
  // Invariant 4.
  bool m_bNoRefresh TOLVANE_GUARDED_BY(sivra::library_lock) = false;
  bool m_bReleased TOLVANE_GUARDED_BY(sivra::library_lock) = false;
};

// Holds an object for a scope, so that it is not freed. Adopts a hold that is taken already
// (GetRegisterById, CreateRegister) or takes one; with E_ADOPT the object may be null.
class [[nodiscard]] CRegisterHold {
 public:
  enum EAdopt { E_ADOPT };
  CRegisterHold(CRegister* pRegister, EAdopt) : m_pRegister(pRegister) {}
  explicit CRegisterHold(CRegister* pRegister) : m_pRegister(pRegister) {
    CRegisterEnd::Hold(pRegister->GetEndNode());
  }
  ~CRegisterHold() {
    if (m_pRegister == nullptr) return;
    CRegisterEnd::CNode& oNode = m_pRegister->GetEndNode();
    oNode.m_oEnd.Unhold(oNode);
  }
  CRegisterHold(const CRegisterHold&) = delete;
  CRegisterHold& operator=(const CRegisterHold&) = delete;
  CRegister* operator->() const { return m_pRegister; }
  CRegister* Get() const { return m_pRegister; }
  explicit operator bool() const { return m_pRegister != nullptr; }

 private:
  CRegister* m_pRegister;
};
