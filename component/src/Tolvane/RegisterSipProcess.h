// CRegisterSipProcess: the manager. It owns every CRegister, stands between the SIP stack and the
// bus, gives out the registration ids that clients see, and makes the notifications.
//
// Three numbers name a registration, and only the manager translates between them: the registration
// id (key of the registry, the only one that clients see), the stack id (the SIP library's, in
// stack events) and the subscription id (the subscription service's).
//
// Threads: commands on the host's threads, stack events on the stack's delivery thread,
// notifications on the bus's, exchanges with the subscription service on m_hMainThread.
// m_oRegMgrMutex guards the registry and the subscriptions; it is the outermost lock of the
// component, and a stack event holds it from being matched until its notification has gone out.
//
// Invariants:
//   1. An object in the registry is alive, and has its stack id in the index whenever that is above
//      0.
//   2. An object leaves the registry by Remove alone: subscription out, Release (which takes its
//      stack id out of the index), registry out, retired.
//   3. What GetRegisterById and CreateRegister give is held, and stays good until CRegisterHold lets
//      go of it.
#pragma once

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "Register.h"
#include "RegisterEnd.h"
#include "RegisterMap.h"
#include "Sipcarrier/Sipcarrier.h"
#include "StackIdIndex.h"
#include "USObject.h"
#include "VorelKDCore/VorelKDCore.h"
#include "Vorelkit/Vorelkit.h"

struct ST_SUB_PENDING;

inline constexpr int E_SUB_EXPIRES = 3761;  // seconds, of every subscription

// Thread events to m_hMainThread; the user pointer is the manager.
inline constexpr KDint E_SUB_EVENT_SUBSCRIBE = 0x400000cb;
inline constexpr KDint E_SUB_EVENT_DESUBSCRIBE = 0x400000cc;

class CRegisterSipProcess : public ISipStackEvent, public CPSObject {
 public:
  CRegisterSipProcess() = default;
  ~CRegisterSipProcess() override;
  CRegisterSipProcess(const CRegisterSipProcess&) = delete;
  CRegisterSipProcess& operator=(const CRegisterSipProcess&) = delete;

  // The result of Sipcarrier_RegisterHandler. The calling thread becomes the component's main
  // thread.
  int Initialize();
  // Takes the component off the stack, removes every binding, ends every registration. Always 0.
  int Uninitialize() TOLVANE_EXCLUDES(m_oRegMgrMutex);

  // A new, empty registration under a new id, held for the caller; null when memory or ids are
  // exhausted.
  CRegister* CreateRegister(int* pnRegId) TOLVANE_EXCLUDES(m_oRegMgrMutex);
  // Held for the caller, or null.
  CRegister* GetRegisterById(int nRegId) TOLVANE_EXCLUDES(m_oRegMgrMutex);
  // With pOnly: only if the id still belongs to this object.
  void DeleteRegister(int nRegId, const CRegister* pOnly = nullptr)
      TOLVANE_EXCLUDES(m_oRegMgrMutex);

  void RegMgrLock() TOLVANE_ACQUIRE(m_oRegMgrMutex);
  void RegMgrUnlock() TOLVANE_RELEASE(m_oRegMgrMutex);

  // RegisterSipProcessSub.cpp
  // Asks the service for the registration's own view, unless that is under way. nExpires: seconds.
  void Subscribe(CRegister* pRegister, int nExpires) TOLVANE_REQUIRES(m_oRegMgrMutex);
  // Ends the subscription of this registration; leaves it as it is for good.
  void Desubscribe(int nRegId) TOLVANE_EXCLUDES(m_oRegMgrMutex);
  void KeepSubscription(int nRegId) TOLVANE_EXCLUDES(m_oRegMgrMutex);
  // A notification of the service.
  void SubEventDispatch(int nNtfId, CXML* pDoc) TOLVANE_EXCLUDES(m_oRegMgrMutex);
  // Runs the exchanges that wait.
  static void SubEventCallBack(const KDEvent* pKdEvent);

  int OnStackEvent(SipStackEvent* pEvent) override;
  std::string GetServiceName() override;
  const PS_EVENT_MAP* GetEventMap() const override;

 private:
  // A notification of the service, taken apart; kept while its subscription is not known yet.
  struct ST_SUB_EARLY {
    int nSubscribeId;
    bool bStop;
    std::string strBody;
  };
  // The exchanges with the service that wait, in order.
  struct ST_SUB_QUEUE {
    ST_SUB_PENDING* pFirst = nullptr;
    ST_SUB_PENDING* pLast = nullptr;
    bool bSubscribed = false;  // a subscribe has been queued since the library was loaded
    bool bRunning = false;     // a subscribe is at the service now
  };
  class CLocker;
  class CRegEventRecord;

  void InitTables();
  void ClearRegisters() TOLVANE_EXCLUDES(m_oRegMgrMutex);
  // The object may be freed on return. True when no timer of it runs.
  bool Remove(CRegister* pRegister, int nRegId) TOLVANE_REQUIRES(m_oRegMgrMutex);
  CRegister* FindByStackId(long lStackRegId) TOLVANE_REQUIRES(m_oRegMgrMutex);
  // Empty for a code that has no word.
  std::string GetEventWord(int nEventWord) const;
  // Writes every key of the registry to the log, a line each, under the name of the operation where
  // that stands.
  void LogKeys(const char* szFunction, const char* szFile, int nLine, const char* szFormat)
      TOLVANE_REQUIRES(m_oRegMgrMutex);

