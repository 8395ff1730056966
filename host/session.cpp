#include "host/session.h"

#include <algorithm>
#include <charconv>
#include <csignal>
#include <cstdio>
#include <new>
#include <thread>

#include "base/text.h"
#include "Brunelib/Brunelib.h"
#include "host/config_check.h"
#include "host/printer.h"
#include "host/signals.h"
#include "Sipcarrier/Sipcarrier.h"
#include "VorelKDCore/VorelKDCore.h"

namespace host {
namespace {

using namespace std::chrono_literals;
using std::chrono::milliseconds;
using std::chrono::seconds;

// Without a response the stack gives a request up when timer F fires. Its verdict should come first,
// so the session waits this much longer for a response.
constexpr milliseconds kBeyondTimerF = 3s;
// After so many T1, two seconds by default, a person is told that the response is late.
constexpr int kPatience = 4;
constexpr auto kUnloadDeadline = 3s;
constexpr auto kStopDeadline = 5s;
constexpr auto kHurriedDeadline = 200ms;

// Whether a message belongs to a REGISTER, by the method in its CSeq (RFC 3261 §8.1.1.5).
bool OfRegister(std::string_view message) {
  constexpr std::string_view kName = "CSeq";
  while (!message.empty()) {
    std::string_view line = message.substr(0, message.find("\r\n"));
    if (line.empty()) return false;  // the end of the headers
    message.remove_prefix(std::min(line.size() + 2, message.size()));
    if (line.size() > kName.size() && base::EqualNoCase(line.substr(0, kName.size()), kName) &&
        std::string_view(" \t:").find(line[kName.size()]) != std::string_view::npos) {
      return base::TrimRight(line).ends_with("REGISTER");
    }
  }
  return false;
}

std::int64_t After(std::chrono::nanoseconds time) { return vorelkd::Now() + time.count(); }

}  // namespace

Session::Session(const RegisterOptions& options, Inbox& inbox, SessionListener& listener)
    : options_(options), inbox_(inbox), listener_(listener), bus_(inbox) {}

int Session::Run() {
  std::string error;
  if (!StartStack(error)) {
    std::fprintf(stderr, "tolvane: the network could not be started: %s\n", error.c_str());
    return kExitNoStart;
  }
  if (bus_.Load(options_.subscribe, error) && Prepare(error)) {
    Loop();
    // The end may have left an event in this thread's queue, such as a timer to stop. It is handled
    // before the plug-in is unloaded.
    kdPumpEvents();
  } else {
    std::fprintf(stderr, "tolvane: the plug-in could not be started: %s\n", error.c_str());
    status_ = kExitNoStart;
  }
  Unload();
  brunelib::Shutdown(hurry_ ? kHurriedDeadline : milliseconds(kUnloadDeadline));
  DrainInbox();  // the trace of the last messages
  if (inbox_.lost() != 0) {
    Remark(std::to_string(inbox_.lost()) + " messages could not be shown for lack of memory.");
  }
  return status_;
}

void Session::Unload() {
  const auto deadline = hurry_ ? kHurriedDeadline : milliseconds(kUnloadDeadline);
  // The last NOTIFYs come through the stack. Without the stack there is nothing to wait for.
  if (!hurry_) bus_.UnloadSubscriptions(deadline);
  bus_.UnloadComponent(deadline);
  sipcarrier::Stop(hurry_ ? kHurriedDeadline : milliseconds(kStopDeadline));
  bus_.UnloadSubscriptions(deadline);
}

bool Session::StartStack(std::string& error) {
  sipcarrier::Config config;
  config.local_address = options_.local_address;
  config.local_port = options_.local_port;
  config.t1 = options_.t1;
  if (!options_.auth_user.empty()) {
    // For every address and realm: a registrar may move the registration to another address of
    // record.
    config.credentials.push_back({{}, {}, options_.auth_user, options_.auth_password});
  }
  config.trace = [this](const sipcarrier::TraceRecord& record) {
    if (!record.sent) NoteReceived(record.text);
    if (!options_.trace) return;
    try {
      inbox_.Push(TraceItem{record.sent, record.local, record.remote, std::string(record.text)});
    } catch (const std::bad_alloc&) {
      return;  // one message is not shown
    }
  };
  return sipcarrier::Start(config, error) == 0;
}

// The notification of a deregistration does not contain the status of the response; the wire does.
void Session::NoteReceived(std::string_view message) noexcept {
  constexpr std::string_view kVersion = "SIP/2.0 ";
  int status = 0;
  if (!message.starts_with(kVersion) || !OfRegister(message)) return;
  message.remove_prefix(kVersion.size());
  std::from_chars(message.data(), message.data() + message.size(), status);
  if (status < 200) return;
  last_status_ = status;
  ++responses_;
}

bool Session::Prepare(std::string& error) {
  const auto took = [this, &error](const Answer& answer, int wanted) {
    listener_.OnAnswer(std::chrono::system_clock::now(), answer);
    if (answer.result == wanted) return true;
    error = "it refused command " + std::to_string(answer.command) + " with result " +
            std::to_string(answer.result);
    return false;
  };
  if (!options_.log.directory.empty() && !took(bus_.SwitchLogOn(options_.log), 0)) return false;
  return options_.work_dir.empty() ||
         (took(bus_.SetWorkDir(options_.work_dir), 0) && took(bus_.ReadConfig(), reg::kResultRan));
}

void Session::ReloadConfig() {
  const ConfigReading reading = ReadConfiguration(options_.work_dir);
  PrintFaults(reading);
  for (const std::string& fault : reading.faults) {
    Remark("Not read again, the former templates stay: " + fault);
  }
  // Also with faults: the component finds them, too, and writes them into its log.
  const Answer answer = bus_.ReadConfig();
  if (reading.faults.empty()) listener_.OnAnswer(std::chrono::system_clock::now(), answer);
}

void Session::Loop() {
  const WallTime time = std::chrono::system_clock::now();
  const Answer answer = bus_.Register(options_);
  listener_.OnAnswer(time, answer);
  registration_ = ReadRegistrationId(answer);
  if (answer.result != 0 || registration_ < 1) return Finish(kExitFailed);
  if (options_.duration.count() > 0) end_at_ = After(options_.duration);
  while (phase_ != Phase::kDone) {
    kdWaitEvent(NextWait());
    DrainInbox();
    CheckDeadlines();
  }
}

void Session::EndIn(milliseconds time) { end_at_ = After(time); }

void Session::DrainInbox() {
  InboxItem item;
  while (inbox_.Pop(item)) Handle(item);
}

void Session::Handle(const InboxItem& item) {
  if (const auto* trace = std::get_if<TraceItem>(&item.what)) {
    listener_.OnTrace(item.time, *trace);
  } else if (const auto* notification = std::get_if<NotificationItem>(&item.what)) {
    OnNotice(item.time, *notification);
  } else if (std::get<SignalItem>(item.what).number == SIGHUP && !options_.work_dir.empty()) {
    ReloadConfig();
  } else if (phase_ == Phase::kEnding || end_requested_) {
    hurry_ = true;
    Remark("Told to end a second time: not waiting any more.");
    Finish(kExitFailed);
  } else {
    end_requested_ = true;
  }
}

void Session::OnNotice(WallTime time, const NotificationItem& item) {
  if (item.source == sub::kIdentity) return OnSubscriptionOver();
  const Notice notice = ReadNotice(item.id, item.document);
  listener_.OnNotification(
      time, item, notice, {NoResponse(notice), phase_ == Phase::kEnding || phase_ == Phase::kDone});
  if (phase_ == Phase::kDone || notice.registration != registration_) return;
  switch (notice.id) {
    case reg::kNotifyOutcome:
      OnOutcome(notice);
      break;
    case reg::kNotifyDeregistered:
      OnDeregistered(notice);
      break;
    case reg::kNotifyState:
      view_missed_ = false;
      if (notice.state != "Active") OnLost(notice);
      break;
    default:
      break;
  }
}

// Each success subscribes again; that the registrar offers no subscription is said once.
void Session::OnSubscriptionOver() {
  if (phase_ != Phase::kRegistered || view_missed_) return;
  view_missed_ = true;
  Remark(
      "The registrar does not give its own view of the binding, or has stopped to; it is asked "
      "again with every refresh.");
}

void Session::OnOutcome(const Notice& notice) {
  if (notice.result != 0) {
    // An attempt to which no response came is made again; a refusal ends the session.
    if (phase_ != Phase::kLost || notice.error_code != 0) return Finish(kExitFailed);
    forgotten_ = true;
    return LoseRegistration(seconds(options_.reregister_interval));
  }
  was_registered_ = true;
  forgotten_ = false;
  again_at_.reset();
  if (phase_ != Phase::kEnding) phase_ = Phase::kRegistered;
}

void Session::OnLost(const Notice& notice) {
  // A document that was on its way when the deregistration began has made the component forget the
  // registration. The response to the deregistration is then seen on the wire only.
  if (phase_ == Phase::kEnding && notice.event.empty()) {
    forgotten_ = true;
    return;
  }
  if (phase_ == Phase::kEnding || !options_.auto_reregister) return Finish(kExitFailed);
  if (!RegistrarsEnd(notice.event).empty()) {
    if (notice.event == kRejected) return Finish(kExitFailed);
    forgotten_ = true;
    return LoseRegistration(seconds(options_.reregister_interval));
  }
  // Without a response the component tries again by itself, but it gives up without a notification
  // when the registrar then refuses; after a refusal it waits for a new command. A register command
  // under the same id covers both: its result says whether the component still knows the
  // registration.
  const seconds interval(options_.reregister_interval);
  LoseRegistration(notice.event == "timeout" ? std::max<milliseconds>(4 * interval, 2 * TimerF())
                                             : std::max(interval, seconds(notice.retry_after)));
}

void Session::LoseRegistration(milliseconds pause) {
  phase_ = Phase::kLost;
  again_at_ = After(pause);
}

milliseconds Session::TimerF() const { return 64 * options_.t1; }

void Session::AskAgain() {
  const WallTime time = std::chrono::system_clock::now();
  again_at_.reset();
  const Answer answer = forgotten_ ? bus_.Register(options_) : bus_.RegisterAgain(registration_);
  listener_.OnAnswer(time, answer);
  if (forgotten_) registration_ = ReadRegistrationId(answer);
  if (answer.result != 0) {
    Remark("The component could not begin the registration again; giving up.");
    return Finish(kExitFailed);
  }
  // The outcome of a new registration is always notified.
  if (forgotten_) return;
  again_at_ = After(
      std::max<milliseconds>(seconds(options_.reregister_interval), TimerF() + kBeyondTimerF));
}

void Session::BeginEnd() {
  phase_ = Phase::kEnding;
  end_at_.reset();
  again_at_.reset();
  responses_at_end_ = responses_;
  timeouts_at_end_ = sipcarrier::GetCounters().timeouts;
  const WallTime time = std::chrono::system_clock::now();
  const Answer answer = bus_.Deregister(registration_);
  listener_.OnAnswer(time, answer);
  if (answer.result == 0) {
    give_up_at_ = After(TimerF() + kBeyondTimerF);
    patience_at_ = After(kPatience * options_.t1);
    return;
  }
  // Nothing was registered any more. A notification with the reason may be on its way.
  brunelib::DrainNotifications(1s);
  DrainInbox();
  if (phase_ != Phase::kDone) Finish(kExitFailed);
}

void Session::CheckDeadlines() {
  const std::int64_t now = vorelkd::Now();
  const auto due = [now](const std::optional<std::int64_t>& deadline) {
    return deadline && *deadline <= now;
  };
  if (phase_ == Phase::kDone) return;
  if (phase_ != Phase::kEnding && (end_requested_ || due(end_at_))) return BeginEnd();
  if (phase_ == Phase::kEnding && forgotten_ && responses_ != responses_at_end_) {
    return FinishByResponse();
  }
  if (due(give_up_at_)) {
    Remark("No response came to the deregistration; the binding ends when it expires.");
    return Finish(kExitFailed);
  }
  if (due(patience_at_)) {
    patience_at_.reset();
    Remark("No response yet; waiting. Another Ctrl-C ends the wait.");
  }
  if (due(again_at_)) AskAgain();
}

std::int64_t Session::NextWait() const {
  std::int64_t next = After(1h);
  for (const auto& deadline : {end_at_, give_up_at_, patience_at_, again_at_}) {
    if (deadline) next = std::min(next, *deadline);
  }
  if (end_requested_ && phase_ != Phase::kEnding) return 0;
  if (phase_ == Phase::kEnding && forgotten_) next = std::min(next, After(20ms));
  return std::max<std::int64_t>(next - vorelkd::Now(), 0);
}

void Session::OnDeregistered(const Notice& notice) {
  if (phase_ != Phase::kEnding || !was_registered_ || NoResponseToDeregister(notice)) {
    return Finish(kExitFailed);
  }
  notice.by_view ? Finish(kExitOk) : FinishByResponse();
}

void Session::FinishByResponse() {
  const int status = last_status_;
  if (status < 300) return Finish(kExitOk);
  Remark("The registrar refused to remove the binding (" + std::to_string(status) +
         "); it ends when it expires.");
  Finish(kExitFailed);
}

bool Session::NoResponse(const Notice& notice) {
  if (notice.id == reg::kNotifyDeregistered) return NoResponseToDeregister(notice);
  const std::uint64_t timeouts = sipcarrier::GetCounters().timeouts;
  const bool grown = timeouts > timeouts_seen_;
  timeouts_seen_ = timeouts;
  return grown;
}

// The notification does not say whether a response came. None did when a REGISTER has been given
// up, or when no response to one has come since the command. The response to an earlier REGISTER
// may have caused the notification, so the right one gets a moment to arrive.
bool Session::NoResponseToDeregister(const Notice& notice) const {
  if (notice.by_view) return false;
  if (sipcarrier::GetCounters().timeouts > timeouts_at_end_) return true;
  for (int i = 0; i < 50; ++i) {
    if (responses_ != responses_at_end_) return false;
    if (hurry_) break;
    std::this_thread::sleep_for(10ms);
  }
  return true;
}

void Session::Remark(const std::string& text) {
  listener_.OnRemark(std::chrono::system_clock::now(), text);
}

void Session::Finish(int status) {
  if (phase_ == Phase::kDone) return;
  phase_ = Phase::kDone;
  status_ = status;
}

int RunRegister(const RegisterOptions& options) {
  if (!options.work_dir.empty()) {
    const ConfigReading reading = ReadConfiguration(options.work_dir);
    PrintFaults(reading);
    if (!reading.faults.empty()) {
      std::fputs("tolvane: nothing was registered, because the templates are faulty\n", stderr);
      return kExitUsage;
    }
  }
  Inbox inbox;
  SignalWatch signals(inbox);
  std::string error;
  if (!signals.Start(error)) {
    std::fprintf(stderr, "tolvane: %s\n", error.c_str());
    return kExitNoStart;
  }
  EventPrinter printer(options);
  return Session(options, inbox, printer).Run();
}

}  // namespace host
