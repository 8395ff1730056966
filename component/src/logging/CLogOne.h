// The one implementation of a log: a file with a size limit and a ring of copies.
//
// The text buffers of all loggers are static and guarded by the same lock, so that a thread that
// logs needs no large stack.
//
// Decisions:
//   A full disk costs whole records. What did reach the file of a record that failed is cut off
//   again, an unfinished copy is removed, and the line of the beginning is written when there is
//   room.
//   What stands in the place of a log file may be a pipe. Log and copies are opened so that a pipe
//   never blocks: the log's lock is held while a record is written, and a pipe that nobody reads
//   would stop every thread that logs. What it does not take is lost.
#pragma once

#include <atomic>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <string>

#include "base/mutex.h"
#include "logging/LogLock.h"
#include "logging/LogOne.h"
#include "logging/LogThreads.h"

class CLogOne : public CLogOneGate {
 public:
  static constexpr std::size_t MESSAGE_SIZE = 51200;  // with the terminator; the rest is cut
  static constexpr std::size_t HEAD_SIZE = 260;       // a longer head is cut, the record is written
  static constexpr std::size_t NAME_SIZE = 256;       // a longer name is cut
  static constexpr std::size_t PATH_SIZE = PATH_MAX;  // a longer path cannot be used

  // Resolves the path and makes the directories; opens nothing. Throws std::bad_alloc.
  explicit CLogOne(const std::string& strPath);
  ~CLogOne() override;
  CLogOne(const CLogOne&) = delete;
  CLogOne& operator=(const CLogOne&) = delete;

  void PrintAtVW(int nLevel, const char* szFunction, const char* szFile, int nLine,
                 const wchar_t* wszFormat, std::va_list vaArgs) noexcept override;
  LOGGING_FORMAT(6, 0)
  void PrintAtV(int nLevel, const char* szFunction, const char* szFile, int nLine,
                const char* szFormat, std::va_list vaArgs) noexcept override;
  void PrintAtW(int nLevel, const char* szFunction, const char* szFile, int nLine,
                const wchar_t* wszFormat, ...) noexcept override;
  LOGGING_FORMAT(6, 7)
  void PrintAt(int nLevel, const char* szFunction, const char* szFile, int nLine,
               const char* szFormat, ...) noexcept override;
  void PrintW(const wchar_t* wszFormat, ...) noexcept override;
  LOGGING_FORMAT(2, 3)
  void Print(const char* szFormat, ...) noexcept override;
  void Trace(int bEnter) noexcept override;
  void TraceAt(const char* szFunction, const char* szFile, int nLine, int bEnter) noexcept override;
  void Pause() noexcept override;
  void Resume() noexcept override;
  void SetMaxSize(int nKiB) noexcept override;
  void SetFileCount(int nCount) noexcept override;
  void SetLevel(int nLevel) noexcept override;
  void SetName(const char* szName) noexcept override;
  void SetOutputMask(int nMask) noexcept override;
  void SetLocation(const char* szFunction, const char* szFile, int nLine,
                   int nLevel) noexcept override;

 private:
  // The file (LogFile.cpp).
  void OpenLogFile() noexcept TOLVANE_REQUIRES(g_csLogOne);
  void CheckLogSize() noexcept TOLVANE_REQUIRES(g_csLogOne);
  // One of the two, before every write.
  void PrepareFile() noexcept TOLVANE_REQUIRES(g_csLogOne);
  void WriteBeginning() noexcept TOLVANE_REQUIRES(g_csLogOne);  // unless the file has it
  void FlushFile() noexcept TOLVANE_REQUIRES(g_csLogOne);
  // After every change of what it depends on.
  void SetGate() noexcept TOLVANE_REQUIRES(g_csLogOne);
  // Copy 0 is the live file.
  bool BuildPath(int nCopy, char (&szPath)[PATH_SIZE]) const noexcept TOLVANE_REQUIRES(g_csLogOne);

  // The records (CLogOne.cpp).
  LOGGING_FORMAT(2, 0)
  void PrintV(const char* szFormat, std::va_list vaArgs) noexcept TOLVANE_EXCLUDES(g_csLogOne);
  void PrintVW(const wchar_t* wszFormat, std::va_list vaArgs) noexcept TOLVANE_EXCLUDES(g_csLogOne);
  const LOG_THREAD_RECORD* Locate() noexcept TOLVANE_REQUIRES(g_csLogOne);
  [[nodiscard]] bool WritesToFile() const noexcept TOLVANE_REQUIRES(g_csLogOne);
  bool ComposeHead(const char* szFunction, const char* szFile, int nLine,
                   char (&szHead)[HEAD_SIZE]) const noexcept TOLVANE_REQUIRES(g_csLogOne);
  void WriteRecord(const LOG_THREAD_RECORD& stRecord, const char* szWord,
                   const char* szMessage) noexcept TOLVANE_REQUIRES(g_csLogOne);
  void WriteTrace(const char* szFunction, const char* szFile, int nLine, int bEnter) noexcept
      TOLVANE_REQUIRES(g_csLogOne);

  std::atomic<bool> m_bPaused{false};
  const std::uint64_t m_nNumber;  // of this logger in the process, never given out again
  bool m_bNeedOpen TOLVANE_GUARDED_BY(g_csLogOne) = true;
  // The next write has something to do for the file, even when its text is dropped: the file is not
  // open yet, has just been opened, has reached its limit, or has got another one.
  bool m_bFileWaits TOLVANE_GUARDED_BY(g_csLogOne) = true;
  // The line that each opening writes has reached the file.
  bool m_bBegun TOLVANE_GUARDED_BY(g_csLogOne) = true;
  char m_szFileName[PATH_SIZE] TOLVANE_GUARDED_BY(g_csLogOne) = "";
  char m_szDir[PATH_SIZE] TOLVANE_GUARDED_BY(g_csLogOne) = "";
  std::FILE* m_fp TOLVANE_GUARDED_BY(g_csLogOne) = nullptr;
  // Size of the file, up to the last whole record.
  long m_nWhole TOLVANE_GUARDED_BY(g_csLogOne) = 0;
  int m_nLevel TOLVANE_GUARDED_BY(g_csLogOne) = E_LOG_DEBUG;
  int m_nMaxBytes TOLVANE_GUARDED_BY(g_csLogOne) = 0x500000;
  int m_nFileCount TOLVANE_GUARDED_BY(g_csLogOne) = 1;
  int m_nFileIndex TOLVANE_GUARDED_BY(g_csLogOne) = 0;
  char m_szName[NAME_SIZE] TOLVANE_GUARDED_BY(g_csLogOne) = "";
  // Bit 0: the file; bit 1: heads are composed without one.
  int m_nOutputMask TOLVANE_GUARDED_BY(g_csLogOne) = 1;
};
