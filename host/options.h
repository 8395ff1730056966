// The command line of `tolvane`.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

namespace host {

// Exit statuses of the program.
inline constexpr int kExitOk = 0;       // registered and deregistered
inline constexpr int kExitFailed = 1;   // the registration failed or was lost
inline constexpr int kExitUsage = 2;    // wrong usage, or faults in the templates
inline constexpr int kExitNoStart = 3;  // the plug-in, its log or the network could not be started

// Bounds of --t1. Above T2 (4 s) retransmissions would not slow down any more (RFC 3261
// §17.1.2.2); below 10 ms they would come faster than a registrar can work.
inline constexpr std::chrono::milliseconds kLeastT1{10};
inline constexpr std::chrono::milliseconds kMostT1{4000};

// The component's own value where a document names none.
inline constexpr int kDefaultLogFiles = 2;

struct LogOptions {
  std::string directory;  // from the root; empty: no log
  // Without a value the component uses its own.
  std::optional<int> level;
  std::optional<int> max_size;  // MiB
  std::optional<int> files;
};

struct RegisterOptions {
  std::string aor;
  std::string registrar;
  int expires = 3600;
  std::string display_name;
  std::string user_agent;
  bool auto_refresh = true;
  bool subscribe = false;
  bool auto_reregister = false;
  int reregister_interval = 0;
  std::string auth_user;  // empty: no digest
  std::string auth_password;
  std::string local_address;  // a literal without brackets; empty: every address
  std::uint16_t local_port = 0;
  // SIP timer T1 (RFC 3261 §17.1.1.1): a request is sent again after T1, and given up after 64 T1.
  std::chrono::milliseconds t1{500};
  std::chrono::seconds duration{0};  // 0: until a signal
  bool trace = false;
  bool json = false;
  std::string work_dir;  // from the root; empty: no templates
  LogOptions log;
};

struct CommandLine {
  enum class Verb { kExit, kRegister, kCheckConfig, kDemo };
  Verb verb = Verb::kExit;
  int exit_status = kExitOk;  // with kExit: what there was to print has been printed
  RegisterOptions options;    // with kCheckConfig: work_dir only
};

// Reads and checks the command line and TOLVANE_AUTH_PASSWORD, which it removes from the
// environment. Prints help, version and what is wrong. Makes the directory of a log.
[[nodiscard]] CommandLine ParseCommandLine(int argc, char** argv);

}  // namespace host
