// What a traced scope does while a log takes its lines.
#include "logging/LogOne.h"

void CLogOneScope::WriteTrace(ILogOne* pLog, int bEnter) const noexcept {
  // A null text counts as an empty one.
  pLog->SetLocation(m_szFunction != nullptr ? m_szFunction : "",
                    m_szFile != nullptr ? m_szFile : "", m_nLine, E_LOG_INFO);
  pLog->Trace(bEnter);
}
