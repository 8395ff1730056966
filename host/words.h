// Sentences for a person about what happened; and times as text.
#pragma once

#include <string>
#include <string_view>

#include "host/bus_client.h"
#include "host/inbox.h"
#include "host/options.h"

namespace host {

[[nodiscard]] std::string DescribeAnswer(const Answer& answer, const RegisterOptions& options);
// What the caller knows beside the notification.
struct Circumstances {
  // No response came in time (true), or nothing could be sent (false). It matters only for
  // failures without a status, and for a deregistration, where true means that none came.
  bool no_response = false;
  bool ending = false;  // the deregistration has begun
};
[[nodiscard]] std::string DescribeNotice(const Notice& notice, const RegisterOptions& options,
                                         Circumstances circumstances);
// A sentence for the event of a state notification that says that the registrar itself has ended
// the registration (RFC 3680 §5.1); the component has then forgotten it. Empty for other events.
inline constexpr std::string_view kRejected = "rejected";  // the one end that is meant for good
[[nodiscard]] std::string_view RegistrarsEnd(std::string_view event);
// The reason phrase of a status, "Forbidden" for 403; for an unknown status words for its class.
[[nodiscard]] std::string_view StatusWords(int status);

// A peer's text for a terminal: control characters become '?', also those of U+0080 to U+009F and
// the marks that change the direction of writing.
[[nodiscard]] std::string Printable(std::string_view text);
[[nodiscard]] std::string ClockTime(WallTime time);  // "14:03:07.125", local time
[[nodiscard]] std::string Rfc3339(WallTime time);    // "2024-05-01T12:03:07.125Z"

}  // namespace host
