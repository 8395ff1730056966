#include "registrationpackage.h"

#include <cstdint>
#include <type_traits>

#include "RegLog.h"
#include "VorelKDCore/VorelKDCore.h"

// The table replaces its tree in one step that cannot fail.
static_assert(std::is_nothrow_move_assignable_v<CRegInfo>);

namespace {

// What a newer element says counts; what it does not say stays.
void Replace(std::string& strOwn, std::string& strNewer) noexcept {
  if (!strNewer.empty()) strOwn = std::move(strNewer);
}

}  // namespace

// ---- CElement

int CElement::Parse(const char* pszDoc) {
  try {
    return m_oXml.SetDoc(pszDoc);
  } catch (const std::bad_alloc&) {
    return 0;
  }
}

void CElement::Update(CElement* pElement) {
  if (pElement != nullptr) m_oXml = pElement->m_oXml;
}

int CElement::ReadPart(CXML oPart) {
  m_oXml = std::move(oPart);
  return Read();
}

int CElement::ParseAndRead(const char* pszDoc) {
  if (CElement::Parse(pszDoc) == 0) return 0;
  try {
    return Read();
  } catch (const std::bad_alloc&) {
    return 0;
  }
}

template <typename T>
bool CElement::UpdateAs(T& oOwn, CElement* pElement) {
  if (pElement == nullptr) return true;
  oOwn.CElement::Update(pElement);
  const auto* pSource = dynamic_cast<const T*>(pElement);
  if (pSource == nullptr) return false;
  try {
    oOwn.Merge(T(*pSource));
  } catch (const std::bad_alloc&) {
    // The old content stays.
  }
  oOwn.Trim();
  return true;
}

template <typename T>
int CElement::ReadChild(const char* szName, CRegChild<T>& oChild) {
  m_oXml.ResetPos();
  if (m_oXml.FindChildElem(szName) == 0) return 1;
  if (oChild.Get() == nullptr) oChild.Set(vktNew<T>());
  if (oChild.Get() == nullptr) return 0;
  if (oChild.Get()->ReadPart(m_oXml.GetChildDoc()) != 0) return 1;
  oChild.Set(nullptr);
  return 0;
}

template <typename T>
int CElement::ReadChildren(const char* szName, CRegChildren<T>& oChildren) {
  while (m_oXml.FindChildElem(szName) != 0) {
    std::unique_ptr<T> pChild(vktNew<T>());
    if (pChild == nullptr) return 0;
    if (pChild->ReadPart(m_oXml.GetChildDoc()) != 0) oChildren.Add(pChild.release());
  }
  return 1;
}

// ---- leaves

int CUnknownParam::Read() {
  if (m_oXml.FindElem("unknown-param") == 0) return 0;
  m_strName = m_oXml.GetAttrib("name");
  m_strValue = m_oXml.GetData();
  return 1;
}

int CDisplayName::Read() {
  if (m_oXml.FindElem("display-name") == 0) return 0;
  m_strLang = m_oXml.GetAttrib("xml:lang");
  m_strDisplayName = m_oXml.GetData();
  return 1;
}

void CDisplayName::Update(CElement* pElement) { UpdateAs(*this, pElement); }

void CDisplayName::Merge(CDisplayName&& oNewer) noexcept {
  Replace(m_strDisplayName, oNewer.m_strDisplayName);
  Replace(m_strLang, oNewer.m_strLang);
}

int CUri::Read() {
  if (m_oXml.FindElem("uri") == 0) return 0;
  m_strUri = m_oXml.GetData();
  return 1;
}

void CUri::Update(CElement* pElement) { UpdateAs(*this, pElement); }

void CUri::Merge(CUri&& oNewer) noexcept { Replace(m_strUri, oNewer.m_strUri); }

// ---- CContact

int CContact::Parse(const char* pszDoc) {
  ClearUnknownParams();
  return ParseAndRead(pszDoc);
}

int CContact::Read() {
  if (m_oXml.FindElem("contact") == 0) return 0;
  if ((m_strId = m_oXml.GetAttrib("id")).empty()) return 0;
  if ((m_strState = m_oXml.GetAttrib("state")).empty()) return 0;
  if ((m_strEvent = m_oXml.GetAttrib("event")).empty()) return 0;
  m_strExpires = m_oXml.GetAttrib("expires");
  m_strRetryAfter = m_oXml.GetAttrib("retry-after");
  m_strDurationRegistered = m_oXml.GetAttrib("duration-registered");
  m_strQ = m_oXml.GetAttrib("q");
  m_strCallId = m_oXml.GetAttrib("callid");
  m_strCSeq = m_oXml.GetAttrib("cseq");
  m_strData = m_oXml.GetData();
  if (ReadChild("uri", m_pUri) == 0 || ReadChild("display-name", m_pDisplayName) == 0) return 0;
  m_oXml.ResetPos();
  return ReadChildren("unknown-param", m_vecUnknownParam);
}

void CContact::Update(CElement* pElement) { UpdateAs(*this, pElement); }

void CContact::Merge(CContact&& oNewer) noexcept {
  m_oXml = std::move(oNewer.m_oXml);
  Replace(m_strId, oNewer.m_strId);
  Replace(m_strState, oNewer.m_strState);
  Replace(m_strEvent, oNewer.m_strEvent);
  Replace(m_strExpires, oNewer.m_strExpires);
  Replace(m_strRetryAfter, oNewer.m_strRetryAfter);
  Replace(m_strDurationRegistered, oNewer.m_strDurationRegistered);
  Replace(m_strQ, oNewer.m_strQ);
  Replace(m_strCallId, oNewer.m_strCallId);
  Replace(m_strCSeq, oNewer.m_strCSeq);
  Replace(m_strData, oNewer.m_strData);
  m_pUri.Merge(oNewer.m_pUri);
  m_pDisplayName.Merge(oNewer.m_pDisplayName);
  if (oNewer.GetUnknownParamCount() != 0) m_vecUnknownParam = std::move(oNewer.m_vecUnknownParam);
}

