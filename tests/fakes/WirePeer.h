// A registrar's wire side for stress: it responds to each REGISTER over UDP on loopback without keeping
// bindings, and can do it late, twice, out of order or not at all. It watches what a user agent
// must never do. It allocates nothing while it runs, so that it may stand in a process whose memory
// runs out.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <random>
#include <string>
#include <string_view>
#include <thread>

namespace fakes {

// In percent of the requests.
struct Manners {
  int drop = 0;
  int twice = 0;
  int late = 0;       // held back for up to 60 ms, so that later responses overtake it
  int refuse = 0;     // 403
  int too_brief = 0;  // 423 with Min-Expires 2
};

class WirePeer {
 public:
  explicit WirePeer(Manners manners = {});
  ~WirePeer();
  WirePeer(const WirePeer&) = delete;
  WirePeer& operator=(const WirePeer&) = delete;

  [[nodiscard]] std::string Uri() const;  // "sip:127.0.0.1:PORT"

  std::atomic<int> requests{0};
  std::atomic<int> refreshes{0};       // with an expiry above 0, behind the first of a Call-ID
  std::atomic<int> removals{0};        // with an expiry of 0
  std::atomic<int> after_end{0};       // with an expiry above 0, behind one of 0
  std::atomic<int> cseq_not_above{0};  // new requests whose CSeq does not rise

  // What goes between the test and a thread that must not count its own memory; set before the peer
  // is made.
  static inline void (*on_thread_start)() = nullptr;

 private:
  struct Call {
    std::uint64_t hash = 0;
    std::uint64_t branch = 0;
    std::uint32_t cseq = 0;
    bool ended = false;
  };
  struct Held {
    std::int64_t due = 0;  // 0: free
    std::size_t size = 0;
    std::array<char, 1024> text{};
    std::array<char, 32> to{};
  };

  void Run();
  void Take(std::string_view request, const void* from, unsigned from_size);
  void SendDue(std::int64_t now);
  void Reply(std::string_view text, const void* to, unsigned to_size);
  int Percent() { return static_cast<int>(random_() % 100); }

  Manners manners_;
  int socket_ = -1;
  std::uint16_t port_ = 0;
  std::minstd_rand random_{1};
  std::array<Call, 65536> calls_{};
  std::array<Held, 256> held_{};
  std::atomic<bool> stop_{false};
  std::thread thread_;
};

}  // namespace fakes