  // RegisterSipProcessEvent.cpp
  int OnRegisterRsp(SipStackEvent* pEvent) TOLVANE_EXCLUDES(m_oRegMgrMutex);
  int OnRegisterErr(SipStackEvent* pEvent) TOLVANE_EXCLUDES(m_oRegMgrMutex);
  int OnRegEvent(CRegister* pRegister, ST_REG_EVENT* pRegEvent) TOLVANE_REQUIRES(m_oRegMgrMutex);
  void EventIgnore(CRegister* pRegister, ST_REG_EVENT* pRegEvent, CXML* pDoc)
      TOLVANE_REQUIRES(m_oRegMgrMutex);
  void EventSubNotify(CRegister* pRegister, ST_REG_EVENT* pRegEvent, CXML* pDoc)
      TOLVANE_REQUIRES(m_oRegMgrMutex);
  void EventSerLost(CXML* pDoc, ST_REG_EVENT* pRegEvent);
  static void FreeRegEvent(ST_REG_EVENT* pRegEvent);

  // RegisterSipProcessSub.cpp
  void SubSuccess(int nNtfId, CXML* pDoc) TOLVANE_EXCLUDES(m_oRegMgrMutex);
  void SubFailure(int nNtfId, CXML* pDoc);
  void SubNotify(int nNtfId, CXML* pDoc) TOLVANE_EXCLUDES(m_oRegMgrMutex);
  bool QueueSubPending(std::unique_ptr<ST_SUB_PENDING> pPending) TOLVANE_REQUIRES(m_oRegMgrMutex);
  void EndSubscription(CRegister* pRegister) TOLVANE_REQUIRES(m_oRegMgrMutex);
  bool ApplySubEvent(const ST_SUB_EARLY& stEvent) TOLVANE_REQUIRES(m_oRegMgrMutex);
  bool NotifySubState(CRegister* pRegister, const ST_REG_EVENT& stRegEvent)
      TOLVANE_REQUIRES(m_oRegMgrMutex);
  bool HasSubscribed() TOLVANE_EXCLUDES(m_oRegMgrMutex);
  std::unique_ptr<ST_SUB_PENDING> TakeSubPending() TOLVANE_EXCLUDES(m_oRegMgrMutex);
  void RunSubscribe(const ST_SUB_PENDING& stPending) TOLVANE_EXCLUDES(m_oRegMgrMutex);
  void SetSubRunning() TOLVANE_EXCLUDES(m_oRegMgrMutex);
  bool EnterSubscription(const ST_SUB_PENDING& stPending, int nSubscribeId)
      TOLVANE_EXCLUDES(m_oRegMgrMutex);
  void EndSubExchanges() TOLVANE_EXCLUDES(m_oRegMgrMutex);

  static const PS_EVENT_MAP s_stRegEventMap;
  static const PS_EVENT_ENTRY s_astEvents[];

  VkMutex m_oRegMgrMutex;
  // Subscription id to registration id.
  std::map<int, int> m_mapSubscribe TOLVANE_GUARDED_BY(m_oRegMgrMutex);
  std::vector<ST_SUB_EARLY> m_vecEarly TOLVANE_GUARDED_BY(m_oRegMgrMutex);
  ST_SUB_QUEUE m_stSubPending TOLVANE_GUARDED_BY(m_oRegMgrMutex);
  // Event code to event word; constant between start and stop.
  std::map<int, std::string> m_mapRegEventName;
  KDThread* m_hMainThread = nullptr;
  CRegisterMap m_mapRegister TOLVANE_GUARDED_BY(m_oRegMgrMutex);
  CStackIdIndex m_oStackIds;
  CRegisterEnd m_oEnd{vktDelete<CRegister>};
};

// Holds the registry for a scope.
class [[nodiscard]] TOLVANE_SCOPED_CAPABILITY CRegisterSipProcess::CLocker {
 public:
  explicit CLocker(CRegisterSipProcess& oManager) TOLVANE_ACQUIRE(oManager.m_oRegMgrMutex)
      : m_oManager(oManager) {
    m_oManager.RegMgrLock();
  }
  ~CLocker() TOLVANE_RELEASE() { m_oManager.RegMgrUnlock(); }
  CLocker(const CLocker&) = delete;
  CLocker& operator=(const CLocker&) = delete;

 private:
  CRegisterSipProcess& m_oManager;
};

// The dump of the registry's keys, with the lock held. The log is asked once before the walk: of ten
// thousand keys it would otherwise drop each by itself, which cost 17 ms an event.
#define REG_LOG_KEYS(szFormat)                                      \
  do {                                                              \
    if (LogOne_For(GetRegGlobal().m_pLog, E_LOG_INFO) != nullptr) { \
      REG_LOG_FUNCTION(szLogFunction);                              \
      LogKeys(szLogFunction, __FILE__, __LINE__, szFormat);         \
    }                                                               \
  } while (false)
