// The commands that adjust the component itself and touch no registration. None writes an answer.

#include <memory>
#include <new>
#include <vector>

#include "Brunelib/identities.h"
#include "RegisterCfg.h"
#include "RegisterProcess.h"
#include "RegLog.h"
#include "Vorelkit/Vorelkit.h"
#include "XMLParserImpl.h"

namespace {

// Two switches at once must not open two logs, or pause the one that the other has just opened.
// Taken with no lock held; below it comes only that of the log.
VkMutex g_oLogSwitchMutex;

// The settings come first: no record of another thread goes out by those of a former opening. With
// the switch's mutex held.
int OpenLog(const CRegLogSwitch& oMsg) {
  ILogOne* const pLog = LogOne_Open(VkStrBuilder::Utf8ToUnicodeW(oMsg.m_strPath).c_str());
  if (pLog == nullptr) return -1;
  pLog->SetMaxSize(oMsg.m_nMaxSize);
  pLog->SetFileCount(oMsg.m_nFileCount);
  pLog->SetName("TolvaneMain");
  pLog->SetOutputMask(3);
  pLog->SetLevel(oMsg.m_nLevel == -1 ? E_LOG_DEBUG : oMsg.m_nLevel);
  GetRegGlobal().m_pLog.store(pLog, std::memory_order_release);
  return 0;
}

}  // namespace

int CRegisterProcess::RegSystemSettings(CXML* pIn, CXML* /*pOut*/) {
  REG_LOG_SCOPE();
  const std::unique_ptr<CTolvaneSystemSetting> oMsg(
      GetRegGlobal().m_pParserFactory->CreateSystemSetting());
  if (oMsg == nullptr) return -1;
  if (oMsg->Parse(pIn) != 0) {
    REG_LOG(E_LOG_ERROR, "CCallProcess::Parse Failed!");
    return bus::registration::kResultNotParsed;
  }
  if (CRegSipCfg* const pCfg = GetRegGlobal().m_pRegSipCfg) pCfg->SetCfgPath(oMsg->m_strCfgPath);
  return 0;
}

int CRegisterProcess::OnReadConf(CXML* /*pIn*/, CXML* /*pOut*/) {
  CRegSipCfg* const pCfg = GetRegGlobal().m_pRegSipCfg;
  if (pCfg == nullptr || pCfg->ReadConfFromFile() == 0) return bus::registration::kResultRan;
  // The client is not told, so the log has to say what is wrong.
  try {
    const std::vector<sipcarrier::ConfFault> vecFaults = pCfg->Faults();
    for (const sipcarrier::ConfFault& stFault : vecFaults) {
      REG_LOG(E_LOG_ERROR, "%s:%d: %s\n", stFault.file.c_str(), stFault.line,
              stFault.reason.c_str());
    }
    if (vecFaults.empty()) REG_LOG(E_LOG_ERROR, "configuration not read\n");
  } catch (const std::bad_alloc&) {
    REG_LOG(E_LOG_ERROR, "no memory for the faults of the configuration\n");
  }
  return bus::registration::kResultRan;
}

int CRegisterProcess::OnLogSwitch(CXML* pIn, CXML* /*pOut*/) {
  const std::unique_ptr<CRegLogSwitch> oMsg(GetRegGlobal().m_pParserFactory->CreateRegLogSwitch());
  if (oMsg == nullptr) return -1;
  if (oMsg->Parse(pIn) != 0) {
    REG_LOG(E_LOG_ERROR, "CRegisterProcess::Parse Failed!");
    return bus::registration::kResultNotParsed;
  }
  const VkLocker oLocker(g_oLogSwitchMutex);
  ILogOne* pLog = GetRegGlobal().m_pLog.load(std::memory_order_acquire);
  if (oMsg->m_bLogSwitch == 0) {
    if (pLog == nullptr) return 0;
    REG_LOG(E_LOG_INFO, "CRegisterProcess::Close log");
    // Nobody finds it any more before it falls asleep: fewer records meet a log that is paused.
    GetRegGlobal().m_pLog.store(nullptr, std::memory_order_release);
    LogOne_Close(&pLog);
  } else if (pLog == nullptr) {
    if (OpenLog(*oMsg) != 0) return -1;
    if (oMsg->m_nLevel == -1) REG_LOG(E_LOG_INFO, "CCallProcess::E_LOG_DEBUG!");
    REG_LOG(E_LOG_INFO, "CRegisterProcess::Open log sucess");
  } else {
    REG_LOG(E_LOG_INFO, "CRegisterProcess::Change log param");
    if (oMsg->m_nLevel != -1) pLog->SetLevel(oMsg->m_nLevel);
    if (oMsg->m_nPause == 1) pLog->Pause();
    if (oMsg->m_nPause == 0) pLog->Resume();
  }
  return 0;
}
