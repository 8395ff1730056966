// What a traced scope does while a log is open.
#include <memory>
#include <new>

#include "logging/LogOne.h"

struct CLogOneScope::INFO {
  ILogOne* pLog;  // that got the Enter line; it lives as long as the library
  std::unique_ptr<char[]> pFunction;
  std::unique_ptr<char[]> pFile;
};

namespace {

std::unique_ptr<char[]> CopyText(const char* szText) noexcept {
  const std::size_t nSize = std::char_traits<char>::length(szText) + 1;
  std::unique_ptr<char[]> pCopy(new (std::nothrow) char[nSize]);
  if (pCopy != nullptr) std::char_traits<char>::copy(pCopy.get(), szText, nSize);
  return pCopy;
}

const char* OrEmpty(const char* szText) noexcept { return szText != nullptr ? szText : ""; }

}  // namespace

void CLogOneScope::Enter(ILogOne* pLog) noexcept {
  std::unique_ptr<INFO> pInfo(
      new (std::nothrow) INFO{pLog, CopyText(OrEmpty(m_szFunction)), CopyText(OrEmpty(m_szFile))});
  if (pInfo == nullptr || pInfo->pFunction == nullptr || pInfo->pFile == nullptr) {
    m_bNoMemory = true;
    return;
  }
  m_pInfo = pInfo.release();
  pLog->SetLocation(m_pInfo->pFunction.get(), m_pInfo->pFile.get(), m_nLine, E_LOG_INFO);
  pLog->Trace(1);
}

void CLogOneScope::Leave(ILogOne* pLog) noexcept {
  const std::unique_ptr<INFO> pInfo(m_pInfo);
  const char* szFunction = OrEmpty(m_szFunction);
  const char* szFile = OrEmpty(m_szFile);
  if (pLog != nullptr && !m_bNoMemory) {
    pLog->SetLocation(pInfo != nullptr ? pInfo->pFunction.get() : szFunction,
                      pInfo != nullptr ? pInfo->pFile.get() : szFile, m_nLine, E_LOG_INFO);
    pLog->Trace(0);
  }
  if (pInfo == nullptr) return;
  // The thread's records may borrow the copies, which end here: the texts of the statement outlive
  // them.
  pInfo->pLog->SetLocation(szFunction, szFile, m_nLine, E_LOG_INFO);
  if (pLog != nullptr && pLog != pInfo->pLog) {
    pLog->SetLocation(szFunction, szFile, m_nLine, E_LOG_INFO);
  }
}
