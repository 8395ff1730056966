// Orders to a registrar as lines of text, for the program.
#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <string_view>

#include "registrar/registrar.h"

namespace registrar {

// Does what the line says and gives its result as lines; the last one begins with "done" or
// "error". An empty line, or a comment behind '#', gives nothing.
[[nodiscard]] std::string RunOrder(Registrar& registrar, std::string_view line);

// The text with '?' for control characters: a peer must not control the terminal.
[[nodiscard]] std::string Printable(std::string text);

// Cuts bytes into lines and gives each to `take`; for one that is too long it calls `refuse`.
class LineReader {
 public:
  static constexpr std::size_t kMaxLine = 16384;

  LineReader(std::function<void(std::string_view)> take, std::function<void()> refuse);
  void Feed(std::string_view bytes);
  void End();  // what came behind the last line end is a line, too

 private:
  void Line();

  const std::function<void(std::string_view)> take_;
  const std::function<void()> refuse_;
  std::string line_;
  bool too_long_ = false;
};

}  // namespace registrar
