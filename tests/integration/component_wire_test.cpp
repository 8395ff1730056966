// Many registrations at once against a registrar that answers late, twice, out of order or not at
// all; and garbage on the wire beside a registration.

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <random>
#include <thread>
#include <vector>

#include "LiveComponent.h"
#include "Register.h"
#include "sivra/sivra.h"
#include "WirePeer.h"

namespace {

using fakes::LiveComponent;
using fakes::WirePeer;
using namespace std::chrono_literals;

// A host's thread: registers and deregisters as fast as it can, keeps some to be refreshed, leaves
// some to others.
class Commander {
 public:
  Commander(unsigned seed, const std::string& registrar) : random_(seed), registrar_(registrar) {}

  void Run(std::chrono::milliseconds time) {
    const auto end = std::chrono::steady_clock::now() + time;
    while (std::chrono::steady_clock::now() < end) {
      const int id = LiveComponent::Register(registrar_, 2, random_() % 4 == 0);
      if (id > 0) {
        ++registered;
        ids_.push_back(id);
      }
      LiveComponent::PumpFor(std::chrono::milliseconds(random_() % 4));
      while (ids_.size() > 40) EndOne();
      if (random_() % 3 == 0 && !ids_.empty()) EndOne();
    }
  }

  void EndAll() {
    while (!ids_.empty()) EndOne();
  }

  int registered = 0;

 private:
  void EndOne() {
    const std::size_t at = random_() % ids_.size();
    const int id = ids_[at];
    ids_.erase(ids_.begin() + static_cast<std::ptrdiff_t>(at));
    const bool no_send = random_() % 8 == 0;
    if (random_() % 8 == 0) {
      std::thread([=] { LiveComponent::Deregister(id, no_send); }).join();
    } else {
      LiveComponent::Deregister(id, no_send);
    }
    if (random_() % 4 == 0) LiveComponent::Deregister(id);  // once too often
  }

  std::minstd_rand random_;
  std::string registrar_;
  std::vector<int> ids_;
};

TEST(ComponentWire, StressLeavesNothingAndSendsNothingAfterAnEnd) {
  WirePeer peer({.drop = 10, .twice = 15, .late = 25, .refuse = 3, .too_brief = 5});
  int registered = 0;
  {
    LiveComponent component;
    std::vector<Commander> commanders;
    for (unsigned i = 0; i < 4; ++i) commanders.emplace_back(i + 1, peer.Uri());
    std::vector<std::thread> threads;
    for (Commander& commander : commanders) {
      threads.emplace_back([&commander] {
        commander.Run(4s);
        // Every second one ends with registrations alive and its loop gone.
        if (commander.registered % 2 == 0) commander.EndAll();
      });
    }
    for (std::thread& thread : threads) thread.join();
    for (const Commander& commander : commanders) registered += commander.registered;
  }
  EXPECT_GT(registered, 1000);
  EXPECT_GT(peer.refreshes, 5);
  EXPECT_EQ(CRegister::s_nAlive, 0);
  EXPECT_EQ(sivra::EntryCount(), 0u);
  EXPECT_EQ(peer.cseq_not_above, 0);
  // A 423 to a REGISTER that a deregistration overtook is answered once more with its expiry: the
  // one way in which a wish above 0 follows a wish of 0.
  EXPECT_LE(peer.after_end, registered / 10);
}

TEST(ComponentWire, NoRefreshAfterAnEnd) {
  // The same without 423: now not one.
  WirePeer peer({.drop = 15, .twice = 15, .late = 40});
  {
    LiveComponent component;
    std::vector<std::thread> threads;
    for (unsigned i = 0; i < 4; ++i) {
      threads.emplace_back([&peer, i] { Commander(i + 11, peer.Uri()).Run(3s); });
    }
    for (std::thread& thread : threads) thread.join();
  }
  EXPECT_GT(peer.removals, 300);
  EXPECT_EQ(peer.after_end, 0);
  EXPECT_EQ(peer.cseq_not_above, 0);
  EXPECT_EQ(CRegister::s_nAlive, 0);
  EXPECT_EQ(sivra::EntryCount(), 0u);
}

TEST(ComponentWire, GarbageDisturbsNobody) {
  WirePeer peer;
  LiveComponent component(100ms);
  const int id = LiveComponent::Register(peer.Uri(), 2);
  ASSERT_GT(id, 0);
  ASSERT_TRUE(LiveComponent::PumpUntil([] { return LiveComponent::succeeded == 1; }, 2s));

  const std::string endpoint = sipcarrier::LocalEndpoints().front();
  sockaddr_in to{};
  to.sin_family = AF_INET;
  to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  to.sin_port = htons(static_cast<std::uint16_t>(std::stoi(endpoint.substr(endpoint.rfind(':') + 1))));
  const int sender = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  const std::string valid = "SIP/2.0 200 OK\r\nVia: SIP/2.0/UDP " + endpoint +
                            ";branch=z9hG4bKnobody\r\nFrom: <sip:a@b>;tag=1\r\n"
                            "To: <sip:a@b>;tag=2\r\nCall-ID: x\r\nCSeq: 1 REGISTER\r\nContact: <sip:a@b>;expires=1\r\n"
                            "Content-Length: 0\r\n\r\n";
  std::minstd_rand random(7);
  constexpr int kDatagrams = 20000;
  int sent = 0;
  for (int i = 0; i < kDatagrams; ++i) {
    std::string text = valid;  // every fourth as it is: an answer to nobody
    switch (i % 4) {
      case 0:
        text.resize(random() % 1500);
        for (char& c : text) c = static_cast<char>(random());
        break;
      case 1:
        text.resize(random() % text.size());
        break;
      case 2:
        for (int n = 0; n < 4; ++n) text[random() % text.size()] = static_cast<char>(random());
        break;
      default:
        break;
    }
    if (sendto(sender, text.data(), text.size(), 0, reinterpret_cast<sockaddr*>(&to), sizeof to) >= 0) ++sent;
    if (i % 64 == 0) LiveComponent::PumpFor(1ms);  // at a pace that the receive buffer holds
  }
  close(sender);
  EXPECT_TRUE(LiveComponent::PumpUntil(
      [&] {
        const sipcarrier::Counters counters = sipcarrier::GetCounters();
        return counters.dropped_garbage + counters.dropped_stray >= static_cast<std::uint64_t>(sent) * 9 / 10;
      },
      5s));
  EXPECT_GT(sipcarrier::GetCounters().dropped_garbage, 5000u);
  EXPECT_GT(sipcarrier::GetCounters().dropped_stray, 4000u);
  // Refreshed meanwhile and afterwards, nothing heard but the first success, and deregistered in
  // order.
  const int before = peer.refreshes;
  EXPECT_TRUE(LiveComponent::PumpUntil([&] { return peer.refreshes > before; }, 3s));
  EXPECT_EQ(LiveComponent::failed, 0);
  EXPECT_EQ(LiveComponent::heard[2], 0);
  EXPECT_EQ(LiveComponent::Deregister(id), 0);
  EXPECT_TRUE(LiveComponent::PumpUntil([] { return LiveComponent::heard[1] == 1; }, 2s));
}

}  // namespace
