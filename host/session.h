// The main loop: one registration from the command to its end.
//
// A registration that the registrar ended is unknown to the component from then on. `tolvane
// register` then ends with status 1. With --auto-reregister it sends a new register command after
// the interval, under a new id, for expired, deactivated, probation and unregistered, which is what
// an operator's removal looks like at real registrars. "rejected" is meant for good (RFC 3680
// §5.1). An attempt to which no response comes is made again; a refusal ends the session.
//
// The end of a deregistration is known in one of three ways:
//  1. Notification 0x1001 with an element "uri": the registrar has responded.
//  2. 0x1001 without "uri": the registrar's view was faster than its response, and "Terminate"
//     follows. That is proof enough for status 0.
//  3. "Terminate" without an event word: a document was on its way when the deregistration began,
//     and the component has forgotten the registration. Then the session waits for the response on
//     the wire, which it sees in the trace; only responses to REGISTER count, by their CSeq.
// So a "Terminate" while the session ends is shown as the registrar's view and not as a loss.
#pragma once

#include <atomic>
#include <chrono>
#include <optional>
#include <string>
#include <string_view>

#include "host/bus_client.h"
#include "host/inbox.h"
#include "host/options.h"
#include "host/words.h"

namespace host {

// Is called on the main thread, in the order of what happens.
class SessionListener {
 public:
  virtual ~SessionListener() = default;
  virtual void OnAnswer(WallTime time, const Answer& answer) = 0;
  virtual void OnNotification(WallTime time, const NotificationItem& item, const Notice& notice,
                              Circumstances circumstances) = 0;
  virtual void OnTrace(WallTime time, const TraceItem& item) = 0;
  virtual void OnRemark(WallTime time, const std::string& text) = 0;
};

// Starts the SIP stack and the plug-ins, registers, waits, deregisters, stops all. One per process
// at a time, on the thread that made the inbox; that thread's KD loop runs inside Run.
// SIGHUP has the templates read again where there are some; else it ends the session like SIGTERM:
// a terminal that goes away must not leave a binding behind.
class Session {
 public:
  Session(const RegisterOptions& options, Inbox& inbox, SessionListener& listener);
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  // The exit status of the program.
  [[nodiscard]] int Run();
  // After this time the session deregisters and ends. The listener may call it.
  void EndIn(std::chrono::milliseconds time);

 private:
  enum class Phase { kRegistering, kRegistered, kLost, kEnding, kDone };

  [[nodiscard]] bool StartStack(std::string& error);
  void NoteReceived(std::string_view message) noexcept;
  void Unload();
  void OnDeregistered(const Notice& notice);
  void FinishByResponse();
  [[nodiscard]] bool Prepare(std::string& error);
  void ReloadConfig();
  void Loop();
  void Handle(const InboxItem& item);
  void OnNotice(WallTime time, const NotificationItem& item);
  void OnSubscriptionOver();
  void OnOutcome(const Notice& notice);
  void OnLost(const Notice& notice);
  void BeginEnd();
  void AskAgain();
  void CheckDeadlines();
  [[nodiscard]] std::int64_t NextWait() const;  // nanoseconds
  void DrainInbox();
  [[nodiscard]] bool NoResponse(const Notice& notice);
  void LoseRegistration(std::chrono::milliseconds pause);
  // How long the stack waits for a response: 64 * T1 (RFC 3261 §17.1.2.2).
  [[nodiscard]] std::chrono::milliseconds TimerF() const;
  [[nodiscard]] bool NoResponseToDeregister(const Notice& notice) const;
  void Remark(const std::string& text);
  void Finish(int status);

  const RegisterOptions& options_;
  Inbox& inbox_;
  SessionListener& listener_;
  BusClient bus_;
  Phase phase_ = Phase::kRegistering;
  int status_ = 1;
  int registration_ = -1;
  bool was_registered_ = false;
  bool forgotten_ = false;  // lost, and the component no longer knows it
  bool end_requested_ = false;
  bool hurry_ = false;        // a second signal: wait for nothing
  bool view_missed_ = false;  // there is no subscription, and a line has said so
  std::uint64_t timeouts_seen_ = 0;
  std::uint64_t responses_at_end_ = 0;
  std::uint64_t timeouts_at_end_ = 0;
  // Written by the stack's thread.
  std::atomic<std::uint64_t> responses_{0};  // final ones, to a REGISTER
  std::atomic<int> last_status_{0};          // of the last of them
  // On the clock of the KD timers; nothing: no such deadline.
  std::optional<std::int64_t> end_at_;      // --duration is over, or EndIn
  std::optional<std::int64_t> give_up_at_;  // the wait for the response to the deregistration
  std::optional<std::int64_t> patience_at_;
  std::optional<std::int64_t> again_at_;  // a lost registration is made again
};

// `tolvane register`.
[[nodiscard]] int RunRegister(const RegisterOptions& options);

}  // namespace host
