// Lines on the standard output; a reader that does not read cannot stop the program.
#pragma once

#include <string>
#include <string_view>

namespace host {

// Main thread only. When the reader has gone, the standard error says so once, and further lines
// are dropped. When the reader does not read, Write waits half a second once, and then lines are
// dropped until there is room again: refreshing the binding matters more than a complete output.
class Output {
 public:
  explicit Output(int fd = 1) : fd_(fd) {}
  // One or more whole lines, with their line ends.
  void Write(std::string_view lines);

 private:
  int fd_;
  bool closed_ = false;
  bool stalled_ = false;
  bool torn_ = false;  // only a part of the last line was written
};

}  // namespace host
