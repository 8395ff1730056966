// The C text calls.
#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>

#include "VorelKDCore.h"

extern "C" {

KDint kdStrtol(const KDchar* nptr, KDchar** endptr, KDint base) {
  constexpr long kMin = std::numeric_limits<KDint>::min();
  constexpr long kMax = std::numeric_limits<KDint>::max();
  const int saved = errno;
  errno = 0;
  const long value = std::strtol(nptr, endptr, base);
  if (errno == EINVAL) {
    kdSetError(KD_EINVAL);
  } else if (errno == ERANGE || value < kMin || value > kMax) {
    kdSetError(KD_ERANGE);
  }
  errno = saved;
  return static_cast<KDint>(std::clamp(value, kMin, kMax));
}

KDint kdStrcmp(const KDchar* s1, const KDchar* s2) { return std::strcmp(s1, s2); }

KDint kdStrcpy_s(KDchar* buf, KDsize buflen, const KDchar* src) {
  if (buf == nullptr || src == nullptr) {
    kdSetError(KD_EINVAL);
    return -1;
  }
  const KDsize length = std::strlen(src);
  if (length >= buflen) {
    if (buflen != 0) *buf = '\0';
    kdSetError(KD_ERANGE);
    return -1;
  }
  std::memmove(buf, src, length + 1);
  return 0;
}

KDsize kdStrlen(const KDchar* s) { return std::strlen(s); }

KDint kdSprintfKHR(KDchar* buf, const KDchar* format, ...) {
  va_list args;
  va_start(args, format);
  // The analyzer forgets va_start when it looks at several files in one run.
  // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized)
  const int written = std::vsprintf(buf, format, args);
  va_end(args);
  return written;
}

void* kdMemset(void* buf, KDint byte, KDsize len) { return std::memset(buf, byte, len); }

void* kdMemcpy(void* buf, const void* src, KDsize len) { return std::memcpy(buf, src, len); }

}  // extern "C"
