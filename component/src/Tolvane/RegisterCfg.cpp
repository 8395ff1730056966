#include "RegisterCfg.h"

#include <cstddef>
#include <memory>
#include <new>
#include <utility>
#include <vector>

#include "RegLog.h"
#include "VorelKDCore/VorelKDCore.h"
#include "Vorelkit/Vorelkit.h"

namespace {

struct CFreeText {
  void operator()(char* szText) const { nsip_free(szText); }
};

struct CFreeHeader {
  void operator()(nsip_header* pHeader) const { nsip_header_free(pHeader); }
};
using HeaderPtr = std::unique_ptr<nsip_header, CFreeHeader>;

// Of two expiries the larger one counts, but a deregistration stays one.
bool KeepsItsExpiry(const nsip_header& stOwn, const nsip_header& stTemplate) {
  return stOwn.hvalue == "0" || kdStrtol(stOwn.hvalue.c_str(), nullptr, 10) >
                                    kdStrtol(stTemplate.hvalue.c_str(), nullptr, 10);
}

}  // namespace

CRegCfgItem::CRegCfgItem(const nsip_message* pSipMessage, bool bCells) {
  REG_LOG_SCOPE();
  if (pSipMessage == nullptr) {
    REG_LOG(E_LOG_INFO, "pSipMessage is null");
    return;
  }
  if (!bCells) return;
  const nsip_from* const pLocal = pSipMessage->from.get();
  const nsip_to* const pRemote = pSipMessage->to.get();
  nsip_contact* pContact = nullptr;
  nsip_message_get_contact(pSipMessage, 0, &pContact);
  if (pLocal != nullptr) AddUri("local-uri", pLocal->url.get());
  if (pRemote != nullptr) AddUri("remote-uri", pRemote->url.get());
  if (pLocal != nullptr && !pLocal->displayname.empty()) {
    m_mapTransferCell["display-name"] = pLocal->displayname;
  }
  AddUri("request-uri", pSipMessage->req_uri.get());
  if (pContact != nullptr) AddUri("contact-uri", pContact->url.get());
}

CRegCfgItem::~CRegCfgItem() {
  REG_LOG_SCOPE();
  m_pSipMsg = nullptr;  // not ours to free
}

void CRegCfgItem::AddUri(const char* szKey, const nsip_uri* pUri) {
  if (pUri == nullptr) return;
  char* szText = nullptr;
  const int nResult = nsip_uri_to_str(pUri, &szText);
  const std::unique_ptr<char, CFreeText> oText(szText);
  if (nResult == 0) m_mapTransferCell[szKey] = szText;
}

CRegSipCfg::CRegSipCfg() : CVorelSipConf("TOLVANE") {}

CRegSipCfg::~CRegSipCfg() = default;

int CRegSipCfg::ConfigureSipMessage(const std::string& strFirst, const std::string& strSecond,
                                    nsip_message* pSipMessage) noexcept {
  REG_LOG_SCOPE();
  // Without a template nobody asks for the cells, which cost more than all else of a REGISTER here.
  const bool bCells = pSipMessage == nullptr || HasSipMsg(strFirst, strSecond);
  const std::unique_ptr<CRegCfgItem> oItem(vktNew<CRegCfgItem>(pSipMessage, bCells));
  if (oItem == nullptr) {
    REG_LOG(E_LOG_ERROR, "vktNew failed ");
    return -1;
  }
  try {
    SetTransferCell(oItem->m_mapTransferCell);
    oItem->m_pSipMsg = GetSipMsg(strFirst, strSecond, pSipMessage);
    MergeSipHeaders(oItem->m_pSipMsg, pSipMessage);
    return 0;
  } catch (const std::bad_alloc&) {
    // A REGISTER without the operator's headers keeps a binding alive; none would lose it.
    REG_LOG(E_LOG_ERROR, "no memory for the template's headers\n");
    return -1;
  }
}

void CRegSipCfg::MergeSipHeaders(nsip_message* pTemplate, nsip_message* pSipMessage) {
  if (pTemplate == nullptr || pSipMessage == nullptr) return;
  nsip_list* const pOwn = &pSipMessage->headers;

  // All that needs memory comes first, so that a message is never merged by half.
  std::vector<HeaderPtr> vecClone;
  for (int nRead = 0; nsip_list_eol(&pTemplate->headers, nRead) == 0; ++nRead) {
    nsip_header* pClone = nullptr;
    nsip_header_clone(nsip_list_get(&pTemplate->headers, nRead), &pClone);
    HeaderPtr oClone(pClone);
    if (oClone != nullptr) vecClone.push_back(std::move(oClone));
  }
  // One more, since a header goes in before the one that it replaces comes out.
  pOwn->items.reserve(pOwn->items.size() + vecClone.size() + 1);

  int nInsert = 0;
  for (HeaderPtr& oClone : vecClone) {
    nsip_header* pFound = nullptr;
    // From the insert position on: what this merge has put in is not replaced again.
    const int nFound =
        nsip_message_header_get_byname(pSipMessage, oClone->hname.c_str(), nInsert, &pFound);
    if (nFound >= 0 && oClone->hname == "expires" && KeepsItsExpiry(*pFound, *oClone)) continue;
    // Refused: it is freed here, and what the message had stays.
    if (nsip_list_add(pOwn, oClone.get(), nInsert) < 0) continue;
    static_cast<void>(oClone.release());
    ++nInsert;
    if (nFound >= 0) {
      nsip_list_remove(pOwn, nFound + 1);
      nsip_header_free(pFound);
    }
  }
}
