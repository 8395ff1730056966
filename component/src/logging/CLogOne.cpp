// The front of a log: settings, locations, records.
#include "logging/CLogOne.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <cwchar>
#include <limits>

#include "logging/LogOrigin.h"
#include "logging/LogText.h"

constinit base::RecursiveMutex g_csLogOne;

namespace {

char g_szMessage[CLogOne::MESSAGE_SIZE] TOLVANE_GUARDED_BY(g_csLogOne);
wchar_t g_wszMessage[CLogOne::MESSAGE_SIZE] TOLVANE_GUARDED_BY(g_csLogOne);

constexpr const char* kWords[] = {"Err", "War", "Inf", "Dbg"};

const char* LevelWord(int nLevel, int nMostVerbose) noexcept {
  return nLevel >= E_LOG_ERROR && nLevel <= nMostVerbose ? kWords[nLevel] : "";
}

}  // namespace

ILogOne::~ILogOne() = default;

void CLogOne::SetGate() noexcept {
  int nTakes = m_nLevel;
  if (m_bFileWaits) nTakes = std::numeric_limits<int>::max();
  // A failed open is not tried again, so nothing is ever written.
  if (m_bPaused || (m_fp == nullptr && !m_bNeedOpen)) nTakes = std::numeric_limits<int>::min();
  m_nTakes.store(nTakes, std::memory_order_relaxed);
}

void CLogOne::Pause() noexcept {
  const CLogOneLocker oLocker;
  m_bPaused.store(true, std::memory_order_relaxed);
  SetGate();
}

void CLogOne::Resume() noexcept {
  const CLogOneLocker oLocker;
  m_bPaused.store(false, std::memory_order_relaxed);
  SetGate();
}

void CLogOne::SetMaxSize(int nKiB) noexcept {
  const CLogOneLocker oLocker;
  m_bFileWaits = true;
  m_nMaxBytes = static_cast<int>(std::clamp<std::int64_t>(
      std::int64_t{nKiB} * 1024, std::numeric_limits<int>::min(), std::numeric_limits<int>::max()));
  SetGate();
}

void CLogOne::SetFileCount(int nCount) noexcept {
  const CLogOneLocker oLocker;
  if (nCount > 0) m_nFileCount = nCount;
}

void CLogOne::SetLevel(int nLevel) noexcept {
  const CLogOneLocker oLocker;
  m_nLevel = nLevel;
  SetGate();
}

void CLogOne::SetName(const char* szName) noexcept {
  if (szName == nullptr) return;
  const CLogOneLocker oLocker;
  std::snprintf(m_szName, sizeof m_szName, "%s", szName);
}

void CLogOne::SetOutputMask(int nMask) noexcept {
  const CLogOneLocker oLocker;
  m_nOutputMask = nMask;
}

void CLogOne::SetLocation(const char* szFunction, const char* szFile, int nLine,
                          int nLevel) noexcept {
  if (szFunction == nullptr || szFile == nullptr) return;
  StoreLogRecord({m_nNumber, nLine, nLevel, szFunction, szFile});
}

void CLogOne::PrintAtVW(int nLevel, const char* szFunction, const char* szFile, int nLine,
                        const wchar_t* wszFormat, std::va_list vaArgs) noexcept {
  SetLocation(szFunction, szFile, nLine, nLevel);
  PrintVW(wszFormat, vaArgs);
}

void CLogOne::PrintAtV(int nLevel, const char* szFunction, const char* szFile, int nLine,
                       const char* szFormat, std::va_list vaArgs) noexcept {
  SetLocation(szFunction, szFile, nLine, nLevel);
  PrintV(szFormat, vaArgs);
}

void CLogOne::PrintAtW(int nLevel, const char* szFunction, const char* szFile, int nLine,
                       const wchar_t* wszFormat, ...) noexcept {
  std::va_list vaArgs;
  va_start(vaArgs, wszFormat);
  PrintAtVW(nLevel, szFunction, szFile, nLine, wszFormat, vaArgs);
  va_end(vaArgs);
}

void CLogOne::PrintAt(int nLevel, const char* szFunction, const char* szFile, int nLine,
                      const char* szFormat, ...) noexcept {
  std::va_list vaArgs;
  va_start(vaArgs, szFormat);
  PrintAtV(nLevel, szFunction, szFile, nLine, szFormat, vaArgs);
  va_end(vaArgs);
}

void CLogOne::PrintW(const wchar_t* wszFormat, ...) noexcept {
  std::va_list vaArgs;
  va_start(vaArgs, wszFormat);
  PrintVW(wszFormat, vaArgs);
  va_end(vaArgs);
}

void CLogOne::Print(const char* szFormat, ...) noexcept {
  std::va_list vaArgs;
  va_start(vaArgs, szFormat);
  PrintV(szFormat, vaArgs);
  va_end(vaArgs);
}

