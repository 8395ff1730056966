#include "utf8.h"
#include "Vorelkit.h"

static_assert(sizeof(wchar_t) == sizeof(char32_t),
              "a wide character holds a whole code point here");

std::wstring VkStrBuilder::Utf8ToUnicodeW(std::string_view strUtf8) {
  std::wstring strWide;
  strWide.reserve(strUtf8.size());
  while (!strUtf8.empty()) {
    const utf8::Step step = utf8::Next(strUtf8);
    strWide.push_back(static_cast<wchar_t>(step.code));
    strUtf8.remove_prefix(step.length);
  }
  return strWide;
}
