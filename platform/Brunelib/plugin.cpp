#include "plugin.h"

#include <dlfcn.h>

#include <cstring>
#include <filesystem>
#include <system_error>
#include <vector>

namespace brunelib {
namespace {

// Where a plug-in of this name may lie, in the order in which it is looked for.
std::vector<std::string> Candidates(const std::string& name) {
  if (name.find('/') != std::string::npos) return {name};
  std::error_code ignored;
  const auto folder = std::filesystem::read_symlink("/proc/self/exe", ignored).parent_path();
  const std::string file = "lib" + name + ".so";
  return {(folder.parent_path() / "lib" / file).string(), (folder / file).string()};
}

std::string LastLoaderError() {
  const char* text = dlerror();
  return text != nullptr ? text : "unknown reason";
}

template <typename Function>
bool ResolveOne(void* handle, const std::string& symbol, Function*& function, std::string& error) {
  function = reinterpret_cast<Function*>(dlsym(handle, symbol.c_str()));
  if (function == nullptr) error = "it does not export " + symbol;
  return function != nullptr;
}

}  // namespace

const void* LibraryOf(const void* address) noexcept {
  Dl_info info{};
  return dladdr(address, &info) != 0 ? info.dli_fbase : nullptr;
}

std::unique_ptr<Plugin> Plugin::Open(const std::string& name, const std::string& prefix,
                                     std::string& error) {
  std::string looked;
  for (const std::string& path : Candidates(name)) {
    std::error_code ignored;
    if (!std::filesystem::exists(path, ignored)) {
      looked += (looked.empty() ? "" : ", ") + path;
      continue;
    }
    // Allocated before the library is opened: from there on the object closes it.
    std::unique_ptr<Plugin> plugin(new Plugin(nullptr, path));
    plugin->handle_ = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (plugin->handle_ == nullptr) {
      error = "cannot load " + path + ": " + LastLoaderError();
      return nullptr;
    }
    if (plugin->Resolve(prefix, error)) return plugin;
    error.insert(0, "cannot use " + path + ": ");
    return nullptr;
  }
  error = "no plug-in \"" + name + "\"; looked for " + looked;
  return nullptr;
}

bool Plugin::Resolve(const std::string& prefix, std::string& error) {
  if (!ResolveOne(handle_, prefix + "Information", functions_.information, error) ||
      !ResolveOne(handle_, prefix + "Initialize", functions_.initialize, error) ||
      !ResolveOne(handle_, prefix + "Uninitialize", functions_.uninitialize, error) ||
      !ResolveOne(handle_, prefix + "CmdCallBack", functions_.command, error) ||
      !ResolveOne(handle_, prefix + "NtfCallBack", functions_.notify, error)) {
    return false;
  }
  library_ = LibraryOf(reinterpret_cast<const void*>(functions_.notify));
  const int result = functions_.information(&info_);
  if (result != 0) {
    error = prefix + "Information gave " + std::to_string(result);
    return false;
  }
  if (info_.szIdentity[0] == '\0' ||
      std::memchr(info_.szIdentity, '\0', sizeof info_.szIdentity) == nullptr) {
    error = "its information record has no valid identity";
    return false;
  }
  return true;
}

Plugin::~Plugin() {
  if (handle_ != nullptr) dlclose(handle_);
}

}  // namespace brunelib
