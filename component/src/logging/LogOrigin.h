// Where and when a record is written: local time, process, thread.
#pragma once

#include <cstddef>
#include <cstdint>

#include "logging/LogOne.h"

struct LOG_ORIGIN {
  int nYear;
  int nMonth;
  int nDay;
  int nHour;
  int nMinute;
  int nSecond;
  int nMilli;
  std::uint64_t nProcess;
  std::uint64_t nThread;
};

using LOG_ORIGIN_SOURCE = void(LOG_ORIGIN& stOrigin);

// For tests: records take time and ids from this source; null goes back to the system's.
LOGGING_PUBLIC void SetLogOrigin(LOG_ORIGIN_SOURCE* pSource) noexcept;

LOG_ORIGIN GetLogOrigin() noexcept;

// The time stamp of an origin, as in "2024-01-31 09:05:07.008".
constexpr std::size_t LOG_STAMP_SIZE = 88;  // seven numbers, however large
void FormatLogStamp(const LOG_ORIGIN& stOrigin, char (&szStamp)[LOG_STAMP_SIZE]) noexcept;
