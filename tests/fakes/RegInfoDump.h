// A reginfo model as text, with the fields that have no reader. What is empty is left out, so that
// expectations stay short; with documents, each element's own text stands in front of it.
#pragma once

#include <string>
#include <utility>

#include "registrationpackage.h"

struct RegInfoDump {
  static std::string Of(const CElement& e, bool documents = false) {
    const std::string document = documents ? "[" + Document(e) + "]" : "";
    if (const auto* uri = dynamic_cast<const CUri*>(&e)) return document + "<" + uri->m_strUri + ">";
    if (const auto* name = dynamic_cast<const CDisplayName*>(&e))
      return document + name->m_strDisplayName + "/" + name->m_strLang;
    if (const auto* param = dynamic_cast<const CUnknownParam*>(&e))
      return document + param->m_strName + "=" + param->m_strValue;
    if (const auto* contact = dynamic_cast<const CContact*>(&e)) return document + Contact(*contact, documents);
    if (const auto* info = dynamic_cast<const CRegInfo*>(&e)) {
      return document + info->m_strXmlns + " " + info->m_strXmlnsXsi + " " + info->m_strState + " " +
             Registrations(*info, documents);
    }
    const auto& registration = dynamic_cast<const CRegistration&>(e);
    std::string text =
        document + registration.m_strId + " " + registration.m_strAor + " " + registration.m_strState + " {";
    for (int i = 0; const CContact* contact = registration.GetContact(i); ++i) text += Of(*contact, documents) + "; ";
    return text + "}";
  }

  static std::string Contact(const CContact& e, bool documents) {
    std::string text = e.m_strId + " " + e.m_strState + " " + e.m_strEvent;
    for (const auto& [name, field] : {std::pair<const char*, const std::string&>{"expires", e.m_strExpires},
                                      {"retry", e.m_strRetryAfter},
                                      {"duration", e.m_strDurationRegistered},
                                      {"q", e.m_strQ},
                                      {"callid", e.m_strCallId},
                                      {"cseq", e.m_strCSeq},
                                      {"data", e.m_strData}}) {
      if (!field.empty()) text += std::string(" ") + name + "=" + field;
    }
    if (e.m_pUri.Get() != nullptr) text += " " + Of(*e.m_pUri.Get(), documents);
    if (e.m_pDisplayName.Get() != nullptr) text += " " + Of(*e.m_pDisplayName.Get(), documents);
    for (int i = 0; const CUnknownParam* param = e.GetUnknownParam(i); ++i) text += " " + Of(*param, documents);
    return text;
  }

  // Of a document or a table.
  template <typename Holder>
  static std::string Registrations(const Holder& holder, bool documents = false) {
    std::string text = holder.GetVersion() + " ";
    for (int i = 0; const CRegistration* registration = holder.GetRegistration(i); ++i)
      text += Of(*registration, documents);
    return text;
  }

  static std::string Document(const CElement& e) { return e.m_oXml.GetDoc(); }
};
