#include "XMLParserImpl.h"

#include <algorithm>
#include <limits>

#include "VorelKDCore/VorelKDCore.h"
#include "Vorelkit/Vorelkit.h"

std::string ToUpperText(const std::string& strText) {
  std::string strUpper = strText;
  for (char& c : strUpper) {
    if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
  }
  return strUpper;
}

int TextToBool(const std::string& strText, int nDefault) {
  const std::string strUpper = ToUpperText(strText);
  if (strUpper == "TRUE" || strText == "1") return 1;
  if (strUpper == "FALSE") return 0;
  return nDefault;
}

// ---- CXMLObj: access to the documents

int CXMLObj::SetInDoc(void* pDoc) {
  if (pDoc == nullptr) return 0;
  m_pInDoc = static_cast<CXML*>(pDoc);
  return 1;
}

int CXMLObj::SetOutDoc(void* pDoc) {
  if (pDoc == nullptr) return 0;
  m_pOutDoc = static_cast<CXML*>(pDoc);
  return 1;
}

int CXMLObj::AttachInDoc(void* pDoc, CXML** ppXml) {
  const int nResult = SetInDoc(pDoc);
  if (nResult != 0) *ppXml = m_pInDoc;
  return nResult;
}

int CXMLObj::AttachOutDoc(void* pDoc, CXML** ppXml) {
  const int nResult = SetOutDoc(pDoc);
  if (nResult != 0) *ppXml = m_pOutDoc;
  return nResult;
}

int CXMLObj::FindNode(const std::string& strName, int bReset) {
  if (m_pInDoc == nullptr) return 0;
  if (bReset != 0) m_pInDoc->ResetMainPos();
  return m_pInDoc->FindElem(strName.c_str());
}

bool CXMLObj::NodeText(std::string& strText, const std::string& strName, int bMandatory,
                       int bReset) {
  if (FindNode(strName, bReset) == 0) return false;
  strText = m_pInDoc->GetData();
  return bMandatory == 0 || !strText.empty();
}

bool CXMLObj::AttrText(std::string& strText, const std::string& strName, int bMandatory) {
  if (m_pInDoc == nullptr || m_pInDoc->FindAttrib(strName.c_str()) == 0) return false;
  strText = m_pInDoc->GetAttrib(strName.c_str());
  return bMandatory == 0 || !strText.empty();
}

int CXMLObj::GetNodeInt(int* pnValue, const std::string& strName, int bMandatory, int bReset) {
  std::string strText;
  if (!NodeText(strText, strName, bMandatory, bReset)) return 0;
  *pnValue = kdStrtol(strText.c_str(), nullptr, 10);
  return 1;
}

int CXMLObj::GetNodeStr(std::string& strValue, const std::string& strName, int bMandatory,
                        int bReset) {
  return NodeText(strValue, strName, bMandatory, bReset) ? 1 : 0;
}

int CXMLObj::GetNodeBool(int* pbValue, const std::string& strName, int bMandatory, int bReset) {
  std::string strText;
  if (!NodeText(strText, strName, bMandatory, bReset)) return 0;
  *pbValue = TextToBool(strText, 0);
  return 1;
}

int CXMLObj::GetAttrInt(int* pnValue, const std::string& strName, int bMandatory) {
  std::string strText;
  if (!AttrText(strText, strName, bMandatory)) return 0;
  *pnValue = kdStrtol(strText.c_str(), nullptr, 10);
  return 1;
}

int CXMLObj::GetAttrStr(std::string& strValue, const std::string& strName, int bMandatory) {
  return AttrText(strValue, strName, bMandatory) ? 1 : 0;
}

int CXMLObj::GetAttrBool(int* pbValue, const std::string& strName, int bMandatory) {
  std::string strText;
  if (!AttrText(strText, strName, bMandatory)) return 0;
  *pbValue = TextToBool(strText, 0);
  return 1;
}

int CXMLObj::AddNodeChild(const std::string& strName, int nValue, const std::string& strChildName) {
  if (m_pOutDoc == nullptr || strName.empty() || strChildName.empty()) return 0;
  m_pOutDoc->AddElem(strName.c_str(), nullptr, 0);
  m_pOutDoc->AddChildElem(strChildName.c_str(), nValue, 0);
  return 1;
}

// ---- the messages

