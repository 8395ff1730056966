#include "logging/LogThreads.h"

#include <algorithm>
#include <cstddef>
#include <iterator>

namespace {

constexpr std::size_t kRecords = 4;

// Initial-exec: the usual model for a library allocates at a thread's first use, and ends the
// process when it cannot.
__attribute__((
    tls_model("initial-exec"))) constinit thread_local LOG_THREAD_RECORD t_astRecord[kRecords];
__attribute__((tls_model("initial-exec"))) constinit thread_local std::size_t t_nOldest = 0;

LOG_THREAD_RECORD* Find(std::uint64_t nLogger) noexcept {
  LOG_THREAD_RECORD* const pFound =
      std::find_if(std::begin(t_astRecord), std::end(t_astRecord),
                   [=](const LOG_THREAD_RECORD& stRecord) { return stRecord.nLogger == nLogger; });
  return pFound != std::end(t_astRecord) ? pFound : nullptr;
}

}  // namespace

const LOG_THREAD_RECORD* FindLogRecord(std::uint64_t nLogger) noexcept { return Find(nLogger); }

void StoreLogRecord(const LOG_THREAD_RECORD& stRecord) noexcept {
  LOG_THREAD_RECORD* pRecord = Find(stRecord.nLogger);
  if (pRecord == nullptr) {
    pRecord = &t_astRecord[t_nOldest];
    t_nOldest = (t_nOldest + 1) % kRecords;
  }
  *pRecord = stRecord;
}