// The steps that every print and trace begins with: the file is looked after whatever the level
// says. Gives the calling thread's record, or null when the thread has not told its location.
const LOG_THREAD_RECORD* CLogOne::Locate() noexcept {
  PrepareFile();
  return FindLogRecord(m_nNumber);
}

void CLogOne::PrintV(const char* szFormat, std::va_list vaArgs) noexcept {
  if (szFormat == nullptr || m_bPaused.load(std::memory_order_relaxed)) return;
  const CLogOneLocker oLocker;
  const LOG_THREAD_RECORD* pRecord = Locate();
  if (pRecord == nullptr || pRecord->nLevel > m_nLevel) return;
  // Zeroed, since a format that fails half-way ends without a terminator.
  std::memset(g_szMessage, 0, sizeof g_szMessage);
  std::vsnprintf(g_szMessage, sizeof g_szMessage, szFormat, vaArgs);
  if (WritesToFile()) WriteRecord(*pRecord, LevelWord(pRecord->nLevel, E_LOG_DEBUG), g_szMessage);
}

void CLogOne::PrintVW(const wchar_t* wszFormat, std::va_list vaArgs) noexcept {
  if (wszFormat == nullptr || m_bPaused.load(std::memory_order_relaxed)) return;
  const CLogOneLocker oLocker;
  const LOG_THREAD_RECORD* pRecord = Locate();
  if (pRecord == nullptr || pRecord->nLevel > m_nLevel) return;
  std::wmemset(g_wszMessage, L'\0', MESSAGE_SIZE);
  std::vswprintf(g_wszMessage, MESSAGE_SIZE, wszFormat, vaArgs);
  g_wszMessage[MESSAGE_SIZE - 1] = L'\0';
  WideToUtf8(g_wszMessage, g_szMessage, sizeof g_szMessage);
  // Unlike the narrow form: no word for the debug level, and the file is written without its bit in
  // the mask.
  if (m_fp != nullptr) WriteRecord(*pRecord, LevelWord(pRecord->nLevel, E_LOG_INFO), g_szMessage);
}

void CLogOne::Trace(int bEnter) noexcept {
  if (m_bPaused.load(std::memory_order_relaxed)) return;
  const CLogOneLocker oLocker;
  if (const LOG_THREAD_RECORD* pRecord = Locate()) {
    WriteTrace(pRecord->szFunction, pRecord->szFile, pRecord->nLine, bEnter);
  }
}

void CLogOne::TraceAt(const char* szFunction, const char* szFile, int nLine, int bEnter) noexcept {
  if (szFunction == nullptr || szFile == nullptr || *szFunction == '\0' || *szFile == '\0') return;
  if (m_bPaused.load(std::memory_order_relaxed)) return;
  const CLogOneLocker oLocker;
  PrepareFile();
  WriteTrace(szFunction, szFile, nLine, bEnter);
}

bool CLogOne::WritesToFile() const noexcept { return m_fp != nullptr && (m_nOutputMask & 1) != 0; }

// False when no head is wanted, or the file's path has no last component: there is then no record.
bool CLogOne::ComposeHead(const char* szFunction, const char* szFile, int nLine,
                          char (&szHead)[HEAD_SIZE]) const noexcept {
  const char* szName = LastPathComponent(szFile);
  if (*szName == '\0' || !(WritesToFile() || (m_nOutputMask & 2) != 0)) return false;
  const LOG_ORIGIN stOrigin = GetLogOrigin();
  char szStamp[LOG_STAMP_SIZE];
  FormatLogStamp(stOrigin, szStamp);
  std::snprintf(szHead, sizeof szHead, "[%s][P:%llu/T:%llu][%s:%d %s()]", szStamp,
                static_cast<unsigned long long>(stOrigin.nProcess),
                static_cast<unsigned long long>(stOrigin.nThread), szName, nLine, szFunction);
  return true;
}

void CLogOne::WriteRecord(const LOG_THREAD_RECORD& stRecord, const char* szWord,
                          const char* szMessage) noexcept {
  char szHead[HEAD_SIZE];
  if (!ComposeHead(stRecord.szFunction, stRecord.szFile, stRecord.nLine, szHead)) return;
  WriteBeginning();
  std::fprintf(m_fp, "%s[%s]\r\n%s\r\n%s%s", szHead, szWord, "Content:", szMessage, "\r\n");
  FlushFile();
}

void CLogOne::WriteTrace(const char* szFunction, const char* szFile, int nLine,
                         int bEnter) noexcept {
  if (m_nLevel < E_LOG_DEBUG || !WritesToFile()) return;
  char szHead[HEAD_SIZE];
  if (!ComposeHead(szFunction, szFile, nLine, szHead)) return;
  WriteBeginning();
  std::fprintf(m_fp, "%s[%s]%s", szHead, bEnter != 0 ? "Enter" : "Leave", "\r\n");
  FlushFile();
}