int CXMLCTolvaneSystemSetting::Parse(void* pDoc) {
  ATTACH_OR_FAIL(AttachInDoc, pXml, pDoc);
  pXml->ResetPos();
  if (FindNode("system-settings", 1) == 0) {
    REG_LOG(E_LOG_ERROR, "system-settings node not exist");
    return -1;
  }
  pXml->IntoElem();
  GetNodeStr(m_strCfgPath, "work-dir", 1, 1);
  REG_LOG(E_LOG_INFO, "m_strCfgPath is %s\n", m_strCfgPath.c_str());
  return 0;
}

int CXMLCRegisterConfig::Parse(void* pDoc) {
  ATTACH_OR_FAIL(AttachInDoc, pXml, pDoc);
  pXml->ResetPos();
  if (FindNode("root", 1) != 0) pXml->IntoElem();
  return 1;
}

int CXMLCRegisterConfig::Result(void* /*pDoc*/) { return 0; }

int CXMLCRegMsg::Parse(void* pDoc) {
  ATTACH_OR_FAIL(AttachInDoc, pXml, pDoc);
  pXml->ResetPos();
  if (FindNode("reg", 1) == 0) {
    REG_LOG(E_LOG_ERROR, "register xml parse error\n");
    return -1;
  }
  pXml->IntoElem();

  // With an id the document names a registration that exists; nothing else in it counts.
  int nId = 0;
  GetNodeInt(&nId, "id", 1, 1);
  if (nId > 0) {
    m_nId = nId;
    return 0;
  }

  GetNodeStr(m_strAor, "aor", 1, 1);
  if (m_strAor.empty()) {
    REG_LOG(E_LOG_WARNING, " Register XML node aor is null!\n");
    return -1;
  }
  GetNodeStr(m_strRegistrar, "registrar", 1, 1);
  if (m_strRegistrar.empty()) {
    REG_LOG(E_LOG_WARNING, "Register XML node registrar is null!\n");
    return -1;
  }
  // These three are "true" to the letter, not by TextToBool.
  const auto bSwitch = [this](const char* szName) {
    std::string strText;
    GetNodeStr(strText, szName, 1, 1);
    return strText == "true" ? 1 : 0;
  };
  GetNodeInt(&m_nExpires, "expires", 1, 1);
  GetNodeStr(m_strDisplayName, "displayname", 1, 1);
  m_bAutoRefresh = bSwitch("auto-refresh");
  m_bSubscribe = bSwitch("subscribe");
  m_bAutoReregister = bSwitch("auto-reregister");
  GetNodeInt(&m_nReregisterInterval, "reregister-interval", 1, 1);
  GetNodeStr(m_strContactParam, "contact-param", 1, 1);
  GetNodeStr(m_strUserAgent, "user-agent", 1, 1);
  GetNodeStr(m_strRequire, "require", 1, 1);
  return 0;
}

int CXMLCRegMsg::Result(void* pDoc) {
  ATTACH_OR_FAIL(AttachOutDoc, pXml, pDoc);
  pXml->AddElem("reg", nullptr, 0);
  if (m_nResult == -1) {
    pXml->AddChildElem("ret", "-1", 0);
  } else {
    pXml->AddChildElem("ret", "0", 0);
    pXml->AddChildElem("id", m_nId, 0);
  }
  pXml->ResetPos();
  return 0;
}

int CXMLCDeReg::Parse(void* pDoc) {
  ATTACH_OR_FAIL(AttachInDoc, pXml, pDoc);
  pXml->ResetPos();
  if (FindNode("reg", 1) == 0) return -1;
  pXml->IntoElem();
  GetNodeInt(&m_nId, "id", 1, 1);
  m_bNoSend = 0;
  GetNodeBool(&m_bNoSend, "nosend", 1, 1);
  m_bDesubscribe = 1;
  GetNodeBool(&m_bDesubscribe, "desubscribe", 1, 1);
  return m_nId != -1 ? 0 : -1;
}

int CXMLCDeReg::Result(void* pDoc) {
  ATTACH_OR_FAIL(AttachOutDoc, pXml, pDoc);
  pXml->AddElem("reg", nullptr, 0);
  pXml->AddChildElem("ret", m_nResult, 0);
  pXml->ResetPos();
  return 0;
}

int CXMLCRegNtfRsp::Result(void* pDoc) {
  ATTACH_OR_FAIL(AttachOutDoc, pXml, pDoc);
  pXml->AddElem("reg", nullptr, 0);
  pXml->AddChildElem("id", m_nId, 0);
  pXml->AddChildElem("result", m_nResult, 0);
  if (m_nResult == 0) {
    pXml->AddChildElem("uri", m_strUri.c_str(), 0);
  } else if (m_nResult == -1) {
    pXml->AddChildElem("errorcode", m_nErrorCode, 0);
    pXml->AddChildElem("warncode", m_nWarnCode, 0);
    pXml->AddChildElem("warntext", m_strWarnText.c_str(), 0);
  }
  if (m_nRetryAfter > 0) pXml->AddChildElem("retry-after", m_nRetryAfter, 0);
  pXml->ResetPos();
  return 0;
}

