// The loaded components, and the commands that go to them.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "base/mutex.h"
#include "delivery.h"
#include "plugin.h"

namespace brunelib {

// Thread-safe. One lock, which is a leaf: no function of a component runs while it is held.
class Components {
 public:
  explicit Components(Delivery& delivery) : delivery_(delivery) {}

  std::string Load(const std::string& name, const std::string& prefix, std::string& error);
  bool Unload(const char* identity, Clock::time_point deadline);
  void UnloadAll(Clock::time_point deadline);
  int Execute(const char* target, int id, CXML* in, CXML* out);
  bool GetInfo(const char* identity, XSComponentInfo& info);

 private:
  enum class State { kLoading, kReady, kUnloading };
  struct Component {
    std::unique_ptr<Plugin> plugin;
    State state = State::kLoading;
    int commands = 0;  // under way
  };

  struct CommandEnd {
    ~CommandEnd();
    Components& owner;
    Component& component;
  };

  Component* Find(const char* identity) TOLVANE_REQUIRES(mutex_);
  bool Add(std::unique_ptr<Component> component);
  void Remove(Component* component);

  Delivery& delivery_;
  base::Mutex mutex_;
  base::CondVar idle_;  // a command has ended
  // In the order of loading. State and commands of each are guarded, too.
  std::vector<std::unique_ptr<Component>> components_ TOLVANE_GUARDED_BY(mutex_);
};

}  // namespace brunelib
