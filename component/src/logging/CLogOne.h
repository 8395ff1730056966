// The one implementation of a log: a file with a size limit and a ring of copies.
//
// Every member but m_bPaused and the gate is guarded by g_csLogOne. The text buffers of all loggers
// are static and guarded by the same lock, so that a thread that logs needs no large stack.
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

#include "logging/LogLock.h"
#include "logging/LogOne.h"
#include "logging/LogThreads.h"

class CLogOne : public CLogOneGate {
 public:
  static constexpr std::size_t MESSAGE_SIZE =
      51200;                                     // with the terminator; a longer message is cut
  static constexpr std::size_t HEAD_SIZE = 260;  // a longer head is cut, the record is written
  static constexpr std::size_t NAME_SIZE = 256;  // a longer name is cut
  static constexpr std::size_t PATH_SIZE =
      PATH_MAX;  // a longer path counts as one that cannot be used

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
  // The file (LogFile.cpp); called with the lock held.
  void OpenLogFile() noexcept;
  void CheckLogSize() noexcept;
  void PrepareFile() noexcept;     // one of the two, before every write
  void WriteBeginning() noexcept;  // unless the file has it
  void FlushFile() noexcept;
  void SetGate() noexcept;  // after every change of what it depends on
  bool BuildPath(int nCopy, char (&szPath)[PATH_SIZE]) const noexcept;  // copy 0 is the live file

  // The records (CLogOne.cpp).
  LOGGING_FORMAT(2, 0)
  void PrintV(const char* szFormat, std::va_list vaArgs) noexcept;
  void PrintVW(const wchar_t* wszFormat, std::va_list vaArgs) noexcept;
  const LOG_THREAD_RECORD* Locate() noexcept;
  [[nodiscard]] bool WritesToFile() const noexcept;
  bool ComposeHead(const char* szFunction, const char* szFile, int nLine,
                   char (&szHead)[HEAD_SIZE]) const noexcept;
  void WriteRecord(const LOG_THREAD_RECORD& stRecord, const char* szWord,
                   const char* szMessage) noexcept;
  void WriteTrace(const char* szFunction, const char* szFile, int nLine, int bEnter) noexcept;

  std::atomic<bool> m_bPaused{false};
  bool m_bNeedOpen = true;
  // The next write has something to do for the file, even when its text is dropped: the file is not
  // open yet, has just been opened, has reached its limit, or has got another one.
  bool m_bFileWaits = true;
  char m_szFileName[PATH_SIZE] = "";
  char m_szDir[PATH_SIZE] = "";
  const std::uint64_t m_nNumber;  // of this logger in the process, never given out again
  std::FILE* m_fp = nullptr;
  long m_nWhole = 0;     // size of the file, up to the last whole record
  bool m_bBegun = true;  // the line that each opening writes has reached the file
  int m_nLevel = E_LOG_DEBUG;
  int m_nMaxBytes = 0x500000;
  int m_nFileCount = 1;
  int m_nFileIndex = 0;
  char m_szName[NAME_SIZE] = "";
  int m_nOutputMask = 1;  // bit 0: the file; bit 1: heads are composed without one
};
