#include "logging/LogPath.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <string_view>

namespace {

// A relative directory part below the module's directory.
std::string JoinDir(std::string_view strPart, const std::string& strModule) {
  std::string strResult = strModule;
  while (!strPart.empty()) {
    const std::size_t nEnd = std::min(strPart.find('/'), strPart.size());
    const std::string_view strPiece = strPart.substr(0, nEnd);
    strPart.remove_prefix(std::min(nEnd + 1, strPart.size()));
    if (strPiece.empty() || strPiece == ".") continue;
    if (strPiece != "..") {
      strResult.append("/").append(strPiece);
    } else if (strResult.empty()) {
      return strModule + "/Log/";  // nothing lies above the root
    } else {
      strResult.resize(strResult.rfind('/'));
    }
  }
  return strResult + "/";
}

bool IsMissing(const std::string& strPath) {
  // ENOTDIR: a file stands where a directory is wanted, so nothing can be there.
  return access(strPath.c_str(), F_OK) == -1 && (errno == ENOENT || errno == ENOTDIR);
}

}  // namespace

LOG_PATH ResolveLogPath(const std::string& strPath, const std::string& strModule) {
  std::string strUnified = strPath;
  std::replace(strUnified.begin(), strUnified.end(), '\\', '/');
  const std::size_t nColon = strUnified.find(':');
  // A drive or a word before the ':' names nothing here.
  if (nColon != std::string::npos) strUnified.erase(0, nColon + 1);

  const std::size_t nLast = strUnified.rfind('/');
  const bool bBare = nLast == std::string::npos;
  const std::string strName = bBare ? strUnified : strUnified.substr(nLast + 1);
  const std::string strPart = bBare ? std::string() : strUnified.substr(0, nLast);
  if (nColon == std::string::npos) return {JoinDir(strPart, strModule), strName};
  if (bBare) return {};  // neither a place below the root nor one below the module

  const std::size_t nFirst = std::min(strPart.find_first_not_of('/'), strPart.size());
  std::string strDir = "/" + strPart.substr(nFirst);
  if (strDir.back() != '/') strDir += '/';
  return {strDir, strName};
}

LOG_PATH FallbackLogPath(const std::string& strModule) {
  return {strModule + "/Log/", "MyLog.log"};
}

bool CreateLogDir(const std::string& strDir) {
  if (!IsMissing(strDir)) return true;
  for (std::size_t n = strDir.find('/', 1); n != std::string::npos; n = strDir.find('/', n + 1)) {
    const std::string strLevel = strDir.substr(0, n);
    // EEXIST: another thread was faster.
    if (IsMissing(strLevel) && mkdir(strLevel.c_str(), 0777) == -1 && errno != EEXIST) return false;
  }
  return true;
}

std::string GetModuleDir() {
  char szPath[PATH_MAX];
  const ssize_t nLength = readlink("/proc/self/exe", szPath, sizeof szPath);
  const std::string_view strPath(szPath, nLength > 0 ? static_cast<std::size_t>(nLength) : 0);
  return std::string(strPath.substr(0, std::min(strPath.rfind('/'), strPath.size())));
}
