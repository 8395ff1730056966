// The face of the bus: its functions, over the two objects that do the work.
#include <new>

#include "base/never_destroyed.h"
#include "components.h"
#include "delivery.h"

namespace brunelib {
namespace {

struct Bus {
  Delivery delivery;
  Components components{delivery};
};

// Components, and the delivery thread, may still use the bus while the static objects of other
// libraries go.
Bus& TheBus() {
  static base::NeverDestroyed<Bus> bus;
  return *bus;
}

}  // namespace

std::string LoadComponent(const std::string& name, const std::string& prefix, std::string& error) {
  try {
    return TheBus().components.Load(name, prefix, error);
  } catch (const std::bad_alloc&) {
    error = "out of memory";
    return {};
  }
}

bool UnloadComponent(const std::string& identity, std::chrono::milliseconds deadline) {
  return TheBus().components.Unload(identity.c_str(), DeadlineAfter(deadline));
}

bool GetComponentInfo(const std::string& identity, XSComponentInfo& info) {
  return TheBus().components.GetInfo(identity.c_str(), info);
}

bool DrainNotifications(std::chrono::milliseconds deadline) {
  return TheBus().delivery.Drain(DeadlineAfter(deadline));
}

void Shutdown(std::chrono::milliseconds deadline) {
  Bus& bus = TheBus();
  if (bus.delivery.OnDeliveryThread()) return;  // it cannot wait for itself
  const Clock::time_point end = DeadlineAfter(deadline);
  bus.components.UnloadAll(end);
  bus.delivery.Stop(end);
}

}  // namespace brunelib

using brunelib::TheBus;

int XSSubNotify(const char* szSource, int nNtfId, XSNotifyCallback* pCallback) {
  return TheBus().delivery.Subscribe(szSource, nNtfId, pCallback);
}

int XSUnsubNotify(const char* szSource, int nNtfId, XSNotifyCallback* pCallback) {
  return TheBus().delivery.Unsubscribe(szSource, nNtfId, pCallback);
}

int XSExpressNotify(const char* szSource, int nNtfId, CXML* pDoc, void* pExtra) {
  return TheBus().delivery.Express(szSource, nNtfId, pDoc, pExtra);
}

int XSExecuteCommand(const char* szTarget, int nCmdId, CXML* pIn, CXML* pOut) {
  return TheBus().components.Execute(szTarget, nCmdId, pIn, pOut);
}
