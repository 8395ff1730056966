// Table-driven dispatch: the bases of the objects that take commands and notifications from the bus
// (CUSObject) and events from the SIP stack (CPSObject).
//
// A class publishes a constant map record, which chains to that of its base class. A table ends at
// the first row with a null handler. Tables never change after load and are read without a lock.
#pragma once

#include "Brunelib/Brunelib.h"
#include "Sipcarrier/Sipcarrier.h"

class CUSObject;
class CPSObject;

using US_CMD_HANDLER = int (CUSObject::*)(CXML* pIn, CXML* pOut);
using US_NTF_HANDLER = int (CUSObject::*)(const char* szSource, CXML* pDoc, void* pExtra);
using PS_EVENT_HANDLER = int (CPSObject::*)(SipStackEvent* pEvent);

struct US_CMD_ENTRY {
  int nCmdId;
  US_CMD_HANDLER pHandler;
};

struct US_NTF_ENTRY {
  char szSource[40];
  int nNtfId;
  US_NTF_HANDLER pHandler;
};

struct PS_EVENT_ENTRY {
  int nEventId;
  PS_EVENT_HANDLER pHandler;
};

struct US_MSG_MAP {
  const US_MSG_MAP* pBase;
  const US_CMD_ENTRY* pCommands;
  const US_NTF_ENTRY* pNotifies;
};

struct PS_EVENT_MAP {
  const PS_EVENT_MAP* pBase;
  const PS_EVENT_ENTRY* pEvents;
};

class CUSObject {
 public:
  virtual ~CUSObject() = default;
  // Subscribes, or unsubscribes, the callback for every notification row of the chain. Always 0.
  virtual int RegisterNotifies(XSNotifyCallback* pCallback);
  virtual int UnregisterNotifies(XSNotifyCallback* pCallback);
  // The result of the first matching row's handler, derived rows before base rows; -1 without a
  // match.
  virtual int OnCommand(int nCmdId, CXML* pIn, CXML* pOut);
  virtual int OnNotify(const char* szSource, int nNtfId, CXML* pDoc, void* pExtra);
  virtual const US_MSG_MAP* GetMsgMap() const;

 protected:
  static const US_MSG_MAP s_stMsgMap;
};

class CPSObject {
 public:
  virtual ~CPSObject() = default;
  virtual int OnEvent(int nEventId, SipStackEvent* pEvent);
  virtual const PS_EVENT_MAP* GetEventMap() const;

 protected:
  static const PS_EVENT_MAP s_stEventMap;
};
