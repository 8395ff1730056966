// From a configuration file to templates.
#pragma once

#include <string>
#include <vector>

#include "Sipcarrier/Sipcarrier.h"

namespace sipcarrier {

// Longer files are refused.
inline constexpr std::size_t kMaxConfBytes = 65536;
// Behind so many faults a last one says that there are more, and reading ends.
inline constexpr std::size_t kMaxConfFaults = 50;

// Reads the templates in the file and all that is wrong with it, in the order of its lines. The
// templates are good for use when there is no fault. No thread, no state; never waits for a writer
// of a pipe. May throw std::bad_alloc.
void ReadConf(const std::string& path, std::vector<ConfMessage>& messages,
              std::vector<ConfFault>& faults);

}  // namespace sipcarrier
