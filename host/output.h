// Lines on the standard output that never hold the program up.
#pragma once

#include <string>
#include <string_view>

namespace host {

// Main thread only. A reader who went away is told of once on the standard error; from then on
// lines are dropped. A reader who does not read costs half a second once; from then on lines are
// dropped until there is room again: refreshing the binding is worth more than a complete output.
class Output {
 public:
  explicit Output(int fd = 1) : fd_(fd) {}
  // One or more whole lines, with their line ends.
  void Write(std::string_view lines);

 private:
  int fd_;
  bool closed_ = false;
  bool stalled_ = false;
  bool torn_ = false;  // the last line did not get out whole
};

}  // namespace host
