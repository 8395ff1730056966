// The message records: plain fields that know nothing of the documents' format, and the abstract
// factory that makes them. A handler asks the factory for a record, calls Parse on the incoming
// document or fills the fields and calls Result on the outgoing one, and deletes the record.
//
// A document handle is an untyped pointer that holds a pointer to the format's document object
// (CXML). Unless told otherwise Parse and Result give 0 for success and -1 for failure.
#pragma once

#include <cstdint>
#include <string>

// The system settings command.
class CTolvaneSystemSetting {
 public:
  virtual ~CTolvaneSystemSetting() = default;
  virtual int Parse(void* pDoc) = 0;

  std::string m_strCfgPath;  // directory of the configuration
};

// A document that nothing is taken from.
class CRegisterConfig {
 public:
  virtual ~CRegisterConfig() = default;
  virtual int Parse(void* pDoc) { return pDoc != nullptr ? 0 : -1; }
  virtual int Result(void* /*pDoc*/) { return 0; }
};

// The parameters of one registration: the register command, and what each CRegister keeps of it.
class CRegMsg {
 public:
  virtual ~CRegMsg() = default;
  virtual int Parse(void* pDoc) = 0;
  virtual int Result(void* pDoc) = 0;

  std::string m_strAor;
  std::string m_strRegistrar;
  int m_nExpires = 0;  // seconds
  std::string m_strDisplayName;
  int m_bAutoRefresh = 0;
  int m_bSubscribe = 0;
  int m_bAutoReregister = 0;
  int m_nReregisterInterval = 0;  // seconds
  std::string m_strContactParam;
  std::string m_strUserAgent;
  std::string m_strRequire;
  int m_nResult = 0;
  int m_nId = -1;  // registration id
};

// The outcome of a registration or deregistration, for the client.
class CRegNtfRsp {
 public:
  virtual ~CRegNtfRsp() = default;
  virtual int Result(void* pDoc) = 0;

  int m_nId = -1;
  int m_nResult = 0;
  int m_nErrorCode = 0;  // SIP status; 0 when no answer came
  int m_nWarnCode = 0;
  std::string m_strUri;
  std::string m_strWarnText;
  int m_nRetryAfter = 0;  // seconds
};

// The deregister command.
class CDeReg {
 public:
  virtual ~CDeReg() = default;
  virtual int Parse(void* pDoc) = 0;
  virtual int Result(void* pDoc) = 0;

  int m_nId = -1;
  int m_bNoSend = 0;
  int m_bDesubscribe = 1;
  int m_nResult = 0;
};

// The service was lost: status 533 was answered with a new REGISTER.
class CRegSerLost {
 public:
  virtual ~CRegSerLost() = default;
  virtual int Result(void* pDoc) = 0;

  int m_nId = -1;
};

// A change of a registration's state, for the client.
class CRegStateNotify {
 public:
  virtual ~CRegStateNotify() = default;
  virtual int Result(void* pDoc) = 0;

  int m_nId = -1;
  std::string m_strState;
  std::string m_strEvent;
  int m_nRetryAfter = 0;  // seconds
};

// A NOTIFY that the subscription service hands on.
class CRegSubNTFMsg {
 public:
  virtual ~CRegSubNTFMsg() = default;
  virtual int Parse(void* pDoc) = 0;

  int m_nId = -1;  // subscription id
  std::string m_strEvent;
  std::string m_strMsgBody;  // a reginfo document
};

// The subscription service's word on a subscription's life.
class CRegSubSuccess {
 public:
  virtual ~CRegSubSuccess() = default;
  virtual int Parse(void* pDoc) = 0;

  int m_nId = -1;
  std::string m_strFinal;  // "SUB_STOP": it has ended
};

// The subscribe command to that service and, through Parse, its answer.
class CRegSubcribe {
 public:
  virtual ~CRegSubcribe() = default;
  virtual int Parse(void* pDoc) = 0;
  virtual int Result(void* pDoc) = 0;

  std::string m_strFrom;
  std::string m_strTo;
  std::string m_strEvent;
  int m_nExpires = -1;  // seconds
  int m_nId = -1;       // subscription id; above 0 when the service took it
};

// The desubscribe command.
class CRegDeSub {
 public:
  virtual ~CRegDeSub() = default;
  virtual int Result(void* pDoc) = 0;

  int m_nId = -1;
};

// The log switch command. Level and pause are -1 when the document does not give them.
class CRegLogSwitch {
 public:
  virtual ~CRegLogSwitch() = default;
  virtual int Parse(void* pDoc) = 0;

  int m_bLogSwitch = 0;
  std::string m_strPath = "/log/Tolvane.log";
  int m_nMaxSize = 5120;  // KiB
  int m_nFileCount = 2;
  int m_nLevel = -1;
  int m_nPause = -1;  // 1 pauses, 0 resumes
};

// Makes records; has no state, any thread may call it. Every operation gives a new object that the
// caller owns, or null when memory is exhausted.
class CRegParserFactory {
 public:
  virtual ~CRegParserFactory() = default;
  virtual CTolvaneSystemSetting* CreateSystemSetting() = 0;
  virtual CRegisterConfig* CreateRegisterConfig() = 0;
  virtual CRegMsg* CreateRegMsg() = 0;
  virtual CRegNtfRsp* CreateRegNtfRsp() = 0;
  virtual CDeReg* CreateDeReg() = 0;
  virtual CRegSerLost* CreateRegSerLost() = 0;
  virtual CRegStateNotify* CreateRegStateNotify() = 0;
  virtual CRegSubNTFMsg* CreateRegSubNTFMsg() = 0;
  virtual CRegSubSuccess* CreateRegSubSuccess() = 0;
  virtual CRegSubcribe* CreateRegSubcribe() = 0;
  virtual CRegDeSub* CreateRegDeSub() = 0;
  virtual CRegLogSwitch* CreateRegLogSwitch() = 0;
};

inline constexpr std::uint16_t E_PARSER_XML = 0;

class CRegParserFactoryObj {
 public:
  // A new factory for this kind of document, owned by the caller; null for an unknown kind or
  // without memory.
  static CRegParserFactory* GetParserFactory(std::uint16_t nKind);
};
