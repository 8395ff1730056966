// The host's end of the bus: loads the registration component, sends it commands, takes its
// notifications.
#pragma once

#include <chrono>
#include <string>

#include "host/inbox.h"
#include "host/options.h"

namespace host {

inline constexpr const char* kComponentIdentity = "{8836E13D-A307-43DF-8C88-B7783DC728BF}";
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
  int retry_after = 0;
  std::string state;  // "Active", "Terminate"
  std::string event;  // "timeout", "refreshed" ...
};

[[nodiscard]] Notice ReadNotice(int id, const std::string& document);
// The registration id in an answer to the register command; -1 when there is none.
[[nodiscard]] int ReadRegistrationId(const Answer& answer);

// One per process at a time. All calls on the main thread, which must run a KD loop between Load
// and Unload: the component's timers live there. Notifications go to the inbox from the bus's
// delivery thread.
class BusClient {
 public:
  explicit BusClient(Inbox& inbox);
  ~BusClient();
  BusClient(const BusClient&) = delete;
  BusClient& operator=(const BusClient&) = delete;

  [[nodiscard]] bool Load(std::string& error);
  // Opens the log of the component; what it writes is complete when Unload has returned.
  [[nodiscard]] Answer SwitchLogOn(const LogOptions& log);
  // Where the configuration lies; ReadConfig has it read.
  [[nodiscard]] Answer SetWorkDir(const std::string& directory);
  [[nodiscard]] Answer ReadConfig();
  // A new registration.
  [[nodiscard]] Answer Register(const RegisterOptions& options);
  // Another attempt of a registration that the component still knows.
  [[nodiscard]] Answer RegisterAgain(int registration);
  [[nodiscard]] Answer Deregister(int registration);
  void Unload(std::chrono::milliseconds deadline);

 private:
  Inbox& inbox_;
  bool loaded_ = false;
};

}  // namespace host
