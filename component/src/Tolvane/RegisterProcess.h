// The component's face towards the bus: the five exported functions, and the object that takes its
// commands.
#pragma once

#include "USObject.h"

// The functions may be entered on any thread. None takes a lock of its own; no exception leaves
// one: memory that runs out is a result of -1.
#define TOLVANE_XSC_EXPORT extern "C" __attribute__((visibility("default")))

// Fills the information record, all but its first field. -1 when pInfo is null.
TOLVANE_XSC_EXPORT int TOLVANE_XSCInformation(XSComponentInfo* pInfo);
// Once, on a thread that goes on running a KD event loop. The result of registering with the SIP
// stack.
TOLVANE_XSC_EXPORT int TOLVANE_XSCInitialize(void* pParam);
// Once, before unloading. Always 0.
TOLVANE_XSC_EXPORT int TOLVANE_XSCUninitialize();
// One command. A thread that delivers a register command must run a KD event loop: the
// registration's timer lives there.
TOLVANE_XSC_EXPORT int TOLVANE_XSCCmdCallBack(int nCmdId, CXML* pIn, CXML* pOut);
TOLVANE_XSC_EXPORT int TOLVANE_XSCNtfCallBack(const char* szSource, int nNtfId, CXML* pDoc,
                                              void* pExtra);

class CRegisterProcess : public CUSObject {
 public:
  const US_MSG_MAP* GetMsgMap() const override;
  int Initialize(void* pParam);
  int Uninitialize();

 private:
  // Adjust the component itself; RegisterSettings.cpp.
  int RegSystemSettings(CXML* pIn, CXML* pOut);
  int OnLogSwitch(CXML* pIn, CXML* pOut);
  int OnReadConf(CXML* pIn, CXML* pOut);

  int OnRegister(CXML* pIn, CXML* pOut);
  int OnDeregister(CXML* pIn, CXML* pOut);
  // Notifications of the subscription service.
  int OnSubSuccessNtf(const char* szSource, CXML* pDoc, void* pExtra);
  int OnSubFailureNtf(const char* szSource, CXML* pDoc, void* pExtra);
  int OnSubNotifyNtf(const char* szSource, CXML* pDoc, void* pExtra);

  static const US_CMD_ENTRY s_astCommands[];
  static const US_NTF_ENTRY s_astNotifies[];
  static const US_MSG_MAP s_stRegMsgMap;
};
