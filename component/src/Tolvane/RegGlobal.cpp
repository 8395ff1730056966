#include "RegGlobal.h"

#include "logging/LogOne.h"
#include "ParserBaseImpl.h"
#include "RegisterProcess.h"
#include "RegisterSipProcess.h"
#include "Vorelkit/Vorelkit.h"

// In this order: the lock outlives the holder, whose destructor ends the last registrations.
VkMutex g_oRegLock;
CRegGlobal g_oRegGlobal;

CRegGlobal::CRegGlobal() {
  m_pParserFactory = CRegParserFactoryObj::GetParserFactory(E_PARSER_XML);
  m_pRegisterSipProcess = vktNew<CRegisterSipProcess>();
  m_pRegisterProcess = vktNew<CRegisterProcess>();
}

CRegGlobal::~CRegGlobal() {
  vktDelete(m_pParserFactory);
  vktDelete(m_pRegisterSipProcess);
  vktDelete(m_pRegisterProcess);
  if (ILogOne* pLog = m_pLog.exchange(nullptr)) LogOne_Close(&pLog);
}
