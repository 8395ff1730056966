// The configuration step that every REGISTER passes between its building and its sending: headers
// of a template, which the stack service keeps, are merged into it.
//
// Threads: SetCfgPath and ReadConfFromFile come from commands, on any thread at any time.
// ConfigureSipMessage runs on the thread that sends, with the library lock (sivra_lock) held, so no
// second REGISTER comes between its calls; it takes no lock of the component.
#pragma once

#include <map>
#include <string>

#include "Sipcarrier/Sipcarrier.h"

// One for all registrations (CRegGlobal::m_pRegSipCfg); its file is "TOLVANE.xml".
class CRegSipCfg : public CVorelSipConf {
 public:
  CRegSipCfg();
  ~CRegSipCfg() override;

  // Puts the template's headers in front, each in place of the message's first one of its name. Of
  // "expires" the larger number wins, and the 0 of a deregistration stays. Does nothing when
  // either is null. What the message had besides follows in its former order. Throws
  // std::bad_alloc, and the message is then as it was.
  virtual void MergeSipHeaders(nsip_message* pTemplate, nsip_message* pSipMessage);

  // The step. 0, also when there is no template; -1 when memory runs out, and the message is then
  // as it was. Throws nothing.
  int ConfigureSipMessage(const std::string& strFirst, const std::string& strSecond,
                          nsip_message* pSipMessage) noexcept;
};

// What one REGISTER brings into the step; it lives for one call.
class CRegCfgItem {
 public:
  // Null is accepted and gives no cells, as does bCells false. Throws std::bad_alloc.
  explicit CRegCfgItem(const nsip_message* pSipMessage, bool bCells = true);
  ~CRegCfgItem();
  CRegCfgItem(const CRegCfgItem&) = delete;
  CRegCfgItem& operator=(const CRegCfgItem&) = delete;

  nsip_message* m_pSipMsg = nullptr;  // the template, the stack service's
  // The values that a template may name. A key whose source the message lacks is not there.
  std::map<std::string, std::string> m_mapTransferCell;

 private:
  void AddUri(const char* szKey, const nsip_uri* pUri);
};
