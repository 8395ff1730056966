// The host's end of the bus: loads the registration component, and beside it the subscription
// service where one is wanted, sends them commands, takes the component's notifications.
#pragma once

#include <chrono>
#include <string>

#include "Brunelib/identities.h"
#include "host/inbox.h"
#include "host/options.h"

namespace host {

namespace reg = bus::registration;
namespace sub = bus::subscription;

// The result of a command on the bus.
struct Answer {
  int command = 0;
  int result = -1;
  std::string document;  // what the component wrote; empty when it wrote nothing
};

// The values of a notification's document.
struct Notice {
  int id = 0;
  int registration = -1;
  int result = 0;
  int error_code = 0;  // SIP status of a failure; 0: no response came, or nothing could be sent
  int warn_code = 0;
  std::string warn_text;
  std::string uri;
  // Of a deregistration: the registrar's view has shown it before the response to the REGISTER
  // came.
  bool by_view = false;
  int retry_after = 0;
  std::string state;  // "Active", "Terminate"
  std::string event;  // "timeout", "refreshed" ...
};

[[nodiscard]] Notice ReadNotice(int id, const std::string& document);
// The registration id in the result of a register command; -1 when there is none.
[[nodiscard]] int ReadRegistrationId(const Answer& answer);

// One per process at a time. All calls on the main thread, which must run a KD loop between Load
// and UnloadComponent: the component's timers fire there. Notifications go to the inbox on the
// bus's delivery thread.
class BusClient {
 public:
  explicit BusClient(Inbox& inbox);
  ~BusClient();
  BusClient(const BusClient&) = delete;
  BusClient& operator=(const BusClient&) = delete;

  // Loads the service, if it is wanted, and then the component. Without the service a registration
  // needs no second file, and its end waits for no notifier.
  [[nodiscard]] bool Load(bool with_subscriptions, std::string& error);
  // Opens the log that both write into, before any other command, so that it contains the reading
  // of the configuration. The host never switches it off: the component closes it at its unload,
  // behind its last record, and that pauses it for the service as well, since loggers are shared by
  // path. The path is sent as "file:/abs/dir": one without ':' would lie below the program's
  // directory.
  [[nodiscard]] Answer SwitchLogOn(const LogOptions& log);
  // Names the directory of the templates; ReadConfig has them read.
  [[nodiscard]] Answer SetWorkDir(const std::string& directory);
  [[nodiscard]] Answer ReadConfig();
  // A new registration.
  [[nodiscard]] Answer Register(const RegisterOptions& options);
  // Tries a registration again that the component still knows.
  [[nodiscard]] Answer RegisterAgain(int registration);
  [[nodiscard]] Answer Deregister(int registration);
  // Waits for the last NOTIFYs, as long as the service does. The service is unloaded before the
  // component: it ends all subscriptions, wanted or not, and their last records need the log. At a
  // second signal the stack stops first, which ends what the service would wait for.
  void UnloadSubscriptions(std::chrono::milliseconds deadline);
  void UnloadComponent(std::chrono::milliseconds deadline);

 private:
  Inbox& inbox_;
  bool loaded_ = false;
  bool subscriptions_loaded_ = false;
};

}  // namespace host
