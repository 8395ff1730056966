// The component on the real stack and the real bus, in this process: for tests against the wire.
#pragma once

#include <array>
#include <atomic>
#include <chrono>
#include <string>

#include "Sipcarrier/Sipcarrier.h"

namespace fakes {

class LiveComponent {
 public:
  // Timer T1 is `t1`: a REGISTER without a response is given up after 64 of it.
  explicit LiveComponent(std::chrono::milliseconds t1 = std::chrono::milliseconds(10));
  ~LiveComponent();
  LiveComponent(const LiveComponent&) = delete;
  LiveComponent& operator=(const LiveComponent&) = delete;

  // The result of a command whose document, if it writes one, is of no interest.
  static int Command(int id, const std::string& document);
  // A registration through the command; its id, or -1.
  static int Register(const std::string& registrar, int expires, bool reregister = false);
  static int Register(const std::string& document);
  // The command's result.
  static int Deregister(int id, bool no_send = false);
  // Runs the calling thread's loop until `done`, or the time is over.
  template <typename Done>
  static bool PumpUntil(Done done, std::chrono::milliseconds limit) {
    const auto end = std::chrono::steady_clock::now() + limit;
    while (!done()) {
      if (std::chrono::steady_clock::now() >= end) return false;
      PumpFor(std::chrono::milliseconds(1));
    }
    return true;
  }
  // The same, for tests in which memory runs out: once that has `happened`, what is lost stays lost, and
  // `patience` is enough; until then the limit is one that no machine reaches.
  template <typename Done, typename Happened>
  static bool PumpUntil(Done done, Happened happened, std::chrono::milliseconds patience) {
    constexpr std::chrono::seconds kLimit{5};
    return PumpUntil([&] { return done() || happened(); }, kLimit) && PumpUntil(done, done() ? kLimit : patience);
  }
  static void PumpFor(std::chrono::milliseconds time);
  // How many notifications of this kind have come: 0x1000 (told apart by their result) to 0x1003.
  static inline std::atomic<int> succeeded{0};
  static inline std::atomic<int> failed{0};
  static inline std::array<std::atomic<int>, 4> heard{};
  // The same by registration id, without failures: for tests of one registration among late ones.
  static inline std::array<std::array<std::atomic<int>, 4>, 10001> told{};
  // Told when a call goes into the component or the loop, and when it is back: for tests that count
  // memory.
  static inline void (*on_call)(bool inside) = nullptr;
  // Told each message on the wire, on the I/O thread; set before the component is made.
  static inline void (*on_trace)(const sipcarrier::TraceRecord& record) = nullptr;
};

}  // namespace fakes
