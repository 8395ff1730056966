// Many registrations at once against a registrar that responds late, twice, out of order or not at
// all; garbage on the wire beside a registration; templates on the wire, also while log and
// configuration change.

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <filesystem>
#include <functional>
#include <random>
#include <set>
#include <string_view>
#include <thread>
#include <vector>

#include "Brunelib/identities.h"
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

  void Run(const std::atomic<bool>& over, std::atomic<int>& registered) {
    while (!over) {
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

 private:
  void EndOne() {
    const std::size_t at = random_() % ids_.size();
    const int id = ids_[at];
    ids_.erase(ids_.begin() + static_cast<std::ptrdiff_t>(at));
    const auto end = [id, no_send = random_() % 8 == 0] { LiveComponent::Deregister(id, no_send); };
    if (random_() % 8 == 0) {
      std::thread(end).join();
    } else {
      end();
    }
    if (random_() % 4 == 0) LiveComponent::Deregister(id);  // once too often
  }

  std::minstd_rand random_;
  std::string registrar_;
  std::vector<int> ids_;
};

TEST(ComponentWire, StressLeavesNothingAndSendsNothingAfterAnEnd) {
  constexpr fakes::Manners kManners[] = {{.drop = 10, .twice = 15, .late = 25, .refuse = 3, .too_brief = 5},
                                         {.drop = 15, .twice = 15, .late = 40}};
  int refreshes = 0;
  for (const fakes::Manners& manners : kManners) {
    WirePeer peer(manners);
    std::atomic<int> registered{0};
    {
      LiveComponent component;
      std::atomic<bool> over{false};
      std::vector<std::thread> threads;
      for (unsigned i = 0; i < 4; ++i) {
        threads.emplace_back([&, i] {
          Commander commander(i + 1, peer.Uri());
          commander.Run(over, registered);
          if (i % 2 == 0) commander.EndAll();  // the others leave registrations alive, their loop gone
        });
      }
      EXPECT_TRUE(sip_test::Eventually([&] { return registered > 2000; }, 60s));
      over = true;
      for (std::thread& thread : threads) thread.join();
    }
    refreshes += peer.refreshes;
    EXPECT_GT(peer.removals, 50);
    EXPECT_EQ(CRegister::s_nAlive, 0);
    EXPECT_EQ(sivra::EntryCount(), 0u);
    EXPECT_EQ(peer.cseq_not_above, 0);
    // A 423 to a REGISTER that a deregistration overtook is met once more with its Min-Expires: the
    // one way in which an expiry above 0 follows one of 0.
    EXPECT_LE(peer.after_end, manners.too_brief > 0 ? registered / 10 : 0);
  }
  EXPECT_GT(refreshes, 5);
}

TEST(ComponentWire, GarbageDisturbsNobody) {
  WirePeer peer;
  LiveComponent component(100ms);
  const int id = LiveComponent::Register(peer.Uri(), 2);
  ASSERT_TRUE(LiveComponent::PumpUntil([] { return LiveComponent::succeeded == 1; }, 10s));

  const std::string endpoint = sipcarrier::LocalEndpoints().front();
  sip_test::Peer sender(AF_INET, std::stoi(endpoint.substr(endpoint.rfind(':') + 1)));
  const std::string valid = "SIP/2.0 200 OK\r\nVia: SIP/2.0/UDP " + endpoint +
                            ";branch=z9hG4bKnobody\r\nFrom: <sip:a@b>;tag=1\r\nTo: <sip:a@b>;tag=2\r\nCall-ID: x\r\n"
                            "CSeq: 1 REGISTER\r\nContact: <sip:a@b>;expires=1\r\nContent-Length: 0\r\n\r\n";
  std::minstd_rand random(7);
  constexpr unsigned kDatagrams = 20000;
  for (unsigned i = 0; i < kDatagrams; ++i) {
    // Noise, cut off, with wrong bytes, and as it is: a response to no request.
    std::string text = valid.substr(0, i % 4 == 1 ? random() % valid.size() : valid.size());
    if (i % 4 == 0) text.resize(random() % 1500);
    for (std::size_t n = i % 4 == 0 ? text.size() : i % 4 == 2 ? 4 : 0; n > 0; --n) {
      text[i % 4 == 0 ? n - 1 : random() % text.size()] = static_cast<char>(random());
    }
    sender.Send(text);
    if (i % 64 == 0) LiveComponent::PumpFor(1ms);  // at a pace that the receive buffer holds
  }
  const auto dropped = [] {
    const sipcarrier::Counters counters = sipcarrier::GetCounters();
    return std::pair(counters.dropped_garbage, counters.dropped_garbage + counters.dropped_stray);
  };
  EXPECT_TRUE(LiveComponent::PumpUntil([&] { return dropped().second >= kDatagrams * 9 / 10; }, 20s));
  EXPECT_GT(dropped().first, 5000u);
  EXPECT_GT(dropped().second - dropped().first, 4000u);
  // Refreshed meanwhile and afterwards, nothing heard but the first success, and deregistered in order.
  const int before = peer.refreshes;
  EXPECT_TRUE(LiveComponent::PumpUntil([&] { return peer.refreshes > before; }, 10s));
  EXPECT_EQ(LiveComponent::failed + LiveComponent::heard[2], 0);
  EXPECT_EQ(LiveComponent::Deregister(id), 0);
  EXPECT_TRUE(LiveComponent::PumpUntil([] { return LiveComponent::heard[1] == 1; }, 10s));
}

TEST(ComponentWire, TemplatesAndWhatTheyCannotCarry) {
  const WorkDir dir;
  // What the command says, and what of the message stands in one piece; null: none leaves.
  // clang-format off
  const std::pair<const char*, const char*> cases[] = {
      {"<aor>sip:alice@example.com</aor><displayname>Alice</displayname><expires>600</expires>"
       "<user-agent>own</user-agent>",
       "\r\nX-First: sip:alice@example.com\r\nX-Name: (Alice)\r\nX-Literal: ${x}\r\nExpires: 600\r\n"
       "User-Agent: own\r\nX-Last: 1\r\n"},
      {"<aor>sip:a&#13;&#10;X-Injected: 1@b</aor>", nullptr},
      {"<aor>sip:a%0d%0aX-Injected@b</aor>", "\r\nX-First: sip:a%0d%0aX-Injected@b\r\nX-Literal"},
      {"<aor>sip:a@b</aor><displayname>A&#13;&#10;X-Injected: 1</displayname>", nullptr},
      {"<aor>sip:a@b</aor><displayname>\"A&#13;&#10;X-Injected: 1\" </displayname>", nullptr},
      {"<aor>sip:a@b</aor><displayname>&lt;sip:b@c&gt;&#10;X-Injected: 1</displayname>", nullptr},
      {"<aor>sip:a@b</aor><expires>600</expires><user-agent>A&#13;&#10;X-Injected: 1</user-agent>",
       "\r\nExpires: 600\r\nUser-Agent: template\r\n"},
  };
  // clang-format on
  for (const auto& [children, lines] : cases) {
    SCOPED_TRACE(children);
    sip_test::Peer peer;
    const LiveComponent component(1ms);
    dir.Template(
        "X-First: ${local-uri}\nX-Name: (${display-name})\nX-Literal: $${x}\nexpires: 3600\n"
        "User-Agent: template\nX-Last: 1");
    EXPECT_EQ(LiveComponent::Command(bus::registration::kCommandSettings, dir.Settings()), 0);
    LiveComponent::Command(bus::registration::kCommandReadConfig, "");
    dir.Template("X-Last: 1&#13;&#10;X-Injected: 1");  // refused, and the former one stays
    LiveComponent::Command(bus::registration::kCommandReadConfig, "");
    const std::string registrar = "<registrar>sip:127.0.0.1:" + std::to_string(peer.port()) + "</registrar>";
    EXPECT_EQ(LiveComponent::Command(3, "<reg>" + (children + registrar) + "</reg>"), lines == nullptr ? -1 : 0);
    if (lines == nullptr) continue;
    const std::string text = peer.Receive();
    EXPECT_NE(text.find(lines), std::string::npos) << text;
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

// Registrations come and go while the log is switched and the templates are read again. Two writers number their
// records; each record that met an open log must stand in a file, once and whole.
class ChangeUnderTraffic {
 public:
  ~ChangeUnderTraffic() { LiveComponent::on_trace = nullptr; }

  void Run() {
    LiveComponent::on_trace = WatchTemplates;
    const LiveComponent component;
    ReadTemplatesAgain(0);
    for (unsigned writer = 0; writer < 2; ++writer) {
      threads_.emplace_back([this, writer] { Commander(writer + 21, peer_.Uri()).Run(over_, registered_); });
      Repeat(100us, [this, writer](int n) { WriteRecord(writer, n); });
    }
    Repeat(0us, [this](int n) { OpenAndClose(n); });
    Repeat(200us, [this](int n) { OpenAnother(n); });
    Repeat(1ms, [this](int n) { ReadTemplatesAgain(n); });
    EXPECT_TRUE(sip_test::Eventually([this] { return HasSeenEnough(); }, 60s));
    over_ = true;
    for (std::thread& thread : threads_) thread.join();
    SwitchOff();
  }
  void ExpectEveryRecordOnceAndWhole() {
    std::array<std::set<int>, 2> seen;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(dir_.Path())) {
      if (!entry.path().filename().string().ends_with("Tolvane.log")) continue;
      EXPECT_TRUE(ReadLog(dir_.Read(entry.path()), seen)) << entry.path();
      EXPECT_LT(entry.file_size(), std::size_t{1100} * 1024);
    }
    for (std::size_t writer = 0; writer < owed_.size(); ++writer) {
      for (const int n : owed_[writer]) ASSERT_TRUE(seen[writer].contains(n)) << n;
    }
  }

 private:
  // Has a thread do this again and again, with a number that rises.
  void Repeat(std::chrono::microseconds pause, const std::function<void(int)>& step) {
    threads_.emplace_back([this, pause, step] {
      for (int n = 0; !over_; ++n) {
        step(n);
        std::this_thread::sleep_for(pause);
      }
    });
  }
  void WriteRecord(unsigned writer, int n) {
    const unsigned before = epoch_;
    // clang-format off
    if (n % 2 == 0) { REG_LOG(E_LOG_WARNING, "@%u %d %d", writer, n, __LINE__); }
    else { REG_LOG(E_LOG_ERROR, "@%u %d %d", writer, n, __LINE__); }
    // clang-format on
    if (before % 2 != 0 || epoch_ != before) return;
    owed_[writer].push_back(n);
    ++owed_count_[writer];
  }
  void ReadTemplatesAgain(int n) {
    dir_.Template("X-A: " + std::to_string(n % 10) + "\nX-B: " + std::to_string(n % 10));
    EXPECT_EQ(LiveComponent::Command(bus::registration::kCommandSettings, dir_.Settings()), 0);
    EXPECT_EQ(LiveComponent::Command(bus::registration::kCommandReadConfig, ""), 0x40000002);
  }
  void OpenAndClose(int n) {
    SwitchOn(n, "level=\"3\"" + kSizes);
    ++epoch_;
    std::this_thread::sleep_for(2ms);
    SwitchOn(n, "level=\"1\"");
    std::this_thread::sleep_for(2ms);
    ++epoch_;
    for (const char* pause : {"pause=\"1\"", "pause=\"0\""}) SwitchOn(n, n % 4 == 0 ? pause : "");
    SwitchOff();
  }
  void OpenAnother(int n) { SwitchOn(n + 1, "level=\"2\"" + kSizes); }
  void SwitchOn(int n, const std::string& attributes) {
    EXPECT_EQ(
        LiveComponent::Command(bus::registration::kCommandLogSwitch, dir_.LogOn(attributes, std::to_string(n % 3))), 0);
  }
  static void SwitchOff() {
    EXPECT_EQ(LiveComponent::Command(bus::registration::kCommandLogSwitch, WorkDir::kLogOff), 0);
  }
  [[nodiscard]] bool HasSeenEnough() const {
    return owed_count_[0] > 2000 && owed_count_[1] > 2000 && g_whole > 50 && HasRotated();
  }
  [[nodiscard]] bool HasRotated() const {
    return std::ranges::any_of(std::filesystem::recursive_directory_iterator(dir_.Path()),
                               [](const auto& entry) { return entry.path().filename() == "1_Tolvane.log"; });
  }

  const std::string kSizes = " max-size=\"1\" file-count=\"1000\"";
  const WorkDir dir_;
  WirePeer peer_{{.drop = 5, .late = 10}};
  std::atomic<bool> over_{false};
  std::atomic<int> registered_{0};
  std::atomic<unsigned> epoch_{1};  // even: the log is open and awake
  // Of each writer, the numbers of the records that met an open log, and how many they are.
  std::array<std::vector<int>, 2> owed_;
  std::array<std::atomic<int>, 2> owed_count_{};
  std::vector<std::thread> threads_;
};

TEST(ComponentWire, LogAndTemplatesChangeUnderTraffic) {
  ChangeUnderTraffic change;
  change.Run();
  change.ExpectEveryRecordOnceAndWhole();
  EXPECT_EQ(g_mixed, 0);
  EXPECT_EQ(CRegister::s_nAlive, 0);
}

}  // namespace
