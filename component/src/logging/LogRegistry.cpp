// The loggers of the process, by the path they were opened with.
#include <cstring>
#include <cwchar>
#include <memory>
#include <new>
#include <string>

#include "logging/CLogOne.h"
#include "logging/LogText.h"

namespace {

// Loggers are never taken out: whoever read a pointer may go on using it until the library is
// unloaded, when the static object below ends them all.
class CLogOneRegistry {
 public:
  constexpr CLogOneRegistry() noexcept = default;
  ~CLogOneRegistry() {
    while (m_pHead != nullptr) m_pHead = std::move(m_pHead->pNext);
  }
  CLogOneRegistry(const CLogOneRegistry&) = delete;
  CLogOneRegistry& operator=(const CLogOneRegistry&) = delete;

  // The id of the logger of this path; pLog joins the registry if the path has none, and ends
  // otherwise.
  int Add(const wchar_t* wszPath, std::unique_ptr<ILogOne> pLog) {
    std::unique_ptr<ENTRY>* ppEnd = &m_pHead;
    for (; *ppEnd != nullptr; ppEnd = &(*ppEnd)->pNext) {
      if (std::wcscmp((*ppEnd)->wstrPath.c_str(), wszPath) == 0) return (*ppEnd)->nId;
    }
    auto pEntry = std::make_unique<ENTRY>();
    pEntry->wstrPath = wszPath;
    pEntry->pLog = std::move(pLog);
    pEntry->nId = ++m_nLastId;
    *ppEnd = std::move(pEntry);
    return m_nLastId;
  }

  [[nodiscard]] ILogOne* Find(int nId) const noexcept {
    const ENTRY* pEntry = m_pHead.get();
    while (pEntry != nullptr && pEntry->nId != nId) pEntry = pEntry->pNext.get();
    return pEntry != nullptr ? pEntry->pLog.get() : nullptr;
  }

 private:
  struct ENTRY {
    int nId = 0;  // from 1
    std::unique_ptr<ENTRY> pNext;
    std::unique_ptr<ILogOne> pLog;
    std::wstring wstrPath;
  };
  int m_nLastId = 0;
  std::unique_ptr<ENTRY> m_pHead;
};

constinit CLogOneRegistry g_oRegistry TOLVANE_GUARDED_BY(g_csLogOne);

std::string NarrowPath(const wchar_t* wszPath) {
  std::string strPath(std::wcslen(wszPath) * 4 + 1, '\0');
  strPath.resize(WideToUtf8(wszPath, strPath.data(), strPath.size()));
  return strPath;
}

}  // namespace

ILogOne* LogOne_Open(const wchar_t* wszPath) noexcept {
  if (wszPath == nullptr) return nullptr;
  try {
    auto pNew = std::make_unique<CLogOne>(NarrowPath(wszPath));
    const CLogOneLocker oLocker;
    ILogOne* pLog = g_oRegistry.Find(g_oRegistry.Add(wszPath, std::move(pNew)));
    pLog->Resume();
    return pLog;
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

void LogOne_Close(ILogOne** ppLog) noexcept {
  const CLogOneLocker oLocker;
  if (ppLog != nullptr && *ppLog != nullptr) (*ppLog)->Pause();
}
