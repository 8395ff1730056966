// The one static holder of all long-lived objects of the component, in forward declarations only:
// every file needs it for the log, few need what hangs on it.
#pragma once

#include <atomic>

class CRegisterProcess;
class CRegisterSipProcess;
class CRegParserFactory;
class CRegSipCfg;
class ILogOne;
class VkMutex;

// Made when the library is loaded, ended when it is unloaded. The pointers are set in between and
// do not change; one of them is null only when memory ran out at load.
class CRegGlobal {
 public:
  CRegGlobal();
  ~CRegGlobal();
  CRegGlobal(const CRegGlobal&) = delete;
  CRegGlobal& operator=(const CRegGlobal&) = delete;

  CRegParserFactory* m_pParserFactory = nullptr;
  CRegisterSipProcess* m_pRegisterSipProcess = nullptr;
  CRegisterProcess* m_pRegisterProcess = nullptr;
  CRegSipCfg* m_pRegSipCfg = nullptr;  // alone may be null in use: templates are then not to be had
  // Null while logging is off; only the log switch sets it. A reader loads it once for each
  // statement; loggers live until unload, so a pointer once read stays good.
  std::atomic<ILogOne*> m_pLog{nullptr};
};

extern CRegGlobal g_oRegGlobal;
inline CRegGlobal& GetRegGlobal() { return g_oRegGlobal; }

// One lock for the state of all registrations; second in the order of locks, behind the registry's.
extern VkMutex g_oRegLock;
