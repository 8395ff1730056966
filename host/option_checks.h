// The single checks of the command line. Each gives nothing when the value is good, else a text for
// a person: what is wrong and what to do. Its outputs are written only when the value is good.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace host {

// The largest number of seconds that any option takes: its milliseconds still fit 32 bits.
inline constexpr std::int64_t kMaxSeconds = 4'294'967;
inline constexpr std::size_t kMaxPassword = 1024;

[[nodiscard]] bool HasControl(std::string_view text);
// Strict UTF-8 (no overlong forms, no surrogates) without U+FFFE and U+FFFF, which no XML document
// may contain: option values go into one.
[[nodiscard]] bool IsUtf8(std::string_view text);
// For a message about it: in quotes, shortened, control characters as '?'.
[[nodiscard]] std::string Quoted(const std::string& text);

// `unit` stands behind the bounds: " seconds", or nothing.
[[nodiscard]] std::optional<std::string> CheckRange(const char* option, std::int64_t value,
                                                    std::int64_t least, std::int64_t most,
                                                    const char* unit);
[[nodiscard]] std::optional<std::string> CheckAor(const std::string& text);
[[nodiscard]] std::optional<std::string> CheckRegistrar(const std::string& text);
[[nodiscard]] std::optional<std::string> CheckDisplayName(const std::string& name,
                                                          const std::string& aor);
[[nodiscard]] std::optional<std::string> ParseLocal(const std::string& text, std::string& address,
                                                    std::uint16_t& port);
// An IPv4 address cannot send to an IPv6 one, nor the other way round.
[[nodiscard]] std::optional<std::string> CheckFamilies(const std::string& local_address,
                                                       const std::string& registrar);
[[nodiscard]] std::optional<std::string> ReadPasswordFile(const std::string& path,
                                                          std::string& password);

// A directory as the component needs it: an absolute path. Touches no file.
[[nodiscard]] std::optional<std::string> ResolveDirectory(const std::string& text,
                                                          std::string& absolute);
// Makes the directory and those above it, and opens the log file once, as the component will: a log
// that cannot be written is silent, so the host must find that out while a person is looking.
// `files` is the number of copies that rotation leaves.
[[nodiscard]] std::optional<std::string> PrepareLogDirectory(const std::string& absolute,
                                                             int files);

}  // namespace host
