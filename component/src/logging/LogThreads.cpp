#include "logging/LogThreads.h"

#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <new>

namespace {

// The system gives the id of an ended thread to a new one, which must not find itself at the
// other's location. Initial-exec: the usual model for a library allocates at a thread's first use,
// and ends the process when it cannot.
__attribute__((tls_model("initial-exec"))) thread_local std::uint64_t t_nThread = 0;
std::atomic<std::uint64_t> g_nLastThread{0};

}  // namespace

LOG_THREAD_RECORD* CLogThreads::Find() noexcept {
  if (t_nThread == 0) t_nThread = ++g_nLastThread;
  return Find(gettid(), t_nThread);
}

LOG_THREAD_RECORD* CLogThreads::Find(pid_t nId, std::uint64_t nThread) noexcept {
  auto itRecord = m_mapRecord.find(nId);
  if (itRecord == m_mapRecord.end()) {
    if (m_mapRecord.size() >= m_nSweepAt) Sweep();
    try {
      itRecord = m_mapRecord.try_emplace(nId).first;
    } catch (const std::bad_alloc&) {
      return nullptr;
    }
  }
  LOG_THREAD_RECORD& stRecord = itRecord->second;
  if (stRecord.nThread != nThread) {
    stRecord = LOG_THREAD_RECORD{};
    stRecord.nThread = nThread;
  }
  return &stRecord;
}

void CLogThreads::Sweep() noexcept {
  const pid_t nProcess = getpid();
  std::erase_if(m_mapRecord, [nProcess](const auto& oEntry) {
    return tgkill(nProcess, oEntry.first, 0) == -1 && errno == ESRCH;
  });
  m_nSweepAt = std::max(MIN_SWEEP, m_mapRecord.size() * 2);
}
