// The host's end of the bus: loads the registration component, and beside it the subscription
// service where one is wanted, sends them commands, takes the component's notifications.
#pragma once

#include <chrono>
#include <string>

#include "host/inbox.h"
#include "host/options.h"

namespace host {

inline constexpr const char* kComponentIdentity = "{8836E13D-A307-43DF-8C88-B7783DC728BF}";
inline constexpr const char* kSubscriptionIdentity = "{C560987C-AD84-40B7-8D17-84583CC090ED}";
inline constexpr int kCommandReadConfig = 2;
inline constexpr int kCommandRegister = 3;
inline constexpr int kCommandDeregister = 4;
inline constexpr int kCommandSettings = 0x10000;
inline constexpr int kCommandLogSwitch = 0x10004;
// The one result of kCommandReadConfig: the command ran. It does not say what was read.
inline constexpr int kResultRan = 0x40000002;
inline constexpr int kNotifyOutcome = 0x1000;
inline constexpr int kNotifyDeregistered = 0x1001;
inline constexpr int kNotifyState = 0x1002;
inline constexpr int kNotifyServiceLost = 0x1003;
// The subscription service's: a subscription has ended for good.
inline constexpr int kNotifySubscriptionLife = 0x1003;

struct Answer {
  int command = 0;
  int result = -1;
  std::string document;  // what the component wrote; empty when it wrote nothing
};

// What one notification says, out of its document.
struct Notice {
  int id = 0;
  int registration = -1;
  int result = 0;
  int error_code = 0;  // SIP status of a failure; 0: no answer came, or nothing could be sent
  int warn_code = 0;
  std::string warn_text;
  std::string uri;
  // Of a deregistration: the registrar's own view has shown it, before the answer to the REGISTER.
  bool by_view = false;
  int retry_after = 0;
  std::string state;  // "Active", "Terminate"
  std::string event;  // "timeout", "refreshed" ...
};

[[nodiscard]] Notice ReadNotice(int id, const std::string& document);
// The registration id in an answer to the register command; -1 when there is none.
[[nodiscard]] int ReadRegistrationId(const Answer& answer);

// One per process at a time. All calls on the main thread, which must run a KD loop between Load
// and UnloadComponent: the component's timers live there. Notifications go to the inbox from the
// bus's delivery thread.
class BusClient {
 public:
  explicit BusClient(Inbox& inbox);
  ~BusClient();
  BusClient(const BusClient&) = delete;
  BusClient& operator=(const BusClient&) = delete;

  // The service is loaded only for those who use it: nobody else needs the file, waits for it at
  // the end, or fails where it is missing.
  [[nodiscard]] bool Load(bool with_subscriptions, std::string& error);
  // Opens the log that both write into. The component closes it when it is unloaded.
  [[nodiscard]] Answer SwitchLogOn(const LogOptions& log);
  // Where the configuration lies; ReadConfig has it read.
  [[nodiscard]] Answer SetWorkDir(const std::string& directory);
  [[nodiscard]] Answer ReadConfig();
  // A new registration.
  [[nodiscard]] Answer Register(const RegisterOptions& options);
  // Another attempt of a registration that the component still knows.
  [[nodiscard]] Answer RegisterAgain(int registration);
  [[nodiscard]] Answer Deregister(int registration);
  // Waits for the notifiers' last words, as long as the service does. The service goes first, since
  // its last records need the log; it ends all subscriptions by itself.
  void UnloadSubscriptions(std::chrono::milliseconds deadline);
  void UnloadComponent(std::chrono::milliseconds deadline);

 private:
  Inbox& inbox_;
  bool loaded_ = false;
  bool subscriptions_loaded_ = false;
};

}  // namespace host
