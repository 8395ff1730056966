// Where each thread stands: the location that its next record is written at.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <unordered_map>

#include "logging/LogOne.h"

struct LOG_THREAD_RECORD {
  std::uint64_t nThread = 0;  // number of the thread, given out once and never again
  int nLine = 0;
  int nLevel = E_LOG_INFO;
  const char* szFunction = nullptr;  // borrowed, as is the file's path
  const char* szFile = nullptr;
};

// The records of one logger; guarded by g_csLogOne. A record is made at a thread's first use and
// stays until the logger ends or the thread has ended; those of ended threads are swept out when
// the number of records has doubled, so that what is kept stays in proportion to the living
// threads.
//
// No destructor runs at the end of a thread: it would keep the library from being unloaded.
class CLogThreads {
 public:
  // The calling thread's record; null when memory runs out.
  LOG_THREAD_RECORD* Find() noexcept;
  // That of the thread with this id of the system and this number of ours.
  LOG_THREAD_RECORD* Find(pid_t nId, std::uint64_t nThread) noexcept;
  [[nodiscard]] std::size_t Count() const noexcept { return m_mapRecord.size(); }

  static constexpr std::size_t MIN_SWEEP = 64;

 private:
  void Sweep() noexcept;

  std::unordered_map<pid_t, LOG_THREAD_RECORD> m_mapRecord;
  std::size_t m_nSweepAt = MIN_SWEEP;
};
