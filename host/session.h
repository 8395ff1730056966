// The main loop: one registration from the command to its end.
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

// Hears what happens, on the main thread, in order.
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
// SIGHUP reads the templates anew where there are some; otherwise it ends the session like SIGTERM.
class Session {
 public:
  Session(const RegisterOptions& options, Inbox& inbox, SessionListener& listener);
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  // The exit status of the program.
  [[nodiscard]] int Run();
  // As the end of --duration: deregister and end, so much later. May be called from the listener.
  void EndIn(std::chrono::milliseconds time);

 private:
  enum class Phase { kRegistering, kRegistered, kLost, kEnding, kDone };

  [[nodiscard]] bool StartStack(std::string& error);
  void NoteReceived(std::string_view message) noexcept;
  void Unload();
  void OnDeregistered(const Notice& notice);
  void FinishAnswered();
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
  [[nodiscard]] bool Unanswered(const Notice& notice);
  void LoseRegistration(std::chrono::milliseconds pause);
  // How long the stack waits for a response: 64 * T1 (RFC 3261 §17.1.2.2).
  [[nodiscard]] std::chrono::milliseconds TimerF() const;
  [[nodiscard]] bool DeregistrationUnanswered(const Notice& notice) const;
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
  bool hurry_ = false;        // a second signal: wait for nobody
  bool view_missed_ = false;  // there is no subscription, and that has been told
  std::uint64_t timeouts_seen_ = 0;
  std::uint64_t answers_at_end_ = 0;
  std::uint64_t timeouts_at_end_ = 0;
  // Written by the stack's thread.
  std::atomic<std::uint64_t> answers_{0};  // final ones, to a REGISTER
  std::atomic<int> last_status_{0};        // of the last of them
  // On the clock of the KD timers; nothing: no such deadline.
  std::optional<std::int64_t> end_at_;      // --duration is over, or the listener has seen enough
  std::optional<std::int64_t> give_up_at_;  // the wait for the deregistration's answer
  std::optional<std::int64_t> patience_at_;
  std::optional<std::int64_t> again_at_;  // a lost registration is asked for again
};

// `tolvane register`.
[[nodiscard]] int RunRegister(const RegisterOptions& options);

}  // namespace host
