// Many registrations at once against a registrar that answers late, twice, out of order or not at
// all; garbage on the wire beside a registration; templates on the wire, also while log and
// configuration change.

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cstring>
#include <random>
#include <set>
#include <string_view>
#include <thread>
#include <vector>

#include "LiveComponent.h"
#include "Register.h"
#include "RegisterProcess.h"
#include "RegLog.h"
#include "sipcarrier_peer.h"
#include "sivra/sivra.h"
#include "WirePeer.h"
#include "WorkDir.h"

namespace {

using fakes::LiveComponent;
using fakes::WirePeer;
using fakes::WorkDir;
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

TEST(ComponentWire, TemplatesAndWhatTheyCannotCarry) {
  const WorkDir dir;
  struct Case {
    const char* children;
    bool leaves;
    const char* lines;  // of the message, in one piece
  };
  // clang-format off
  const Case cases[] = {
      {"<aor>sip:alice@example.com</aor><displayname>Alice</displayname><expires>600</expires>"
       "<user-agent>own</user-agent>", true,
       "\r\nX-First: sip:alice@example.com\r\nX-Name: (Alice)\r\nX-Literal: ${x}\r\nExpires: 600\r\n"
       "User-Agent: own\r\nX-Last: 1\r\n"},
      {"<aor>sip:a&#13;&#10;X-Injected: 1@b</aor>", false, ""},
      {"<aor>sip:a%0d%0aX-Injected@b</aor>", true, "\r\nX-First: sip:a%0d%0aX-Injected@b\r\nX-Literal"},
      {"<aor>sip:a@b</aor><displayname>A&#13;&#10;X-Injected: 1</displayname>", false, ""},
      {"<aor>sip:a@b</aor><displayname>\"A&#13;&#10;X-Injected: 1\" </displayname>", false, ""},
      {"<aor>sip:a@b</aor><displayname>&lt;sip:b@c&gt;&#10;X-Injected: 1</displayname>", false, ""},
      {"<aor>sip:a@b</aor><expires>600</expires><user-agent>A&#13;&#10;X-Injected: 1</user-agent>", true,
       "\r\nExpires: 600\r\nUser-Agent: template\r\n"},
  };
  // clang-format on
  for (const Case& c : cases) {
    SCOPED_TRACE(c.children);
    sip_test::Peer peer;
    const LiveComponent component(1ms);
    dir.Template(
        "X-First: ${local-uri}\nX-Name: (${display-name})\nX-Literal: $${x}\nexpires: 3600\n"
        "User-Agent: template\nX-Last: 1");
    EXPECT_EQ(LiveComponent::Command(E_REG_CMD_SYSTEM_SETTINGS, dir.Settings()), 0);
    LiveComponent::Command(E_REG_CMD_READ_CONF, "");
    dir.Template("X-Last: 1&#13;&#10;X-Injected: 1");  // refused, and the former one stays
    LiveComponent::Command(E_REG_CMD_READ_CONF, "");
    const int result = LiveComponent::Command(3, "<reg>" + std::string(c.children) + "<registrar>" + "sip:127.0.0.1:" +
                                                     std::to_string(peer.port()) + "</registrar></reg>");
    EXPECT_EQ(result, c.leaves ? 0 : -1);
    if (!c.leaves) continue;
    const std::string text = peer.Receive();
    EXPECT_NE(text.find(c.lines), std::string::npos) << text;
    EXPECT_EQ(text.find("\nX-Injected"), std::string::npos) << text;
  }
}

// Takes a log's file apart; false where it is not made of whole lines and records. The texts of the
// loggers below are "@thread number line".
bool ReadLog(std::string_view all, std::array<std::set<int>, 2>& seen) {
  const auto line = [&all] {
    const std::string_view found = all.substr(0, all.find("\r\n"));
    all.remove_prefix(std::min(all.size(), found.size() + 2));
    return found;
  };
  while (!all.empty()) {
    const std::string head(line());
    if (head.starts_with("Begin Time:")) continue;
    int place = 0;
    char word[8] = "";
    std::sscanf(head.c_str(), "[%*[^]]][P:%*d/T:%*d][%*[^:]:%d %*[^]]][%7[A-Za-z]", &place, word);
    if (*word == '\0' || std::count(head.begin(), head.end(), '[') != 4 || head.back() != ']') return false;
    if (std::strlen(word) == 5) continue;  // Enter, Leave
    if (line() != "Content:") return false;
    const std::string text(line());
    if (text.empty() || text[0] != '@') continue;
    unsigned thread = 2;
    int number = 0;
    int at = 0;
    std::sscanf(text.c_str(), "@%u %d %d", &thread, &number, &at);
    const bool mine = place == at && std::string_view(number % 2 == 0 ? "War" : "Err") == word;
    if (thread > 1 || !mine || !seen[thread].insert(number).second) return false;
  }
  return true;
}

std::atomic<int> g_whole{0};
std::atomic<int> g_mixed{0};

// A REGISTER has all of one template, whichever it is.
void WatchTemplates(const sipcarrier::TraceRecord& record) {
  if (!record.sent) return;
  const auto at = record.text.find("\r\nX-A: ");
  const bool whole = at != std::string_view::npos && record.text[at + 7] == record.text[at + 15];
  ++(whole ? g_whole : g_mixed);
}

TEST(ComponentWire, LogAndTemplatesChangeUnderTraffic) {
  const auto end = std::chrono::steady_clock::now() + 3s;
  const auto goes_on = [end] { return std::chrono::steady_clock::now() < end; };
  const WorkDir dir;
  WirePeer peer({.drop = 5, .late = 10});
  LiveComponent::on_trace = WatchTemplates;
  std::array<std::vector<int>, 2> owed;  // numbers of records that met an open log
  std::array<std::set<int>, 2> seen;
  {
    LiveComponent component;
    const auto configure = [&](int n) {
      dir.Template("X-A: " + std::to_string(n % 10) + "\nX-B: " + std::to_string(n % 10));
      EXPECT_EQ(LiveComponent::Command(E_REG_CMD_SYSTEM_SETTINGS, dir.Settings()), 0);
      EXPECT_EQ(LiveComponent::Command(E_REG_CMD_READ_CONF, ""), 0x40000002);
    };
    const auto on = [&](unsigned n, const char* attributes) {
      EXPECT_EQ(LiveComponent::Command(E_REG_CMD_LOG_SWITCH, dir.LogOn(attributes, std::to_string(n % 3))), 0);
    };
    configure(0);
    std::atomic<unsigned> epoch{1};  // even: the log is open and awake
    std::vector<std::thread> threads;
    for (unsigned i = 0; i < 2; ++i) {
      threads.emplace_back([&peer, i] { Commander(i + 21, peer.Uri()).Run(3s); });
      threads.emplace_back([&, i] {
        for (int n = 0; goes_on(); ++n) {
          const unsigned before = epoch;
          // clang-format off
          if (n % 2 == 0) { REG_LOG(E_LOG_WARNING, "@%u %d %d", i, n, __LINE__); }
          else { REG_LOG(E_LOG_ERROR, "@%u %d %d", i, n, __LINE__); }
          // clang-format on
          if (before % 2 == 0 && epoch == before) owed[i].push_back(n);
          if (n % 4 == 0) std::this_thread::sleep_for(500us);
        }
      });
    }
    threads.emplace_back([&] {
      for (unsigned n = 1; goes_on(); ++n) {
        on(n, "level=\"2\" max-size=\"1\" file-count=\"1000\"");
        std::this_thread::sleep_for(200us);
      }
    });
    threads.emplace_back([&] {
      for (int n = 1; goes_on(); ++n) {
        configure(n);
        std::this_thread::sleep_for(1ms);
      }
    });
    for (unsigned n = 0; goes_on(); ++n) {
      on(n, "level=\"3\" max-size=\"1\" file-count=\"1000\"");
      ++epoch;
      std::this_thread::sleep_for(2ms);
      on(n, "level=\"1\"");
      std::this_thread::sleep_for(2ms);
      ++epoch;
      if (n % 4 == 0) {
        on(n, "pause=\"1\"");
        on(n, "pause=\"0\"");
      }
      EXPECT_EQ(LiveComponent::Command(E_REG_CMD_LOG_SWITCH, WorkDir::kLogOff), 0);
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(LiveComponent::Command(E_REG_CMD_LOG_SWITCH, WorkDir::kLogOff), 0);
  }
  LiveComponent::on_trace = nullptr;
  int files = 0;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(dir.Path())) {
    if (!entry.path().filename().string().ends_with("Tolvane.log")) continue;
    EXPECT_TRUE(ReadLog(dir.Read(entry.path()), seen)) << entry.path();
    EXPECT_LT(entry.file_size(), std::size_t{1100} * 1024);
    ++files;
  }
  EXPECT_GE(files, 3);
  for (std::size_t i = 0; i < owed.size(); ++i) {
    EXPECT_GT(owed[i].size(), 1000u);
    for (const int n : owed[i]) ASSERT_TRUE(seen[i].contains(n)) << n;
  }
  EXPECT_GT(g_whole, 300);
  EXPECT_EQ(g_mixed, 0);
  EXPECT_EQ(CRegister::s_nAlive, 0);
}

}  // namespace
