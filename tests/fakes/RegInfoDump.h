// A reginfo model as text, with the fields that have no reader. What is empty is left out, so that
// expectations stay short; with documents, each element's own text stands in front of it.
#pragma once

#include <string>
#include <utility>

#include "registrationpackage.h"

namespace fakes {

struct OpenElement : CElement {
  using CElement::m_oXml;
};
struct OpenParam : CUnknownParam {
  using CUnknownParam::m_strValue;
};
struct OpenName : CDisplayName {
  using CDisplayName::m_strDisplayName, CDisplayName::m_strLang;
};
struct OpenUri : CUri {
  using CUri::m_strUri;
};
struct OpenContact : CContact {
  using CContact::m_pUri, CContact::m_pDisplayName, CContact::m_strExpires, CContact::m_strRetryAfter, CContact::m_strQ;
  using CContact::m_strCallId, CContact::m_strCSeq, CContact::m_strData, CContact::m_strDurationRegistered;
};
struct OpenInfo : CRegInfo {
  using CRegInfo::m_strXmlns, CRegInfo::m_strXmlnsXsi;
};

inline std::string Document(const CElement& e) { return (e.*&OpenElement::m_oXml).GetDoc(); }

inline std::string Dump(const CUri& e) { return e.*&OpenUri::m_strUri; }
inline std::string Dump(const CDisplayName& e) {
  return e.*&OpenName::m_strDisplayName + "/" + e.*&OpenName::m_strLang;
}
inline std::string Dump(const CUnknownParam& e) { return e.GetName() + "=" + e.*&OpenParam::m_strValue; }

inline std::string Dump(const CContact& e, bool documents = false) {
  static constexpr std::pair<const char*, std::string CContact::*> kFields[] = {
      {" expires=", &OpenContact::m_strExpires},
      {" retry=", &OpenContact::m_strRetryAfter},
      {" duration=", &OpenContact::m_strDurationRegistered},
      {" q=", &OpenContact::m_strQ},
      {" callid=", &OpenContact::m_strCallId},
      {" cseq=", &OpenContact::m_strCSeq},
      {" data=", &OpenContact::m_strData}};
  const auto document = [&](const CElement& element) { return documents ? "[" + Document(element) + "]" : ""; };
  std::string text = document(e) + e.GetId() + " " + e.GetState() + " " + e.GetEvent();
  for (const auto& [name, field] : kFields) {
    if (!(e.*field).empty()) text += name + e.*field;
  }
  const CUri* uri = (e.*&OpenContact::m_pUri).Get();
  if (uri != nullptr) text += " <" + document(*uri) + Dump(*uri) + ">";
  const CDisplayName* name = (e.*&OpenContact::m_pDisplayName).Get();
  if (name != nullptr) text += " " + document(*name) + Dump(*name);
  for (int i = 0; const CUnknownParam* param = e.GetUnknownParam(i); ++i) text += " " + document(*param) + Dump(*param);
  return text;
}

inline std::string Dump(const CRegistration& e, bool documents = false) {
  std::string text = (documents ? Document(e) : "") + e.GetId() + " " + e.GetAor() + " " + e.GetState() + " {";
  for (int i = 0; const CContact* contact = e.GetContact(i); ++i) text += Dump(*contact, documents) + "; ";
  return text + "}";
}

// Of a table as well.
template <typename Registrations>
std::string DumpRegistrations(const Registrations& from, bool documents = false) {
  std::string text = from.GetVersion() + " ";
  for (int i = 0; const CRegistration* reg = from.GetRegistration(i); ++i) text += Dump(*reg, documents);
  return text;
}
inline std::string Dump(const CRegInfo& e, bool documents = false) {
  return (documents ? Document(e) : "") + e.*&OpenInfo::m_strXmlns + " " + e.*&OpenInfo::m_strXmlnsXsi + " " +
         e.GetState() + " " + DumpRegistrations(e, documents);
}

}  // namespace fakes
