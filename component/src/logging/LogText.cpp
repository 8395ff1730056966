#include "logging/LogText.h"

#include <cstdint>
#include <cstring>

namespace {

std::size_t EncodeUtf8(std::uint32_t nCode, unsigned char (&aBytes)[4]) noexcept {
  if (nCode > 0x10FFFF || (nCode >= 0xD800 && nCode <= 0xDFFF)) nCode = 0xFFFD;
  if (nCode < 0x80) {
    aBytes[0] = static_cast<unsigned char>(nCode);
    return 1;
  }
  // The first byte carries the length in its top bits, each later one six bits of the code.
  const std::size_t nLength = nCode < 0x800 ? 2 : nCode < 0x10000 ? 3 : 4;
  for (std::size_t n = nLength - 1; n > 0; --n) {
    aBytes[n] = static_cast<unsigned char>(0x80 | (nCode & 0x3F));
    nCode >>= 6;
  }
  aBytes[0] = static_cast<unsigned char>((0xF00 >> nLength & 0xFF) | nCode);
  return nLength;
}

}  // namespace

std::size_t WideToUtf8(const wchar_t* wszText, char* szOut, std::size_t nSize) noexcept {
  std::size_t nUsed = 0;
  for (; *wszText != L'\0'; ++wszText) {
    unsigned char aBytes[4];
    const std::size_t nLength = EncodeUtf8(static_cast<std::uint32_t>(*wszText), aBytes);
    if (nUsed + nLength >= nSize) break;
    std::memcpy(szOut + nUsed, aBytes, nLength);
    nUsed += nLength;
  }
  szOut[nUsed] = '\0';
  return nUsed;
}

const char* LastPathComponent(const char* szPath) noexcept {
  const char* szLast = szPath;
  for (const char* p = szPath; *p != '\0'; ++p) {
    if (*p == '/' || *p == '\\') szLast = p + 1;
  }
  return szLast;
}
