// The records' XML twins. A twin is handled through its record everywhere; it reaches the documents
// through its second base, CXMLObj. Memory that runs out inside an operation leaves it as
// std::bad_alloc and is dealt with at the component's boundary.
#pragma once

#include <string>

#include "Domletlib/Domletlib.h"
#include "ParserBaseImpl.h"
#include "RegLog.h"

// How every Parse and Result begins; a macro, so that the log names the operation itself.
#define ATTACH_OR_FAIL(Attach, pXml, pDoc)       \
  CXML* pXml = nullptr;                          \
  if (Attach(pDoc, &(pXml)) == 0) {              \
    REG_LOG(E_LOG_ERROR, "input param is null"); \
    return -1;                                   \
  }                                              \
  static_assert(true)

// 1 for "true" in any case and for "1"; 0 for "false"; otherwise the default.
int TextToBool(const std::string& strText, int nDefault);
// 'a' to 'z' become 'A' to 'Z', all other bytes stay.
std::string ToUpperText(const std::string& strText);

// Access to the two documents of a message. Results are truth values. bMandatory: empty text counts
// as a failed read; bReset: the search starts at the level's first element.
class CParserObj {
 public:
  virtual ~CParserObj() = default;
  virtual int SetInDoc(void* pDoc) = 0;
  virtual int SetOutDoc(void* pDoc) = 0;
  virtual int FindNode(const std::string& strName, int bReset) = 0;
  virtual int GetNodeInt(int* pnValue, const std::string& strName, int bMandatory, int bReset) = 0;
  virtual int GetNodeStr(std::string& strValue, const std::string& strName, int bMandatory,
                         int bReset) = 0;
  virtual int GetNodeBool(int* pbValue, const std::string& strName, int bMandatory, int bReset) = 0;
  virtual int GetAttrInt(int* pnValue, const std::string& strName, int bMandatory) = 0;
  virtual int GetAttrStr(std::string& strValue, const std::string& strName, int bMandatory) = 0;
  virtual int GetAttrBool(int* pbValue, const std::string& strName, int bMandatory) = 0;
  virtual int AddNodeChild(const std::string& strName, int nValue,
                           const std::string& strChildName) = 0;
};

// Borrows its documents; never frees them.
class CXMLObj : public CParserObj {
 public:
  int SetInDoc(void* pDoc) override;
  int SetOutDoc(void* pDoc) override;
  int FindNode(const std::string& strName, int bReset) override;
  int GetNodeInt(int* pnValue, const std::string& strName, int bMandatory, int bReset) override;
  int GetNodeStr(std::string& strValue, const std::string& strName, int bMandatory,
                 int bReset) override;
  int GetNodeBool(int* pbValue, const std::string& strName, int bMandatory, int bReset) override;
  int GetAttrInt(int* pnValue, const std::string& strName, int bMandatory) override;
  int GetAttrStr(std::string& strValue, const std::string& strName, int bMandatory) override;
  int GetAttrBool(int* pbValue, const std::string& strName, int bMandatory) override;
  int AddNodeChild(const std::string& strName, int nValue,
                   const std::string& strChildName) override;
  virtual int AttachInDoc(void* pDoc, CXML** ppXml);
  virtual int AttachOutDoc(void* pDoc, CXML** ppXml);

 private:
  // The element's or attribute's text; false when it is absent, or empty although bMandatory.
  bool NodeText(std::string& strText, const std::string& strName, int bMandatory, int bReset);
  bool AttrText(std::string& strText, const std::string& strName, int bMandatory);

  CXML* m_pInDoc = nullptr;
  CXML* m_pOutDoc = nullptr;
};

class CXMLCTolvaneSystemSetting : public CTolvaneSystemSetting, public CXMLObj {
 public:
  int Parse(void* pDoc) override;
};

class CXMLCRegisterConfig : public CRegisterConfig, public CXMLObj {
 public:
  int Parse(void* pDoc) override;  // 1 for success
  int Result(void* pDoc) override;
};

class CXMLCRegMsg : public CRegMsg, public CXMLObj {
 public:
  int Parse(void* pDoc) override;
  int Result(void* pDoc) override;
};

class CXMLCRegNtfRsp : public CRegNtfRsp, public CXMLObj {
 public:
  int Result(void* pDoc) override;
};

class CXMLCDeReg : public CDeReg, public CXMLObj {
 public:
  int Parse(void* pDoc) override;
  int Result(void* pDoc) override;
};

class CXMLCRegSerLost : public CRegSerLost, public CXMLObj {
 public:
  int Result(void* pDoc) override;
};

class CXMLCRegStateNotify : public CRegStateNotify, public CXMLObj {
 public:
  int Result(void* pDoc) override;
};

class CXMLCRegSubNTFMsg : public CRegSubNTFMsg, public CXMLObj {
 public:
  int Parse(void* pDoc) override;
};

class CXMLCRegSubSuccess : public CRegSubSuccess, public CXMLObj {
 public:
  int Parse(void* pDoc) override;
};

class CXMLCRegSubcribe : public CRegSubcribe, public CXMLObj {
 public:
  int Parse(void* pDoc) override;
  int Result(void* pDoc) override;
};

class CXMLCRegDeSub : public CRegDeSub, public CXMLObj {
 public:
  int Result(void* pDoc) override;
};

class CXMLCRegLogSwitch : public CRegLogSwitch, public CXMLObj {
 public:
  int Parse(void* pDoc) override;
};

class CXmlCRegFactory : public CRegParserFactory {
 public:
  CTolvaneSystemSetting* CreateSystemSetting() override;
  CRegisterConfig* CreateRegisterConfig() override;
  CRegMsg* CreateRegMsg() override;
  CRegNtfRsp* CreateRegNtfRsp() override;
  CDeReg* CreateDeReg() override;
  CRegSerLost* CreateRegSerLost() override;
  CRegStateNotify* CreateRegStateNotify() override;
  CRegSubNTFMsg* CreateRegSubNTFMsg() override;
  CRegSubSuccess* CreateRegSubSuccess() override;
  CRegSubcribe* CreateRegSubcribe() override;
  CRegDeSub* CreateRegDeSub() override;
  CRegLogSwitch* CreateRegLogSwitch() override;
};
