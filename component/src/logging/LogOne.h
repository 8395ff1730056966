// The rolling log as the component sees it.
//
// A log statement is two calls on the logger: SetLocation (where it stands, and its level), then
// Print. The location belongs to the calling thread, so the two calls need no common lock and two
// threads never mix their locations; a record is composed and written as one unit, so records never
// interleave. LogOne_For says beforehand, for the price of two loads, whether a statement of a level
// would do anything at all.
//
// Threads: every operation may be called by any thread at any time. One process-wide recursive
// lock, g_csLogOne, guards the thread records, the writing and the registry; it is the innermost
// lock of the system, and nothing but the operating system is called while it is held.
//
// Ownership: loggers belong to the library and live until it is unloaded; a pointer once read stays
// good.
//
// Failures: none reaches a caller. No operation throws; what cannot be written (full disk,
// directory taken away, no memory) costs records and nothing else.
#pragma once

#include <atomic>
#include <cstdarg>
#include <limits>

#define LOGGING_PUBLIC __attribute__((visibility("default")))
// The place of a printf-style format among the arguments, "this" counted, and that of its first
// argument.
#define LOGGING_FORMAT(text, first) __attribute__((format(printf, text, first)))

// A higher number is more verbose; a logger writes up to its own level.
enum E_LOG_LEVEL { E_LOG_ERROR = 0, E_LOG_WARNING = 1, E_LOG_INFO = 2, E_LOG_DEBUG = 3 };

class LOGGING_PUBLIC ILogOne {
 public:
  // A narrow message goes out byte for byte; a wide one as UTF-8. Either is cut at 51,199 bytes.
  virtual void PrintAtVW(int nLevel, const char* szFunction, const char* szFile, int nLine,
                         const wchar_t* wszFormat, std::va_list vaArgs) noexcept = 0;
  LOGGING_FORMAT(6, 0)
  virtual void PrintAtV(int nLevel, const char* szFunction, const char* szFile, int nLine,
                        const char* szFormat, std::va_list vaArgs) noexcept = 0;
  virtual void PrintAtW(int nLevel, const char* szFunction, const char* szFile, int nLine,
                        const wchar_t* wszFormat, ...) noexcept = 0;
  LOGGING_FORMAT(6, 7)
  virtual void PrintAt(int nLevel, const char* szFunction, const char* szFile, int nLine,
                       const char* szFormat, ...) noexcept = 0;
  virtual void PrintW(const wchar_t* wszFormat, ...) noexcept = 0;
  LOGGING_FORMAT(2, 3)
  virtual void Print(const char* szFormat, ...) noexcept = 0;

  // An Enter (non-zero) or Leave line; the second form does not store the location.
  virtual void Trace(int bEnter) noexcept = 0;
  virtual void TraceAt(const char* szFunction, const char* szFile, int nLine,
                       int bEnter) noexcept = 0;

  virtual ~ILogOne();

  virtual void Pause() noexcept = 0;
  virtual void Resume() noexcept = 0;
  virtual void SetMaxSize(int nKiB) noexcept = 0;
  virtual void SetFileCount(int nCount) noexcept = 0;
  virtual void SetLevel(int nLevel) noexcept = 0;
  virtual void SetName(const char* szName) noexcept = 0;
  virtual void SetOutputMask(int nMask) noexcept = 0;

  // Both texts are borrowed: they must live until this thread's next SetLocation. With a null text
  // the call does nothing.
  virtual void SetLocation(const char* szFunction, const char* szFile, int nLine,
                           int nLevel) noexcept = 0;
};

// What every logger begins with: the levels that it looks at, readable without a lock and without a
// call. ILogOne itself has no data.
class CLogOneGate : public ILogOne {
 public:
  // False: a statement of this level changes nothing, neither a record nor the file. While the file
  // has to be opened, measured or rotated every statement gets through, whatever its level, since
  // the next one does that work. Trace lines count as E_LOG_DEBUG.
  [[nodiscard]] bool Takes(int nLevel) const noexcept {
    return nLevel <= m_nTakes.load(std::memory_order_relaxed);
  }

 protected:
  std::atomic<int> m_nTakes{std::numeric_limits<int>::max()};
};

// The log for a statement of this level; null while logging is off, or when that log drops it. Every
// ILogOne is a CLogOneGate.
[[nodiscard]] inline ILogOne* LogOne_For(const std::atomic<ILogOne*>& pLog, int nLevel) noexcept {
  ILogOne* const pNow = pLog.load(std::memory_order_acquire);
  return pNow != nullptr && static_cast<CLogOneGate*>(pNow)->Takes(nLevel) ? pNow : nullptr;
}

// Opens the log of this path, or finds it when it was opened before, and wakes it. Null for a null
// path or when memory runs out. A path with a ':' is a path of the system: what stands before the
// ':' is dropped; every other path lies below the executable's directory. Both separators are
// accepted.
LOGGING_PUBLIC ILogOne* LogOne_Open(const wchar_t* wszPath) noexcept;
// Pauses the log at *ppLog. It frees nothing and leaves the pointer; the caller sets that to null.
LOGGING_PUBLIC void LogOne_Close(ILogOne** ppLog) noexcept;

// Traces a function: an Enter line where it is made, a Leave line where it ends. It belongs to one
// thread and to the stack. Both texts are borrowed: they live as long as the program, as literals
// do. Where no line is wanted a scope costs at either end what a statement costs.
//
// The class carries no export mark of its own: its virtual table would otherwise be exported from
// every library that makes a scope.
class CLogOneScope {
 public:
  // ppLog is the address of the pointer to the log, so that a log which opens or closes during the
  // scope is seen at its end.
  CLogOneScope(const std::atomic<ILogOne*>* ppLog, const char* szFunction, const char* szFile,
               int nLine) noexcept
      : m_ppLog(ppLog), m_szFunction(szFunction), m_szFile(szFile), m_nLine(nLine) {
    Trace(1);
  }
  virtual ~CLogOneScope() { Trace(0); }
  CLogOneScope(const CLogOneScope&) = delete;
  CLogOneScope& operator=(const CLogOneScope&) = delete;

 private:
  void Trace(int bEnter) const noexcept {
    if (ILogOne* const pLog = LogOne_For(*m_ppLog, E_LOG_DEBUG)) WriteTrace(pLog, bEnter);
  }
  LOGGING_PUBLIC void WriteTrace(ILogOne* pLog, int bEnter) const noexcept;

  const std::atomic<ILogOne*>* m_ppLog;
  const char* m_szFunction;
  const char* m_szFile;
  int m_nLine;
};
