// The host's side of the bus, as lean as a host can be: what the measurements have in common.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>

#include "Sipcarrier/Sipcarrier.h"

namespace bench {

inline constexpr int kNotifyOutcome = 0x1000;
inline constexpr int kNotifyDeregistered = 0x1001;
inline constexpr int kNotifyState = 0x1002;
inline constexpr int kNotifyServiceLost = 0x1003;

struct Notice {
  int id = 0;
  int registration = -1;
  int result = 0;       // of an outcome: 0 when it succeeded
  int error_code = 0;   // the SIP status of a failure; 0: none came
  bool active = false;  // of a state: the registrar holds the binding
};

// Who is told of notifications, on the bus's delivery thread.
class NoticeSink {
 public:
  virtual void OnNotice(const Notice& notice) noexcept = 0;

 protected:
  ~NoticeSink() = default;
};

struct BusSetup {
  sipcarrier::Config stack;
  bool subscriptions = false;  // load the subscription service too
  std::string log_dir;         // from the root; empty: no log
  int log_level = 3;
  int log_size_mib = 5;
};

// Stack, bus and plug-ins. One per process; all calls on one thread, which runs a KD loop.
class BusHost {
 public:
  explicit BusHost(NoticeSink& sink);
  ~BusHost();
  BusHost(const BusHost&) = delete;
  BusHost& operator=(const BusHost&) = delete;

  [[nodiscard]] bool Start(const BusSetup& setup, std::string& error);
  // The id of the new registration, or -1.
  [[nodiscard]] int Register(const std::string& document);
  // The command's result.
  int Deregister(int registration, bool no_send = false);
  // Unloads, and ends the stack; harmless when called again.
  void Stop(std::chrono::milliseconds deadline);

 private:
  [[nodiscard]] bool SwitchLogOn(const BusSetup& setup, std::string& error);

  bool stack_runs_ = false;
  bool component_loaded_ = false;
  bool service_loaded_ = false;
};

// The document of a register command.
struct RegisterCommand {
  std::string_view aor;
  std::string_view registrar;
  int expires = 3600;
  bool subscribe = false;
  bool reregister = false;
  int reregister_interval = 1;
};
[[nodiscard]] std::string RegisterDocument(const RegisterCommand& command);

// "127.0.0.1:5060" apart; false when the port is none.
[[nodiscard]] bool SplitEndpoint(const std::string& text, std::string& address,
                                 std::uint16_t& port);

}  // namespace bench
