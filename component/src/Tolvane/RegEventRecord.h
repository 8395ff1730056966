// The event record of one event, with its texts, for the scope in which the event is handled.
#pragma once

#include "Register.h"
#include "RegisterSipProcess.h"

class [[nodiscard]] CRegisterSipProcess::CRegEventRecord {
 public:
  explicit CRegEventRecord(int eRegEventType) { m_stRegEvent.eRegEventType = eRegEventType; }
  ~CRegEventRecord() { FreeRegEvent(&m_stRegEvent); }
  CRegEventRecord(const CRegEventRecord&) = delete;
  CRegEventRecord& operator=(const CRegEventRecord&) = delete;
  ST_REG_EVENT* Get() { return &m_stRegEvent; }

 private:
  ST_REG_EVENT m_stRegEvent{};
};