void CContact::Trim() noexcept {
  CElement::Trim();
  m_pUri.Trim();
  m_pDisplayName.Trim();
  m_vecUnknownParam.Trim();
}

// ---- CRegistration

int CRegistration::Parse(const char* pszDoc) {
  ClearContacts();
  return ParseAndRead(pszDoc);
}

int CRegistration::Read() {
  if (m_oXml.FindElem("registration") == 0) return 0;
  m_strAor = m_oXml.GetAttrib("aor");
  m_strId = m_oXml.GetAttrib("id");
  m_strState = m_oXml.GetAttrib("state");
  if (m_strAor.empty() || m_strId.empty() || m_strState.empty()) return 0;
  m_oXml.ResetPos();
  return ReadChildren("contact", m_vecContact);
}

void CRegistration::Update(CElement* pElement) {
  if (!UpdateAs(*this, pElement)) {
    // In GBK: wrong type of argument, the cast from CElement* to CRegistration* has failed.
    REG_LOG(E_LOG_ERROR,
            "\xb2\xce\xca\xfd\xc0\xe0\xd0\xcd\xb4\xed\xce\xf3\xa3\xac\xb4\xd3"
            "CElement*\xd7\xaa\xbb\xbb\xce\xaa"
            "CRegistration*\xca\xa7\xb0\xdc\xa3\xa1");
  }
}

void CRegistration::Merge(CRegistration&& oNewer) noexcept {
  m_oXml = std::move(oNewer.m_oXml);
  Replace(m_strAor, oNewer.m_strAor);
  Replace(m_strId, oNewer.m_strId);
  Replace(m_strState, oNewer.m_strState);
  m_vecContact.Merge(oNewer.m_vecContact);
}

void CRegistration::Trim() noexcept {
  CElement::Trim();
  m_vecContact.Trim();
}

// ---- CRegInfo

int CRegInfo::Parse(const char* pszDoc) {
  ClearRegistrations();
  return ParseAndRead(pszDoc);
}

int CRegInfo::Read() {
  if (m_oXml.FindElem("reginfo") == 0) return 0;
  m_strVersion = m_oXml.GetAttrib("version");
  m_strState = m_oXml.GetAttrib("state");
  if (m_strVersion.empty() || m_strState.empty()) return 0;
  m_strXmlns = m_oXml.GetAttrib("xmlns");
  m_strXmlnsXsi = m_oXml.GetAttrib("xmlns:xsi");
  return ReadChildren("registration", m_vecRegistration);
}

void CRegInfo::Update(CElement* pElement) {
  if (!UpdateAs(*this, pElement)) {
    // In GBK: wrong type of argument, the cast from CElement* to CRegInfo* has failed.
    REG_LOG(E_LOG_ERROR,
            "\xb2\xce\xca\xfd\xc0\xe0\xd0\xcd\xb4\xed\xce\xf3\xa3\xac\xb4\xd3"
            "CElement*\xd7\xaa\xbb\xbb\xce\xaa"
            "CRegInfo*\xca\xa7\xb0\xdc\xa3\xa1");
  }
}

void CRegInfo::Merge(CRegInfo&& oNewer) noexcept {
  m_oXml = std::move(oNewer.m_oXml);
  m_strVersion = std::move(oNewer.m_strVersion);
  m_strState = std::move(oNewer.m_strState);
  Replace(m_strXmlnsXsi, oNewer.m_strXmlnsXsi);
  Replace(m_strXmlns, oNewer.m_strXmlns);
  RemoveTerminated();
  m_vecRegistration.Merge(oNewer.m_vecRegistration);
}

// In front of a merge: a registration that a document reports as terminated stays until the next
// one, so that whoever walks the table after the document sees it.
void CRegInfo::RemoveTerminated() {
  m_vecRegistration.RemoveIf(
      [](const CRegistration& oRegistration) { return oRegistration.GetState() == "terminated"; });
}

void CRegInfo::Trim() noexcept {
  CElement::Trim();
  m_vecRegistration.Trim();
}

// ---- CRegistrationTable

// The document goes into the table by moving, so that nothing is copied and hardly anything can
// fail.
int CRegistrationTable::Update(const char* pszDoc) noexcept {
  CRegInfo oNewer;
  if (oNewer.Parse(pszDoc) == 0) return -1;
  const std::int64_t nOld = kdStrtol(m_oRegInfo.GetVersion().c_str(), nullptr, 10);
  const std::int64_t nNew = kdStrtol(oNewer.GetVersion().c_str(), nullptr, 10);
  if (nOld >= nNew) return 2;
  if (oNewer.GetState() == "full") {
    m_oRegInfo = std::move(oNewer);
    return 0;
  }
  if (oNewer.GetState() != "partial") return 0;
  m_oRegInfo.Merge(std::move(oNewer));
  m_oRegInfo.Trim();
  return nNew - nOld > 1 ? 1 : 0;
}

std::string CRegistrationTable::GetVersion() const noexcept {
  try {
    return m_oRegInfo.GetVersion();
  } catch (const std::bad_alloc&) {
    return {};
  }
}
