// Where the calling thread stands: the location that its next record of a logger is written at.
//
// Locations are thread-local, so telling and reading one takes no lock. A thread keeps those of the
// last four loggers that it has told; a process has one or two. Plain data without a destructor: one
// that ran at the end of a thread would keep the library from being unloaded.
#pragma once

#include <cstdint>

#include "logging/LogOne.h"

struct LOG_THREAD_RECORD {
  std::uint64_t nLogger = 0;  // the logger's number; 0: the record is free
  int nLine = 0;
  int nLevel = E_LOG_INFO;
  const char* szFunction = nullptr;  // borrowed, as is the file's path
  const char* szFile = nullptr;
};

// The calling thread's record for this logger; null when the thread has told it none.
const LOG_THREAD_RECORD* FindLogRecord(std::uint64_t nLogger) noexcept;

// Keeps this record for the calling thread, in place of its former one for the same logger.
void StoreLogRecord(const LOG_THREAD_RECORD& stRecord) noexcept;
