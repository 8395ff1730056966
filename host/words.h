// What happened, in words for a person; and times as text.
#pragma once

#include <string>
#include <string_view>

#include "host/bus_client.h"
#include "host/inbox.h"
#include "host/options.h"

namespace host {

[[nodiscard]] std::string DescribeAnswer(const Answer& answer, const RegisterOptions& options);
// What a notification does not say itself.
struct Circumstances {
  // The stack waited in vain (true), or could not send at all (false). It matters only for failures
  // without a status, and for a deregistration, where true means that nobody answered it.
  bool unanswered = false;
  bool ending = false;  // the registration has been given back, or is about to be
};
[[nodiscard]] std::string DescribeNotice(const Notice& notice, const RegisterOptions& options,
                                         Circumstances circumstances);
// The word of a state notification in words: that the registrar itself, as its documents tell, has
// ended the registration (RFC 3680 §5.1), which the component then has forgotten. Empty for others.
inline constexpr std::string_view kRejected = "rejected";  // the one end that is meant for good
[[nodiscard]] std::string_view RegistrarsEnd(std::string_view event);
// "Forbidden" for 403 ...; the class's words for a status without words of its own.
[[nodiscard]] std::string_view StatusWords(int status);

// Text of the other side for a terminal: control characters become '?', the second set of them and
// those that turn the direction of writing as well.
[[nodiscard]] std::string Printable(std::string_view text);
[[nodiscard]] std::string ClockTime(WallTime time);  // "14:03:07.125", local time
[[nodiscard]] std::string Rfc3339(WallTime time);    // "2024-05-01T12:03:07.125Z"

}  // namespace host
