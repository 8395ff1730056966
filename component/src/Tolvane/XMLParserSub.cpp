// The documents that go to and come from the subscription service; all have the root "sub".

#include "RegLog.h"
#include "XMLParserImpl.h"

int CXMLCRegSubcribe::Parse(void* pDoc) {
  ATTACH_OR_FAIL(AttachInDoc, pXml, pDoc);
  pXml->ResetPos();
  if (FindNode("sub", 1) != 0) {
    pXml->IntoElem();
    GetNodeInt(&m_nId, "id", 1, 1);
  }
  return 0;
}

int CXMLCRegSubcribe::Result(void* pDoc) {
  ATTACH_OR_FAIL(AttachOutDoc, pXml, pDoc);
  pXml->AddElem("sub", nullptr, 0);
  pXml->AddChildElem("from", m_strFrom.c_str(), 0);
  pXml->AddChildElem("to", m_strTo.c_str(), 0);
  pXml->AddChildElem("event", m_strEvent.c_str(), 0);
  pXml->AddChildElem("expires", m_nExpires, 0);
  pXml->AddChildElem("ifrefresh", m_nExpires == 0 ? "0" : "1", 0);
  pXml->AddChildElem("module", "REGISTER", 0);
  pXml->ResetPos();
  return 0;
}

int CXMLCRegDeSub::Result(void* pDoc) {
  ATTACH_OR_FAIL(AttachOutDoc, pXml, pDoc);
  pXml->AddElem("sub", nullptr, 0);
  pXml->AddChildElem("id", m_nId, 0);
  pXml->ResetPos();
  return 0;
}

int CXMLCRegSubNTFMsg::Parse(void* pDoc) {
  ATTACH_OR_FAIL(AttachInDoc, pXml, pDoc);
  pXml->ResetPos();
  if (FindNode("sub", 1) == 0) return 0;
  pXml->IntoElem();
  GetNodeInt(&m_nId, "id", 1, 1);
  GetNodeStr(m_strEvent, "event", 1, 1);
  GetNodeStr(m_strMsgBody, "msgbody", 1, 1);
  if (m_nId > 0 && !m_strMsgBody.empty() && m_strEvent == "reg") return 0;
  REG_LOG(E_LOG_WARNING, "parse sub xml fail!\n");
  return -1;
}

int CXMLCRegSubSuccess::Parse(void* pDoc) {
  ATTACH_OR_FAIL(AttachInDoc, pXml, pDoc);
  pXml->ResetPos();
  if (FindNode("sub", 1) == 0) return 0;
  pXml->IntoElem();
  GetNodeInt(&m_nId, "id", 1, 1);
  GetNodeStr(m_strFinal, "final", 1, 1);
  return m_nId > 0 && !m_strFinal.empty() ? 0 : -1;
}
