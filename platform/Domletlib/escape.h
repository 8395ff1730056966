// How names and values become markup.
#pragma once

#include <string>
#include <string_view>

namespace domlet {

// A value, as the two sides see it.
struct Escaped {
  std::string markup;  // what is written
  std::string text;    // what a reader of it gets
};

// & < > " become entities; a carriage return becomes a character reference, since a reader would
// take it for a line feed otherwise. What no XML document can hold, control characters, U+FFFE,
// U+FFFF and bytes that are not UTF-8, becomes U+FFFD, for each character or byte one.
[[nodiscard]] Escaped Escape(std::string_view value);

// Element names that we write: letters, digits, "_", "-", "." and ":" of ASCII, beginning with a
// letter or "_". XML allows more, nobody here needs it.
[[nodiscard]] bool IsName(std::string_view name) noexcept;

}  // namespace domlet
