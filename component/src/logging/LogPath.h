// Where the log file lies. Paths have "/" as separator; a backslash in a given path counts as one.
#pragma once

#include <string>

struct LOG_PATH {
  std::string strDir;       // ends in a separator, unless both are empty
  std::string strFileName;  // without directory
};

// The file that a path means, with strModule, the executable's directory without a separator at its
// end. Touches no file. Throws std::bad_alloc.
LOG_PATH ResolveLogPath(const std::string& strPath, const std::string& strModule);

// The place that is taken when the directory of a path cannot be made.
LOG_PATH FallbackLogPath(const std::string& strModule);

// Makes the directory and those above it; false when one of them is missing and cannot be made.
bool CreateLogDir(const std::string& strDir);

// The executable's directory, without a separator at its end: empty for the root.
std::string GetModuleDir();
