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
//   0.
//   2. An object leaves the registry by Remove alone: subscription out, Release (which takes its
//   stack
//      id out of the index), registry out, retired.
//   3. What GetRegisterById and CreateRegister give is held and stays good until the hold is given
//   back.
#pragma once

#include <map>
#include <string>
#include <unordered_map>
#include <vector>

#include "RegIdPool.h"
#include "RegisterEnd.h"
#include "Sipcarrier/Sipcarrier.h"
#include "USObject.h"
#include "VorelKDCore/VorelKDCore.h"
#include "Vorelkit/Vorelkit.h"

class CRegister;
struct ST_REG_EVENT;
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
  // Takes the component off the stack, gives every binding back, ends every registration. Always 0.
  int Uninitialize();

  // A new, empty registration under a new id, held for the caller; null when memory or ids are
  // exhausted.
  CRegister* CreateRegister(int* pnRegId);
  // Held for the caller, or null.
  CRegister* GetRegisterById(int nRegId);
  // With pOnly: only if the id still belongs to this object.
  void DeleteRegister(int nRegId, const CRegister* pOnly = nullptr);

  void RegMgrLock();
  void RegMgrUnlock();
  CRegisterEnd& GetEnd() { return m_oEnd; }

  // RegisterSipProcessSub.cpp
  // With m_oRegMgrMutex held: asks the service for the registration's own view, unless that is
  // under way. nExpires: seconds.
  void Subscribe(CRegister* pRegister, int nExpires);
  // Without it: ends the subscription of this registration; leaves it as it is for good.
  void Desubscribe(int nRegId);
  void KeepSubscription(int nRegId);
  // A notification of the service.
  void SubEventDispatch(int nNtfId, CXML* pDoc);
  // Runs the exchanges that wait.
  static void SubEventCallBack(const KDEvent* pKdEvent);

  // Keeps the index of stack ids in step; called by the registration whose id has changed.
  void OnStackIdChanged(CRegister* pRegister, long lOld, long lNew);

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
  class CRegEventRecord;

  void InitTables();
  void ClearRegisters();
  bool Remove(CRegister* pRegister, int nRegId);
  CRegister* FindByStackId(long lStackRegId);
  std::string GetEventWord(int nEventWord) const;

  // RegisterSipProcessEvent.cpp
  int OnRegisterRsp(SipStackEvent* pEvent);
  int OnRegisterErr(SipStackEvent* pEvent);
  // With m_oRegMgrMutex held:
  int OnRegEvent(CRegister* pRegister, ST_REG_EVENT* pRegEvent);
  void EventIgnore(CRegister* pRegister, ST_REG_EVENT* pRegEvent, CXML* pDoc);
  void EventSubNotify(CRegister* pRegister, ST_REG_EVENT* pRegEvent, CXML* pDoc);
  void EventSerLost(CXML* pDoc, ST_REG_EVENT* pRegEvent);
  static void FreeRegEvent(ST_REG_EVENT* pRegEvent);

  // RegisterSipProcessSub.cpp
  void SubSuccess(int nNtfId, CXML* pDoc);
  void SubFailure(int nNtfId, CXML* pDoc);
  void SubNotify(int nNtfId, CXML* pDoc);
  // With m_oRegMgrMutex held:
  bool QueueSubPending(ST_SUB_PENDING* pPending);
  void EndSubscription(CRegister* pRegister);
  bool ApplySubEvent(const ST_SUB_EARLY& stEvent);
  bool NotifySubState(CRegister* pRegister, const ST_REG_EVENT& stRegEvent);
  // Without it:
  bool HasSubscribed();
  ST_SUB_PENDING* TakeSubPending();
  void RunSubscribe(const ST_SUB_PENDING& stPending);
  void SetSubRunning();
  bool EnterSubscription(const ST_SUB_PENDING& stPending, int nSubscribeId);
  void EndSubExchanges();

  static const PS_EVENT_MAP s_stRegEventMap;
  static const PS_EVENT_ENTRY s_astEvents[];

  VkMutex m_oRegMgrMutex;
  CRegIdPool m_oIds;
  std::map<int, int> m_mapSubscribe;  // subscription id to registration id
  std::vector<ST_SUB_EARLY> m_vecEarly;
  std::map<int, std::string>
      m_mapRegEventName;  // event code to event word; constant between start and stop
  KDThread* m_hMainThread = nullptr;
  std::map<int, CRegister*> m_mapRegister;

  // Stack ids to registrations, so that matching an event costs the same however many there are.
  // Its mutex is a leaf.
  VkMutex m_oStackIdMutex;
  std::unordered_multimap<long, CRegister*> m_mapStackId;

  CRegisterEnd m_oEnd;
};

// Holds the registry for a scope.
class [[nodiscard]] CRegMgrLocker {
 public:
  explicit CRegMgrLocker(CRegisterSipProcess& oManager) : m_oManager(oManager) {
    m_oManager.RegMgrLock();
  }
  ~CRegMgrLocker() { m_oManager.RegMgrUnlock(); }
  CRegMgrLocker(const CRegMgrLocker&) = delete;
  CRegMgrLocker& operator=(const CRegMgrLocker&) = delete;

 private:
  CRegisterSipProcess& m_oManager;
};

// Writes every key of the registry to the log, a line each, under the name of the operation that
// stands there. With the lock held. The log is asked once before the walk: of ten thousand keys it
// would otherwise drop each by itself, which cost 17 ms an event.
#define REG_LOG_KEYS(szFormat)                                                              \
  do {                                                                                      \
    if (LogOne_For(GetRegGlobal().m_pLog, E_LOG_INFO) != nullptr) {                         \
      for (const auto& oEntry : m_mapRegister) REG_LOG(E_LOG_INFO, szFormat, oEntry.first); \
    }                                                                                       \
  } while (false)
