// The log statement of the component. It costs one load and one test while the log is off, and one
// more of each when the log drops its level.
#pragma once

#include <cstddef>

#include "logging/LogOne.h"
#include "RegGlobal.h"

namespace reglog {

// "CRegister::SendRegister" out of the compiler's "int CRegister::SendRegister(bool)".
template <std::size_t N>
struct CName {
  char m_sz[N] = {};
  explicit constexpr CName(const char* szPretty) {
    std::size_t nEnd = 0;
    while (szPretty[nEnd] != '\0' && szPretty[nEnd] != '(') ++nEnd;
    std::size_t nBegin = nEnd;
    while (nBegin > 0 && szPretty[nBegin - 1] != ' ' && szPretty[nBegin - 1] != '*' &&
           szPretty[nBegin - 1] != '&') {
      --nBegin;
    }
    for (std::size_t i = nBegin; i < nEnd; ++i) m_sz[i - nBegin] = szPretty[i];
  }
};

}  // namespace reglog

// The function's qualified name, made by the compiler; good for the life of the library.
#define REG_LOG_FUNCTION(szName)                                                                  \
  static constexpr reglog::CName<sizeof(__PRETTY_FUNCTION__)> szName##Array(__PRETTY_FUNCTION__); \
  const char* const szName = szName##Array.m_sz

// REG_LOG(level, format, ...): the location first, then the message. A log that goes away between
// the two is paused and drops the message; the pointer stays good.
#define REG_LOG(nLevel, ...)                                                 \
  do {                                                                       \
    if (ILogOne* const pLogTo = LogOne_For(GetRegGlobal().m_pLog, nLevel)) { \
      REG_LOG_FUNCTION(szLogFunction);                                       \
      pLogTo->SetLocation(szLogFunction, __FILE__, __LINE__, nLevel);        \
      pLogTo->Print(__VA_ARGS__);                                            \
    }                                                                        \
  } while (false)

// The first statement of a function whose entry and exit are traced.
#define REG_LOG_SCOPE()              \
  REG_LOG_FUNCTION(szScopeFunction); \
  const CLogOneScope oLogScope(&GetRegGlobal().m_pLog, szScopeFunction, __FILE__, __LINE__)
