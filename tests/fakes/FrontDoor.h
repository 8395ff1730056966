// The component behind its front door: commands in, REGISTER requests and notifications out, on
// virtual time. One thread plays the host, the stack and the timers' loop.
#pragma once

#include <atomic>
#include <chrono>
#include <string>
#include <vector>

#include "FakeBus.h"
#include "FakeSip.h"
#include "VorelKDCore/VorelKDCore.h"

namespace fakes {

class FakeClock : public vorelkd::Clock {
 public:
  [[nodiscard]] KDust Now() const noexcept override { return now_; }
  std::atomic<KDust> now_{1'000'000'000'000};
};

// What a command gave: its result, and the text of the document that it wrote (empty: untouched).
struct Answer {
  int result = 0;
  std::string document;
};

class FrontDoor {
 public:
  FrontDoor();
  ~FrontDoor();
  FrontDoor(const FrontDoor&) = delete;
  FrontDoor& operator=(const FrontDoor&) = delete;

  Answer Command(int id, const std::string& document);
  // <reg> with these children; the new registration's id, or -1.
  int Register(const std::string& children);
  Answer Deregister(int id, const std::string& children = {});
  // The same as Register, with a success and settled; nothing of it is left to be looked at.
  int Live(const std::string& children);
  // Responds to the last REGISTER and lets the loop run.
  void Settle(int status, const std::string& headers = {});
  // The stack id of the last REGISTER sent.
  [[nodiscard]] long LastStackId() const;
  // Lets virtual time pass in steps of a second, with the loop running.
  void Advance(std::chrono::seconds time);
  // Lets it pass at once; the loop runs only at its end.
  void Jump(std::chrono::nanoseconds time);
  void Pump();
  // What has come since the last call.
  std::vector<std::string> Notifications();
  std::vector<int> SentExpiries();
  // What leaves while this time passes.
  std::vector<int> SentIn(std::chrono::seconds time);

  FakeClock clock;
  FakeSip& sip = FakeSip::Get();
  FakeBus& bus = FakeBus::Get();
  int initialized = -1;

 private:
  std::size_t seen_sent_ = 0;
};

// A registration of alice, 600 seconds, with automatic refresh.
inline constexpr char kAlice[] =
    "<aor>sip:alice@example.com</aor><registrar>sip:example.com</registrar><expires>600</expires>"
    "<auto-refresh>true</auto-refresh>";
// The same, brought back every 30 seconds after an error.
inline constexpr char kAliceReregister[] =
    "<aor>sip:alice@example.com</aor><registrar>sip:example.com</registrar><expires>600</expires>"
    "<auto-refresh>true</auto-refresh><auto-reregister>true</auto-reregister>"
    "<reregister-interval>30</reregister-interval>";

}  // namespace fakes
