// The log statement of the component. While the log is off it costs one load and one test.
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

// REG_LOG(level, format, ...): the location first, then the message. Each call loads the pointer
// for itself, since the log can go away between the two. When another log has taken its place, that
// one is told the location too: it knows none of this thread, or that of an earlier statement.
#define REG_LOG(nLevel, ...)                                                                  \
  do {                                                                                        \
    if (ILogOne* pLogAt = GetRegGlobal().m_pLog.load(std::memory_order_acquire)) {            \
      REG_LOG_FUNCTION(szLogFunction);                                                        \
      pLogAt->SetLocation(szLogFunction, __FILE__, __LINE__, nLevel);                         \
      if (ILogOne* pLogTo = GetRegGlobal().m_pLog.load(std::memory_order_acquire)) {          \
        if (pLogTo != pLogAt) pLogTo->SetLocation(szLogFunction, __FILE__, __LINE__, nLevel); \
        pLogTo->Print(__VA_ARGS__);                                                           \
      }                                                                                       \
    }                                                                                         \
  } while (false)

// The first statement of a function whose entry and exit are traced.
#define REG_LOG_SCOPE()              \
  REG_LOG_FUNCTION(szScopeFunction); \
  const CLogOneScope oLogScope(&GetRegGlobal().m_pLog, szScopeFunction, __FILE__, __LINE__)
