#include "components.h"

#include <algorithm>
#include <cstring>
#include <new>

namespace brunelib {

Components::Component* Components::Find(const char* identity) {
  const auto found = std::find_if(components_.begin(), components_.end(), [&](const auto& other) {
    return std::strcmp(other->plugin->Identity(), identity) == 0;
  });
  return found != components_.end() ? found->get() : nullptr;
}

bool Components::Add(std::unique_ptr<Component> component) {
  const base::MutexLock lock(mutex_);
  if (Find(component->plugin->Identity()) != nullptr) return false;
  components_.push_back(std::move(component));
  return true;
}

// Takes back what the component left on the bus, and unloads it. It takes no commands any more.
void Components::Remove(Component* component) {
  delivery_.UnsubscribeLibrary(component->plugin->Library());
  std::unique_ptr<Component> removed;  // the library goes when the lock is released
  const base::MutexLock lock(mutex_);
  const auto found = std::find_if(components_.begin(), components_.end(),
                                  [&](const auto& other) { return other.get() == component; });
  removed = std::move(*found);
  components_.erase(found);
}

std::string Components::Load(const std::string& name, const std::string& prefix,
                             std::string& error) {
  std::unique_ptr<Plugin> plugin = Plugin::Open(name, prefix, error);
  if (plugin == nullptr) return {};
  // All that needs memory comes before the component is initialised.
  const std::string path = plugin->Path();
  std::string identity = plugin->Identity();
  const PluginFunctions functions = plugin->Functions();
  auto added = std::make_unique<Component>();
  Component* const component = added.get();
  added->plugin = std::move(plugin);
  if (!Add(std::move(added))) {
    error = path + ": a component with the identity " + identity + " is loaded already";
    return {};
  }

  const int result = functions.initialize(nullptr);
  if (result != 0) {
    functions.uninitialize();
    Remove(component);
    error = path + ": " + prefix + "Initialize gave " + std::to_string(result);
    return {};
  }
  const base::MutexLock lock(mutex_);
  component->state = State::kReady;
  return identity;
}

bool Components::Unload(const char* identity, Clock::time_point deadline) {
  // On the delivery thread the caller may well be a callback of the component itself.
  if (delivery_.OnDeliveryThread()) return false;
  Component* component = nullptr;
  {
    const base::MutexLock lock(mutex_);
    component = Find(identity);
    if (component == nullptr || component->state != State::kReady) return false;
    component->state = State::kUnloading;
    while (component->commands != 0 && idle_.WaitUntil(mutex_, deadline)) {
    }
    if (component->commands != 0) {
      component->state = State::kReady;
      return false;
    }
  }
  component->plugin->Functions().uninitialize();
  Remove(component);
  return true;
}

void Components::UnloadAll(Clock::time_point deadline) {
  // One that cannot be unloaded is passed over, and those below it are tried.
  std::size_t passed = 0;
  for (;;) {
    char identity[sizeof(XSComponentInfo::szIdentity)];
    {
      const base::MutexLock lock(mutex_);
      if (components_.size() <= passed) return;
      const auto& last = components_[components_.size() - 1 - passed];
      std::memcpy(identity, last->plugin->Identity(), sizeof identity);
    }
    if (!Unload(identity, deadline)) ++passed;
  }
}

int Components::Execute(const char* target, int id, CXML* in, CXML* out) {
  if (target == nullptr) return XS_E_INVALID;
  Component* component = nullptr;
  {
    const base::MutexLock lock(mutex_);
    component = Find(target);
    if (component == nullptr || component->state != State::kReady) return XS_E_UNKNOWN;
    ++component->commands;
  }
  const CommandEnd end{*this, *component};
  try {
    return component->plugin->Functions().command(id, in, out);
  } catch (const std::bad_alloc&) {
    return XS_E_NO_MEMORY;
  }
}

Components::CommandEnd::~CommandEnd() {
  const base::MutexLock lock(owner.mutex_);
  if (--component.commands == 0) owner.idle_.NotifyAll();
}

bool Components::GetInfo(const char* identity, XSComponentInfo& info) {
  const base::MutexLock lock(mutex_);
  const Component* component = Find(identity);
  if (component == nullptr || component->state == State::kLoading) return false;
  info = component->plugin->Info();
  return true;
}

}  // namespace brunelib
