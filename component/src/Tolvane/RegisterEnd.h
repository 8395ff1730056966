// How a CRegister ends. Leaving the registry and being freed are two moments, since others may
// still name it: command handlers, a callback that runs, its timer, events and firings in a
// thread's queue.
//
// The object has one owner at any time: the registry, then the list of the retired here, which frees
// it when
//   1. nobody holds it (handlers and running callbacks hold it: CRegisterHold), and
//   2. its timer has stopped, or its threads have ended, or everything is shut down, and
//   3. every thread on which Register ran has taken back what names it: queued events, callbacks
//      and timers, also a timer whose cancelling failed (kdForgetUserPtr). A thread on which a
//      callback with this object runs refuses that until the callback has returned.
// The usual road: Release posts a STOP, the timer's thread handles it, and the object is freed
// there. A STOP that is lost (no memory, the callback gone) is made up for by the next firing, which
// finds the object retired. One that went to a thread that has ended, and a callback that was about
// to return when the object should have gone, are made up for by the next sweep.
//
// A leaf: it knows its objects by their nodes only. Thread-safe. Its mutex is taken last of all but
// the log's and the platform's own, and is never held while an object is deleted.
#pragma once

#include <atomic>
#include <memory>
#include <vector>

#include "base/mutex.h"
#include "VorelKDCore/VorelKDCore.h"
#include "Vorelkit/Vorelkit.h"

class CRegister;

class CRegisterEnd {
 public:
  // What the end of one object has to know of it; a member of the object.
  class CNode {
   public:
    CNode(CRegisterEnd& oEnd, CRegister* pRegister) : m_oEnd(oEnd), m_pRegister(pRegister) {}
    CNode(const CNode&) = delete;
    CNode& operator=(const CNode&) = delete;

    CRegisterEnd& m_oEnd;
    std::atomic<int> m_bTimerRunning{0};  // a timer was set and has not been stopped

    [[nodiscard]] bool IsRetired() const { return m_bRetired; }

   private:
    friend class CRegisterEnd;
    CRegister* const m_pRegister;
    std::atomic<bool> m_bRetired{false};  // written with the mutex held
    // Where Register ran: nowhere else does a queue or a timer name the object. The first thread,
    // and others, which hardly any object has.
    KDThread* m_hThread TOLVANE_GUARDED_BY(s_oMutex) = nullptr;
    std::unique_ptr<std::vector<KDThread*>> m_pOthers TOLVANE_GUARDED_BY(s_oMutex);
    int m_nHolds TOLVANE_GUARDED_BY(s_oMutex) = 0;
    CNode* m_pNext TOLVANE_GUARDED_BY(s_oMutex) = nullptr;  // among the retired
    CNode* m_pPrev TOLVANE_GUARDED_BY(s_oMutex) = nullptr;
  };

  // pFree deletes an object.
  explicit CRegisterEnd(void (*pFree)(CRegister*)) : m_pFree(pFree) {}
  ~CRegisterEnd();
  CRegisterEnd(const CRegisterEnd&) = delete;
  CRegisterEnd& operator=(const CRegisterEnd&) = delete;

  // The object must be alive for sure: in the registry under its lock, or held, or in its own
  // callback.
  static void Hold(CNode& oNode) TOLVANE_EXCLUDES(s_oMutex);
  void Unhold(CNode& oNode) TOLVANE_EXCLUDES(s_oMutex);
  // Register runs on this thread. Throws std::bad_alloc.
  static void RememberThread(CNode& oNode, KDThread* hThread) TOLVANE_EXCLUDES(s_oMutex);
  // Takes over an object that has left the registry and been released; frees it as soon as may be.
  void Retire(CNode& oNode) TOLVANE_EXCLUDES(s_oMutex);
  // Frees the oldest of the retired, if it may go by now. Looks at no other, so its cost is small.
  void Sweep() TOLVANE_EXCLUDES(s_oMutex);
  // At shutdown: takes the timers away from their threads and frees everything; waits for callbacks
  // and handlers that are under way, but not for longer than a few seconds. What is held even then
  // stays for the destructor.
  void FreeAll() TOLVANE_EXCLUDES(s_oMutex);

 private:
  // One for the process, as is the list; the compiler can then check that nodes are touched with it.
  static VkMutex s_oMutex;

  // Takes the node off the list when its object may be freed; the caller does that without the
  // lock. Null: not yet.
  [[nodiscard]] CRegister* TakeIfFree(CNode& oNode, bool bShutdown) TOLVANE_REQUIRES(s_oMutex);
  [[nodiscard]] CRegister* TakeOldest() TOLVANE_REQUIRES(s_oMutex);
  void Link(CNode& oNode) TOLVANE_REQUIRES(s_oMutex);
  void Unlink(CNode& oNode) TOLVANE_REQUIRES(s_oMutex);

  void (*const m_pFree)(CRegister*);
  CNode* m_pOldest TOLVANE_GUARDED_BY(s_oMutex) = nullptr;
  CNode* m_pNewest TOLVANE_GUARDED_BY(s_oMutex) = nullptr;
};
