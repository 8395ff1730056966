// Text as the log needs it.
#pragma once

#include <cstddef>

// Writes a wide text as UTF-8, at most nSize bytes with the terminator, cut between characters;
// what is no character becomes U+FFFD. Gives the bytes written, without the terminator.
std::size_t WideToUtf8(const wchar_t* wszText, char* szOut, std::size_t nSize) noexcept;

// What stands behind the last separator of either kind; the whole text when there is none.
const char* LastPathComponent(const char* szPath) noexcept;
