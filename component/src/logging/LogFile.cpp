// The file side of a log: opening, measuring, rotating. Everything here runs with the log lock
// held.
#include <fcntl.h>
#include <stdio_ext.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>

#include "logging/CLogOne.h"
#include "logging/LogOrigin.h"
#include "logging/LogPath.h"

namespace {

constexpr char kFallbackName[] = "MyLog.log";

std::atomic<std::uint64_t> g_nLastNumber{0};

// Copies all bytes over what stands at the destination; 0 or an errno value.
int CopyDescriptor(int nFrom, int nTo) noexcept {
  static char s_aBlock[32768];  // guarded by the log lock
  for (;;) {
    const ssize_t nRead = read(nFrom, s_aBlock, sizeof s_aBlock);
    if (nRead == 0) return 0;
    if (nRead < 0 && errno != EINTR) return errno;
    for (ssize_t nDone = 0; nDone < nRead;) {
      const ssize_t nWritten =
          write(nTo, s_aBlock + nDone, static_cast<std::size_t>(nRead - nDone));
      if (nWritten < 0 && errno != EINTR) return errno;
      if (nWritten > 0) nDone += nWritten;
    }
  }
}

int CopyLogFile(const char* szFrom, const char* szTo) noexcept {
  const int nFrom = open(szFrom, O_RDONLY | O_CLOEXEC);
  if (nFrom == -1) return errno;
  // Without O_NONBLOCK the open of a pipe would wait for a reader.
  const int nTo = open(szTo, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NONBLOCK, 0666);
  int nError = nTo == -1 ? errno : CopyDescriptor(nFrom, nTo);
  if (nTo != -1 && close(nTo) == -1 && nError == 0) nError = errno;
  // A piece of a copy would end in a piece of a record, and takes room that the log needs.
  if (nTo != -1 && nError != 0) unlink(szTo);
  close(nFrom);
  return nError;
}

std::FILE* OpenForAppend(const char* szPath) noexcept {
  std::FILE* const fp = std::fopen(szPath, "ab+e");
  // A pipe in the file's place that nobody reads loses records and does not stop the process.
  if (fp != nullptr) fcntl(fileno(fp), F_SETFL, O_APPEND | O_NONBLOCK);
  return fp;
}

void FormatStampNow(char (&szStamp)[LOG_STAMP_SIZE]) noexcept {
  FormatLogStamp(GetLogOrigin(), szStamp);
}

}  // namespace

CLogOne::CLogOne(const std::string& strPath) : m_nNumber(++g_nLastNumber) {
  const std::string strModule = GetModuleDir();
  LOG_PATH stPath = ResolveLogPath(strPath, strModule);
  const auto Fits = [](const LOG_PATH& st) {
    // Room for the number of a copy.
    return st.strDir.size() + st.strFileName.size() + 16 < PATH_SIZE;
  };
  if (!stPath.strDir.empty() && !(Fits(stPath) && CreateLogDir(stPath.strDir))) {
    stPath = FallbackLogPath(strModule);
    CreateLogDir(stPath.strDir);
  }
  if (!Fits(stPath)) return;  // both members stay empty
  stPath.strFileName.copy(m_szFileName, PATH_SIZE - 1);
  stPath.strDir.copy(m_szDir, PATH_SIZE - 1);
}

CLogOne::~CLogOne() {
  if (m_fp != nullptr) std::fclose(m_fp);
}

void CLogOne::PrepareFile() noexcept {
  if (m_fp != nullptr) {
    CheckLogSize();
  } else {
    OpenLogFile();
  }
  SetGate();
}

bool CLogOne::BuildPath(int nCopy, char (&szPath)[PATH_SIZE]) const noexcept {
  const int nLength =
      nCopy == 0
          ? std::snprintf(szPath, sizeof szPath, "%s%s", m_szDir, m_szFileName)
          : std::snprintf(szPath, sizeof szPath, "%s%d%s%s", m_szDir, nCopy, "_", m_szFileName);
  return nLength > 0 && static_cast<std::size_t>(nLength) < sizeof szPath;
}

void CLogOne::OpenLogFile() noexcept {
  if (!m_bNeedOpen) return;
  m_bNeedOpen = false;  // before anything can fail: a failed open is not tried again
  char szPath[PATH_SIZE];
  if (m_fp == nullptr && BuildPath(0, szPath)) m_fp = OpenForAppend(szPath);
  if (m_fp == nullptr) {
    std::memcpy(m_szFileName, kFallbackName, sizeof kFallbackName);
    if (BuildPath(0, szPath)) m_fp = OpenForAppend(szPath);
  }
  if (m_fp == nullptr) return;
  std::fseek(m_fp, 0, SEEK_END);
  m_nWhole = std::ftell(m_fp);
  m_bBegun = false;
  WriteBeginning();
  m_bFileWaits = true;  // for the flush that carries the beginning out
}

void CLogOne::WriteBeginning() noexcept {
  if (m_bBegun || __fpending(m_fp) != 0) return;  // it is in the file, or waits for the next flush
  char szStamp[LOG_STAMP_SIZE];
  FormatStampNow(szStamp);
  std::fprintf(m_fp, "%s%s\r\n", "Begin Time:", szStamp);
}

void CLogOne::CheckLogSize() noexcept {
  FlushFile();  // the line of the beginning may still wait; seeking could lose it unseen
  std::fseek(m_fp, 0, SEEK_END);
  m_nWhole = std::ftell(m_fp);
  std::fseek(m_fp, 0, SEEK_SET);
  m_bFileWaits = m_nWhole >= m_nMaxBytes;
  if (!m_bFileWaits) return;

  // Whatever fclose says, the stream is gone after it and must not be touched again.
  if (std::fclose(m_fp) != 0) {
    std::printf("fclose failed code[%d] string[%s]\n", errno, std::strerror(errno));
  }
  m_fp = nullptr;
  m_nFileIndex = m_nFileIndex < m_nFileCount ? m_nFileIndex + 1 : 1;

  char szLive[PATH_SIZE];
  char szCopy[PATH_SIZE];
  if (BuildPath(0, szLive) && BuildPath(m_nFileIndex, szCopy)) {
    if (const int nError = CopyLogFile(szLive, szCopy); nError != 0) {
      char szStamp[LOG_STAMP_SIZE];
      FormatStampNow(szStamp);
      std::printf("%s rename [%s] to [%s] failed code[%d]\n", szStamp, szLive, szCopy, nError);
    }
    std::FILE* fpEmptied = std::fopen(szLive, "we");
    if (fpEmptied != nullptr && std::fclose(fpEmptied) != 0) {
      std::printf("fclose faild code[%d] string[%s]\n", errno, std::strerror(errno));
    }
  }
  m_bNeedOpen = true;
  OpenLogFile();
}

// All of what was written since the last flush, or nothing: a full disk must not leave a piece of a
// record in the file.
void CLogOne::FlushFile() noexcept {
  const bool bPending = __fpending(m_fp) != 0;
  if (std::fflush(m_fp) == 0 && std::ferror(m_fp) == 0) {
    if (bPending) m_bBegun = true;  // the beginning is in front of everything else
    m_bFileWaits = std::ftell(m_fp) >= m_nMaxBytes;
    SetGate();
    return;
  }
  // Nothing says whether a stream keeps what it could not write; kept, it would come out later.
  __fpurge(m_fp);
  std::clearerr(m_fp);
  // What did reach the file goes again. No result to look at: what is no regular file has no end.
  if (m_nWhole >= 0) static_cast<void>(!ftruncate(fileno(m_fp), m_nWhole));
}
