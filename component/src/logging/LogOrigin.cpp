#include "logging/LogOrigin.h"

#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <ctime>

namespace {

std::atomic<LOG_ORIGIN_SOURCE*> g_pSource{nullptr};

}  // namespace

void SetLogOrigin(LOG_ORIGIN_SOURCE* pSource) noexcept { g_pSource.store(pSource); }

LOG_ORIGIN GetLogOrigin() noexcept {
  LOG_ORIGIN stOrigin{};
  if (LOG_ORIGIN_SOURCE* pSource = g_pSource.load(std::memory_order_acquire)) {
    pSource(stOrigin);
    return stOrigin;
  }
  std::timespec stNow{};
  std::timespec_get(&stNow, TIME_UTC);
  std::tm stLocal{};
  localtime_r(&stNow.tv_sec, &stLocal);
  stOrigin.nYear = stLocal.tm_year + 1900;
  stOrigin.nMonth = stLocal.tm_mon + 1;
  stOrigin.nDay = stLocal.tm_mday;
  stOrigin.nHour = stLocal.tm_hour;
  stOrigin.nMinute = stLocal.tm_min;
  stOrigin.nSecond = stLocal.tm_sec;
  stOrigin.nMilli = static_cast<int>(stNow.tv_nsec / 1000000);
  stOrigin.nProcess = static_cast<std::uint64_t>(getpid());
  stOrigin.nThread = static_cast<std::uint64_t>(gettid());
  return stOrigin;
}

void FormatLogStamp(const LOG_ORIGIN& stOrigin, char (&szStamp)[LOG_STAMP_SIZE]) noexcept {
  std::snprintf(szStamp, sizeof szStamp, "%d-%02d-%02d %02d:%02d:%02d.%03d", stOrigin.nYear,
                stOrigin.nMonth, stOrigin.nDay, stOrigin.nHour, stOrigin.nMinute, stOrigin.nSecond,
                stOrigin.nMilli);
}
