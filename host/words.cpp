#include "host/words.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <ctime>
#include <utility>

namespace host {
namespace {

struct Split {
  std::tm fields{};
  int milliseconds = 0;
};

Split Take(WallTime time, bool local) {
  const auto since = std::chrono::duration_cast<std::chrono::milliseconds>(time.time_since_epoch());
  Split split;
  split.milliseconds = static_cast<int>(since.count() % 1000);
  const auto seconds = static_cast<std::time_t>(since.count() / 1000);
  if (local) {
    localtime_r(&seconds, &split.fields);
  } else {
    gmtime_r(&seconds, &split.fields);
  }
  return split;
}

std::string Seconds(int seconds) { return std::to_string(seconds) + " s"; }

std::string Status(const Notice& notice) {
  return std::to_string(notice.error_code) + " (" + std::string(StatusWords(notice.error_code)) +
         ")";
}

// The reason in the registrar's Warning and the time in its Retry-After, as far as it gave any.
std::string Reason(const Notice& notice) {
  std::string text;
  if (!notice.warn_text.empty()) {
    text += " Its reason: \"" + Printable(notice.warn_text) + "\"";
    if (notice.warn_code > 0) text += " (warning " + std::to_string(notice.warn_code) + ")";
    text += ".";
  }
  if (notice.retry_after > 0) {
    text +=
        " It asks not to be tried again before " + Seconds(notice.retry_after) + " have passed.";
  }
  return text;
}

std::string DescribeFailure(const Notice& notice, const RegisterOptions& options,
                            bool no_response) {
  if (notice.error_code == 0) {
    if (no_response) {
      return "Registration failed: no response came from " + options.registrar +
             ". Is the address right, and does the network let UDP through?" + Reason(notice);
    }
    return "Registration failed: no response came from " + options.registrar +
           ", or nothing could be sent there. Does the host exist, does a registrar listen on that "
           "port, and is there a route to it?" +
           Reason(notice);
  }
  std::string text =
      "Registration failed: the registrar responded with " + Status(notice) + "." + Reason(notice);
  if (notice.error_code == 401 || notice.error_code == 407) {
    text += options.auth_user.empty()
                ? " It wants digest authentication: give --auth-user and a password."
                : " User name or password do not fit, or it offers no digest algorithm that is "
                  "known here.";
  }
  return text;
}

std::string DescribeState(const Notice& notice, const RegisterOptions& options, bool ending) {
  const std::string event = Printable(notice.event);
  const std::string word = event.empty() ? "" : " (" + event + ")";
  if (notice.state == "Active") return "The registrar's own view: the binding stands" + word + ".";
  if (ending && event.empty()) {
    return "The registrar's own view came before its response, which is waited for.";
  }
  if (ending) return "The registrar's own view: the binding is gone" + word + ".";
  std::string text = "Registration lost: ";
  if (notice.event == "timeout") {
    text += "no response came to a refresh, or it could not be sent.";
    if (options.auto_reregister) {
      text += " It is tried again every " + Seconds(options.reregister_interval) + ".";
    }
  } else if (notice.event == "refreshed") {
    text += "the registrar refused a refresh.";
  } else {
    text += std::string(RegistrarsEnd(notice.event)) + " (" + event + ").";
    if (!options.auto_reregister) {
      text += " Without --auto-reregister that is the end.";
    } else if (notice.event != kRejected) {
      text += " It is registered again in " + Seconds(options.reregister_interval) + ".";
    }
  }
  return text + Reason(notice);
}

// The number of bytes of the control character with which a text begins; 0 when there is none. Of
// UTF-8, terminals obey U+0080 to U+009F, too, and the marks that change the direction of writing
// make a line look like another one.
std::size_t ControlAt(std::string_view text) {
  const auto byte = [text](std::size_t at) -> unsigned {
    return at < text.size() ? static_cast<unsigned char>(text[at]) : 0;
  };
  if (byte(0) < 0x20 || byte(0) == 0x7f) return 1;
  if (byte(0) == 0xc2 && byte(1) >= 0x80 && byte(1) <= 0x9f) return 2;
  const unsigned rest = byte(1) << 8 | byte(2);
  const bool turns = (rest >= 0x80aa && rest <= 0x80ae) || (rest >= 0x81a6 && rest <= 0x81a9) ||
                     rest == 0x808e || rest == 0x808f;
  return byte(0) == 0xe2 && turns ? 3 : 0;
}

}  // namespace

std::string DescribeAnswer(const Answer& answer, const RegisterOptions& options) {
  const auto say = [&answer](int wanted, const std::string& done, const char* failed) {
    return answer.result == wanted
               ? done
               : std::string(failed) + " (result " + std::to_string(answer.result) + ").";
  };
  switch (answer.command) {
    case reg::kCommandLogSwitch:
      return say(0, "Logging to Tolvane.log in " + options.log.directory + ".",
                 "The log could not be switched on");
    case reg::kCommandSettings:
      return say(0, "The working directory is " + options.work_dir + ".",
                 "The working directory was not taken");
    case reg::kCommandReadConfig:
      return say(reg::kResultRan,
                 "The templates have been read; they apply from the next REGISTER on.",
                 "The templates could not be read");
    case reg::kCommandRegister:
      return say(0,
                 "Registering " + options.aor + " at " + options.registrar + ", asking for " +
                     Seconds(options.expires) + " (registration " +
                     std::to_string(ReadRegistrationId(answer)) + ").",
                 "The registration could not be begun");
    default:
      return say(0, "Deregistering " + options.aor + ".", "There was no registration to end");
  }
}

std::string_view RegistrarsEnd(std::string_view event) {
  static constexpr std::array<std::pair<std::string_view, std::string_view>, 6> kWords{{
      {"expired", "the registrar says that the binding has expired"},
      {"deactivated", "the registrar has removed the binding and asks for a new one"},
      {"probation", "the registrar has removed the binding for a while"},
      {"unregistered", "the binding has been removed at the registrar"},
      {kRejected, "the registrar does not allow the binding any more"},
      {"shorted", "the registrar has cut the binding short, and no REGISTER could be sent"},
  }};
  for (const auto& [word, meaning] : kWords) {
    if (word == event) return meaning;
  }
  return {};
}

std::string DescribeNotice(const Notice& notice, const RegisterOptions& options,
                           Circumstances circumstances) {
  switch (notice.id) {
    case reg::kNotifyOutcome:
      if (notice.result != 0) return DescribeFailure(notice, options, circumstances.no_response);
      return "Registered: the registrar holds a binding for " +
             Printable(notice.uri.empty() ? options.aor : notice.uri) + "." +
             (options.auto_refresh
                  ? " It is refreshed before it expires."
                  : " It is not refreshed and expires after the seconds that were granted.");
    case reg::kNotifyDeregistered:
      if (circumstances.no_response) {
        return "Deregistered here, but no response came: the registrar may keep the binding until "
               "it expires.";
      }
      return notice.by_view ? "Deregistered: the registrar's own view shows it."
                            : "Deregistered: the registrar has responded.";
    case reg::kNotifyState:
      return DescribeState(notice, options, circumstances.ending);
    case reg::kNotifyServiceLost:
      return "The registrar has lost the service (533); a new registration went out at once.";
    default:
      return "Notification " + std::to_string(notice.id) + ".";
  }
}

std::string_view StatusWords(int status) {
  // RFC 3261 §21, RFC 5626 §11, RFC 5627 §11.
  static constexpr std::array<std::pair<int, std::string_view>, 39> kWords{{
      {300, "Multiple Choices"},
      {301, "Moved Permanently"},
      {302, "Moved Temporarily"},
      {305, "Use Proxy"},
      {380, "Alternative Service"},
      {400, "Bad Request"},
      {401, "Unauthorized"},
      {402, "Payment Required"},
      {403, "Forbidden"},
      {404, "Not Found"},
      {405, "Method Not Allowed"},
      {406, "Not Acceptable"},
      {407, "Proxy Authentication Required"},
      {408, "Request Timeout"},
      {410, "Gone"},
      {413, "Request Entity Too Large"},
      {414, "Request-URI Too Long"},
      {415, "Unsupported Media Type"},
      {416, "Unsupported URI Scheme"},
      {420, "Bad Extension"},
      {421, "Extension Required"},
      {423, "Interval Too Brief"},
      {430, "Flow Failed"},
      {439, "First Hop Lacks Outbound Support"},
      {480, "Temporarily Unavailable"},
      {481, "Call/Transaction Does Not Exist"},
      {483, "Too Many Hops"},
      {486, "Busy Here"},
      {500, "Server Internal Error"},
      {501, "Not Implemented"},
      {502, "Bad Gateway"},
      {503, "Service Unavailable"},
      {504, "Server Time-out"},
      {505, "Version Not Supported"},
      {513, "Message Too Large"},
      {600, "Busy Everywhere"},
      {603, "Decline"},
      {604, "Does Not Exist Anywhere"},
      {606, "Not Acceptable"},
  }};
  for (const auto& [code, words] : kWords) {
    if (code == status) return words;
  }
  if (status < 300) return "no words for it";
  if (status < 400) return "a redirection";
  if (status < 500) return "a refusal of the request";
  if (status < 600) return "a failure of the server";
  return "a refusal everywhere";
}

std::string Printable(std::string_view text) {
  std::string shown;
  while (!text.empty()) {
    const std::size_t length = ControlAt(text);
    shown += length == 0 ? text.front() : '?';
    text.remove_prefix(std::max<std::size_t>(length, 1));
  }
  return shown;
}

std::string ClockTime(WallTime time) {
  const Split split = Take(time, true);
  char text[48];
  std::snprintf(text, sizeof text, "%02d:%02d:%02d.%03d", split.fields.tm_hour, split.fields.tm_min,
                split.fields.tm_sec, split.milliseconds);
  return text;
}

std::string Rfc3339(WallTime time) {
  const Split split = Take(time, false);
  char text[80];
  std::snprintf(text, sizeof text, "%04d-%02d-%02dT%02d:%02d:%02d.%03dZ",
                split.fields.tm_year + 1900, split.fields.tm_mon + 1, split.fields.tm_mday,
                split.fields.tm_hour, split.fields.tm_min, split.fields.tm_sec, split.milliseconds);
  return text;
}

}  // namespace host
