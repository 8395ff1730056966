// What a traced scope does while a log is open.
#include <new>
#include <string>

#include "logging/LogOne.h"

struct CLogOneScope::INFO {
  ILogOne* pLog;  // that got the Enter line; it lives as long as the library
  std::string strFunction;
  std::string strFile;
};

namespace {

const char* OrEmpty(const char* szText) noexcept { return szText != nullptr ? szText : ""; }

}  // namespace

void CLogOneScope::Enter(ILogOne* pLog) noexcept {
  try {
    m_pInfo = new INFO{pLog, OrEmpty(m_szFunction), OrEmpty(m_szFile)};
  } catch (const std::bad_alloc&) {
    m_bNoMemory = true;
    return;
  }
  pLog->SetLocation(m_pInfo->strFunction.c_str(), m_pInfo->strFile.c_str(), m_nLine, E_LOG_INFO);
  pLog->Trace(1);
}

void CLogOneScope::Leave(ILogOne* pLog) noexcept {
  const char* szFunction = OrEmpty(m_szFunction);
  const char* szFile = OrEmpty(m_szFile);
  if (pLog != nullptr && !m_bNoMemory) {
    pLog->SetLocation(m_pInfo != nullptr ? m_pInfo->strFunction.c_str() : szFunction,
                      m_pInfo != nullptr ? m_pInfo->strFile.c_str() : szFile, m_nLine, E_LOG_INFO);
    pLog->Trace(0);
  }
  if (m_pInfo == nullptr) return;
  // The thread's records may borrow the copies, which end here: the texts of the statement outlive
  // them.
  m_pInfo->pLog->SetLocation(szFunction, szFile, m_nLine, E_LOG_INFO);
  if (pLog != nullptr && pLog != m_pInfo->pLog) {
    pLog->SetLocation(szFunction, szFile, m_nLine, E_LOG_INFO);
  }
  delete m_pInfo;
  m_pInfo = nullptr;
}
