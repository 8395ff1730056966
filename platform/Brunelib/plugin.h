// A plug-in library in the process, from its load to its unload.
#pragma once

#include <memory>
#include <string>

#include "Brunelib/Brunelib.h"

namespace brunelib {

// The five functions that a plug-in exports, each under its prefix.
struct PluginFunctions {
  int (*information)(void* info);
  int (*initialize)(void* param);
  int (*uninitialize)();
  int (*command)(int id, CXML* in, CXML* out);
  XSNotifyCallback* notify;
};

// Owns the loaded library: it is unloaded by the destructor, so nothing may run in it by then.
// Constant after Open, and so free to be used by any thread.
class Plugin {
 public:
  // Loads the library and reads its information record; null, with the reason in `error`, when one
  // of the two fails.
  static std::unique_ptr<Plugin> Open(const std::string& name, const std::string& prefix,
                                      std::string& error);
  ~Plugin();
  Plugin(const Plugin&) = delete;
  Plugin& operator=(const Plugin&) = delete;

  [[nodiscard]] const PluginFunctions& Functions() const { return functions_; }
  [[nodiscard]] const XSComponentInfo& Info() const { return info_; }
  [[nodiscard]] const char* Identity() const { return info_.szIdentity; }
  [[nodiscard]] const void* Library() const { return library_; }
  [[nodiscard]] const std::string& Path() const { return path_; }

 private:
  Plugin(void* handle, std::string path) : handle_(handle), path_(std::move(path)) {}
  bool Resolve(const std::string& prefix, std::string& error);

  void* handle_;
  std::string path_;
  PluginFunctions functions_{};
  XSComponentInfo info_{};
  const void* library_ = nullptr;
};

// What tells one library of the process from another: the address that it is loaded at. Null for an
// address in none.
const void* LibraryOf(const void* address) noexcept;

}  // namespace brunelib
