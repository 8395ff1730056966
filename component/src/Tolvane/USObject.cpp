#include "USObject.h"

#include "VorelKDCore/VorelKDCore.h"

namespace {

constexpr US_CMD_ENTRY s_astNoCommands[] = {{0, nullptr}};
constexpr US_NTF_ENTRY s_astNoNotifies[] = {{"", 0, nullptr}};
constexpr PS_EVENT_ENTRY s_astNoEvents[] = {{0, nullptr}};

// The first row of the chain that `bMatch` accepts, or null.
template <typename TMap, typename TRow, typename TMatch>
const TRow* FindRow(const TMap* pMap, const TRow* TMap::*pTable, TMatch bMatch) {
  for (; pMap != nullptr; pMap = pMap->pBase) {
    const TRow* pRow = pMap->*pTable;
    for (; pRow != nullptr && pRow->pHandler != nullptr; ++pRow) {
      if (bMatch(*pRow)) return pRow;
    }
  }
  return nullptr;
}

// Every notification row of the chain, whatever the bus says to one.
void ForEachNotify(const US_MSG_MAP* pMap, decltype(XSSubNotify)* pCall,
                   XSNotifyCallback* pCallback) {
  for (; pMap != nullptr; pMap = pMap->pBase) {
    const US_NTF_ENTRY* pRow = pMap->pNotifies;
    for (; pRow != nullptr && pRow->pHandler != nullptr; ++pRow) {
      pCall(pRow->szSource, pRow->nNtfId, pCallback);
    }
  }
}

}  // namespace

const US_MSG_MAP CUSObject::s_stMsgMap = {nullptr, s_astNoCommands, s_astNoNotifies};
const PS_EVENT_MAP CPSObject::s_stEventMap = {nullptr, s_astNoEvents};

const US_MSG_MAP* CUSObject::GetMsgMap() const { return &s_stMsgMap; }
const PS_EVENT_MAP* CPSObject::GetEventMap() const { return &s_stEventMap; }

int CUSObject::RegisterNotifies(XSNotifyCallback* pCallback) {
  ForEachNotify(GetMsgMap(), XSSubNotify, pCallback);
  return 0;
}

int CUSObject::UnregisterNotifies(XSNotifyCallback* pCallback) {
  ForEachNotify(GetMsgMap(), XSUnsubNotify, pCallback);
  return 0;
}

int CUSObject::OnCommand(int nCmdId, CXML* pIn, CXML* pOut) {
  const US_CMD_ENTRY* pRow =
      FindRow(GetMsgMap(), &US_MSG_MAP::pCommands,
              [nCmdId](const US_CMD_ENTRY& stRow) { return stRow.nCmdId == nCmdId; });
  return pRow == nullptr ? -1 : (this->*pRow->pHandler)(pIn, pOut);
}

int CUSObject::OnNotify(const char* szSource, int nNtfId, CXML* pDoc, void* pExtra) {
  if (szSource == nullptr) return -1;
  const US_NTF_ENTRY* pRow =
      FindRow(GetMsgMap(), &US_MSG_MAP::pNotifies, [=](const US_NTF_ENTRY& stRow) {
        return stRow.nNtfId == nNtfId && kdStrcmp(szSource, stRow.szSource) == 0;
      });
  return pRow == nullptr ? -1 : (this->*pRow->pHandler)(szSource, pDoc, pExtra);
}

// CPSObject is a second base of the classes with rows: the call through the handler moves `this`
// back to the whole object, which the sanitizer takes for a call on something that is no CPSObject.
__attribute__((no_sanitize("vptr"))) int CPSObject::OnEvent(int nEventId, SipStackEvent* pEvent) {
  const PS_EVENT_ENTRY* pRow =
      FindRow(GetEventMap(), &PS_EVENT_MAP::pEvents,
              [nEventId](const PS_EVENT_ENTRY& stRow) { return stRow.nEventId == nEventId; });
  return pRow == nullptr ? -1 : (this->*pRow->pHandler)(pEvent);
}