int CXMLCRegStateNotify::Result(void* pDoc) {
  ATTACH_OR_FAIL(AttachOutDoc, pXml, pDoc);
  pXml->AddElem("reg", nullptr, 0);
  pXml->AddChildElem("id", m_nId, 0);
  pXml->AddChildElem("state", m_strState.c_str(), 0);
  pXml->AddChildElem("event", m_strEvent.c_str(), 0);
  if (m_nRetryAfter > 0) pXml->AddChildElem("retry-after", m_nRetryAfter, 0);
  pXml->ResetPos();
  return 0;
}

int CXMLCRegSerLost::Result(void* pDoc) {
  ATTACH_OR_FAIL(AttachOutDoc, pXml, pDoc);
  pXml->AddElem("reg", nullptr, 0);
  pXml->AddChildElem("id", m_nId, 0);
  pXml->ResetPos();
  return 0;
}

int CXMLCRegLogSwitch::Parse(void* pDoc) {
  ATTACH_OR_FAIL(AttachInDoc, pXml, pDoc);
  pXml->ResetPos();
  if (FindNode("log", 1) == 0) {
    REG_LOG(E_LOG_ERROR, "log node not exist");
    return -1;
  }
  pXml->IntoElem();
  // The element stays the main position, where the attributes are read.
  GetNodeBool(&m_bLogSwitch, "log-switch", 0, 1);
  if (m_bLogSwitch == 0) return 0;

  std::string strDir;
  GetAttrStr(strDir, "path", 1);
  if (!strDir.empty()) {
    if (strDir.back() != '/') strDir += '/';
    m_strPath = strDir + "Tolvane.log";
  }
  const auto nNumber = [this](const char* szName, int nDefault) {
    int nValue = nDefault;
    GetAttrInt(&nValue, szName, 1);
    return nValue;
  };
  // From MiB to KiB; what is too large stays the largest.
  constexpr int nMost = std::numeric_limits<int>::max() >> 10;
  if (const int nSize = nNumber("max-size", 0); nSize > 0)
    m_nMaxSize = std::min(nSize, nMost) << 10;
  if (const int nCount = nNumber("file-count", 0); nCount > 0) m_nFileCount = nCount;
  if (const int nLevel = nNumber("level", -1); nLevel >= 0) m_nLevel = nLevel;
  if (const int nPause = nNumber("pause", -1); nPause == 0 || nPause == 1) m_nPause = nPause;
  return 0;
}

// ---- the factory

CTolvaneSystemSetting* CXmlCRegFactory::CreateSystemSetting() {
  return vktNew<CXMLCTolvaneSystemSetting>();
}
CRegisterConfig* CXmlCRegFactory::CreateRegisterConfig() { return vktNew<CXMLCRegisterConfig>(); }
CRegMsg* CXmlCRegFactory::CreateRegMsg() { return vktNew<CXMLCRegMsg>(); }
CRegNtfRsp* CXmlCRegFactory::CreateRegNtfRsp() { return vktNew<CXMLCRegNtfRsp>(); }
CDeReg* CXmlCRegFactory::CreateDeReg() { return vktNew<CXMLCDeReg>(); }
CRegSerLost* CXmlCRegFactory::CreateRegSerLost() { return vktNew<CXMLCRegSerLost>(); }
CRegStateNotify* CXmlCRegFactory::CreateRegStateNotify() { return vktNew<CXMLCRegStateNotify>(); }
CRegSubNTFMsg* CXmlCRegFactory::CreateRegSubNTFMsg() { return vktNew<CXMLCRegSubNTFMsg>(); }
CRegSubSuccess* CXmlCRegFactory::CreateRegSubSuccess() { return vktNew<CXMLCRegSubSuccess>(); }
CRegSubcribe* CXmlCRegFactory::CreateRegSubcribe() { return vktNew<CXMLCRegSubcribe>(); }
CRegDeSub* CXmlCRegFactory::CreateRegDeSub() { return vktNew<CXMLCRegDeSub>(); }
CRegLogSwitch* CXmlCRegFactory::CreateRegLogSwitch() { return vktNew<CXMLCRegLogSwitch>(); }
