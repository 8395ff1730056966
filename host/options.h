// The command line of `tolvane`: what may be asked, and the checks that speak to a person.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

namespace host {

// Exit statuses of the program.
inline constexpr int kExitOk = 0;       // registered and deregistered
inline constexpr int kExitFailed = 1;   // the registration failed or was lost
inline constexpr int kExitUsage = 2;    // wrong usage
inline constexpr int kExitNoStart = 3;  // the plug-in or the network could not be started

// The largest number of seconds that is taken anywhere: as many milliseconds still fit 32 bits.
inline constexpr std::int64_t kMaxSeconds = 4'294'967;
inline constexpr std::size_t kMaxPassword = 1024;

struct RegisterOptions {
  std::string aor;
  std::string registrar;
  int expires = 3600;
  std::string display_name;
  std::string user_agent;
  bool auto_refresh = true;
  bool auto_reregister = false;
  int reregister_interval = 0;
  std::string auth_user;  // empty: no digest
  std::string auth_password;
  std::string local_address;  // a literal without brackets; empty: every address
  std::uint16_t local_port = 0;
  std::chrono::seconds duration{0};  // 0: until a signal
  bool trace = false;
  bool json = false;
};

struct CommandLine {
  enum class Verb { kExit, kRegister, kDemo };
  Verb verb = Verb::kExit;
  int exit_status = kExitOk;  // with kExit: everything has been said already
  RegisterOptions options;
};

// Reads and checks the command line and TOLVANE_AUTH_PASSWORD (which is taken out of the
// environment). Help, version and complaints are printed here.
[[nodiscard]] CommandLine ParseCommandLine(int argc, char** argv);

// The single checks; each gives nothing when all is well, else what is wrong and what to do.
[[nodiscard]] std::optional<std::string> CheckAor(const std::string& text);
[[nodiscard]] std::optional<std::string> CheckRegistrar(const std::string& text);
[[nodiscard]] std::optional<std::string> ParseLocal(const std::string& text, std::string& address,
                                                    std::uint16_t& port);
[[nodiscard]] std::optional<std::string> ReadPasswordFile(const std::string& path,
                                                          std::string& password);

}  // namespace host
