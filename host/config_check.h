// The templates of a working directory, read as the component will read them.
//
// The command that has the component read them returns the same result whatever was read. So
// `tolvane register` and `tolvane check-config` read the file themselves first, with the class that
// the component uses. `register` starts only without faults. On SIGHUP the command goes out in any
// case: the component then keeps its former templates, and its log has the faults.
#pragma once

#include <string>
#include <vector>

#include "Sipcarrier/Sipcarrier.h"

namespace host {

struct ConfigReading {
  std::string file;
  std::vector<std::string> faults;  // "FILE:LINE: reason"; empty: the templates are good
  std::vector<sipcarrier::ConfMessage> messages;
};

[[nodiscard]] ConfigReading ReadConfiguration(const std::string& directory);

// On the standard error, one a line.
void PrintFaults(const ConfigReading& reading);

// `tolvane check-config`: 0, or 1 when there are faults.
[[nodiscard]] int RunCheckConfig(const std::string& directory);

}  // namespace host
