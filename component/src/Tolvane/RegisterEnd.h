// How a CRegister ends. Leaving the registry and being freed are two moments, since others may
// still name it: command handlers, a callback that runs, its timer, events and firings in a
// thread's queue.
//
// The object has one owner at any time: the registry's map, then the list of the retired here,
// which frees it when
//   1. nobody holds it (handlers and running callbacks hold it: CRegisterHold), and
//   2. its timer has stopped, or its threads have ended, or everything is shut down, and
//   3. every thread on which Register ran has given back what names it: queued events, callbacks
//      and timers, also a timer whose cancelling failed (kdForgetUserPtr).
// The usual road: Release posts a STOP, the timer's thread handles it, and the object is freed
// there. A STOP that is lost (no memory, the callback gone) is made up for by the next firing, one
// that went to a thread that has ended by the next sweep.
//
// Thread-safe. Its mutex is a leaf: taken last of all but the log's and the platform's own, never
// held while an object is deleted.
#pragma once

#include "Vorelkit/Vorelkit.h"

class CRegister;

class CRegisterEnd {
 public:
  CRegisterEnd() = default;
  ~CRegisterEnd();
  CRegisterEnd(const CRegisterEnd&) = delete;
  CRegisterEnd& operator=(const CRegisterEnd&) = delete;

  // The object must be alive for sure: in the registry under its lock, or held, or in its own
  // callback.
  void Hold(CRegister* pRegister);
  void Unhold(CRegister* pRegister);
  [[nodiscard]] bool IsRetired(CRegister* pRegister);
  // Takes over an object that has left the registry and been released; frees it as soon as may be.
  void Retire(CRegister* pRegister);
  // Frees retired objects whose threads have ended; looks at the oldest only, so that its cost
  // stays small.
  void Sweep();
  // At shutdown: takes the timers away from their threads and frees everything; waits for callbacks
  // and handlers that are under way, but not for longer than a few seconds. What is held even then
  // stays for the destructor.
  void FreeAll();

 private:
  enum class EReason { Usual, Ended, Shutdown };
  bool TakeIfFree(CRegister* pRegister, EReason eReason);
  void Link(CRegister* pRegister);
  void Unlink(CRegister* pRegister);

  VkMutex m_oMutex;
  CRegister* m_pOldest = nullptr;
  CRegister* m_pNewest = nullptr;
};

// Holds an object for a scope. Adopts a hold that is taken already (GetRegisterById,
// CreateRegister) or takes one.
class [[nodiscard]] CRegisterHold {
 public:
  enum EAdopt { E_ADOPT };
  CRegisterHold(CRegister* pRegister, EAdopt) : m_pRegister(pRegister) {}
  explicit CRegisterHold(CRegister* pRegister);
  ~CRegisterHold();
  CRegisterHold(const CRegisterHold&) = delete;
  CRegisterHold& operator=(const CRegisterHold&) = delete;
  CRegister* operator->() const { return m_pRegister; }
  CRegister* Get() const { return m_pRegister; }
  explicit operator bool() const { return m_pRegister != nullptr; }

 private:
  CRegister* m_pRegister;
};
