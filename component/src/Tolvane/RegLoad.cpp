// What loading and unloading of the library does: makes and ends the objects of the holder. Nothing
// includes this file's side of things, so it may know all of them.

#include "RegGlobal.h"

#include "logging/LogOne.h"
#include "ParserBaseImpl.h"
#include "RegisterCfg.h"
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
  m_pRegSipCfg = vktNew<CRegSipCfg>();
}

CRegGlobal::~CRegGlobal() {
  vktDelete(m_pParserFactory);
  vktDelete(m_pRegisterSipProcess);
  vktDelete(m_pRegisterProcess);
  vktDelete(m_pRegSipCfg);
  if (ILogOne* pLog = m_pLog.exchange(nullptr)) LogOne_Close(&pLog);
}
