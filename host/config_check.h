// The templates of a working directory as the component will read them, for a person to see.
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

// The component tells nobody why it keeps its former templates, so the host looks first.
[[nodiscard]] ConfigReading ReadConfiguration(const std::string& directory);

// On the standard error, one a line.
void PrintFaults(const ConfigReading& reading);

// `tolvane check-config`: 0, or 1 when there are faults.
[[nodiscard]] int RunCheckConfig(const std::string& directory);

}  // namespace host
