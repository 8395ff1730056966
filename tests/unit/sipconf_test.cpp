#include <gtest/gtest.h>
#include <sys/stat.h>

#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <new>
#include <thread>

#include "failing_new.h"
#include "Sipcarrier/Sipcarrier.h"
#include "WorkDir.h"

namespace {

const std::string kHalf(9000, 'h');  // more than half of what the headers may come to
const std::map<std::string, std::string> kCells = {{"a", "A"},
                                                   {"b", "${a}$${a}"},
                                                   {"cr", "x\r\nX-Injected: 1"},
                                                   {"del", "\x7F"},
                                                   {"empty", ""},
                                                   {"half", kHalf},
                                                   {"local-uri", "sip:a@b"},
                                                   {"n", "60"},
                                                   {"nul", std::string("x\0y", 3)},
                                                   {"request-uri", "sip:b"},
                                                   {"tab", "a\tb"}};

std::string File(const std::string& name, const std::string& value, int headers = 1) {
  const std::string header = "\n<header name='" + name + "'>" + value + "</header>";
  std::string text = "<sip-messages>\n<message kind='REG' method='REGISTER'>";
  while (headers-- > 0) text += header;
  return text + "</message></sip-messages>";
}

// A configuration in a directory of its own.
struct SipConf : testing::Test {
  SipConf() { conf.SetCfgPath(dir); }
  // The next template, "= NAME: VALUE | ...", or "null".
  std::string Get(const std::map<std::string, std::string>& cells = kCells) {
    conf.SetTransferCell(cells);
    const nsip_message* message = conf.GetSipMsg("REG", "REGISTER", nullptr);
    if (message == nullptr) return "null";
    std::string text = "=";
    std::this_thread::yield();
    for (const auto& header : message->headers.items) text += " " + header->hname + ": " + header->hvalue + " |";
    return text;
  }
  // Reads again: the template then in force, or what is wrong, "@ LINE REASON" in lines.
  std::string Outcome(const std::string& file) {
    const std::string former = Get();
    const bool good = conf.ReadConfFromFile() == 0;
    EXPECT_EQ(conf.Faults().empty(), good);
    if (good) return Get();
    EXPECT_EQ(Get(), former);
    std::string text;
    for (const auto& fault : conf.Faults()) {
      EXPECT_EQ(fault.file, file);
      text += (text.empty() ? "@ " : "\n@ ") + std::to_string(fault.line) + " " + fault.reason;
    }
    return text;
  }
  std::string OutcomeOf(const std::string& text) {
    work.Write(text);
    return Outcome(dir + "/TOLVANE.xml");
  }

  const fakes::WorkDir work;
  const std::string dir = work.Path();
  CVorelSipConf conf{"TOLVANE"};
};

// The table: outcome in one or more lines, then the file.
TEST_F(SipConf, FilesGiveTheirTemplatesOrAllTheirFaultsInOrder) {
  std::ifstream table(CASES);
  std::string expected;
  std::string file;
  int cases = 0;
  for (std::string line; std::getline(table, line) || !file.empty();) {
    const bool is_outcome = !table || line.starts_with("@ ") || line[0] == '=' || line == "null";
    if (is_outcome && !file.empty()) {
      EXPECT_EQ(OutcomeOf(file), expected) << file;
      file = expected = "";
      ++cases;
    }
    if (is_outcome) expected += (expected.empty() ? "" : "\n") + line;
    if (!is_outcome) file += line + "\n";
  }
  EXPECT_GT(cases, 15);
}

TEST_F(SipConf, BoundsHold) {
  const std::string many =
      " the headers of this message become too many from here on; it may have 100, of 16384 bytes in all";
  EXPECT_EQ(OutcomeOf(File("X", "v", 101)), "@ 103" + many);
  EXPECT_EQ(OutcomeOf(File("X", kHalf, 2)), "@ 4" + many);
  EXPECT_EQ(OutcomeOf(std::string(65537, ' ')), "@ 0 is longer than 65536 bytes; shorten it");
  EXPECT_TRUE(OutcomeOf(File("Via", "\t", 99)).ends_with("@ 28 there are more faults; mend those above first"));
  EXPECT_EQ(conf.Faults().size(), 51U);
  EXPECT_EQ(OutcomeOf(File("X", "${half}", 2)), "= X: " + kHalf + " |");
}

TEST_F(SipConf, WhatIsNoFileIsRefusedAtOnce) {
  const std::string file = dir + "/TOLVANE.xml";
  EXPECT_EQ(OutcomeOf(File("X", "v")), "= X: v |");
  conf.SetCfgPath("");
  EXPECT_EQ(Outcome("TOLVANE.xml"), "@ 0 no directory has been set for it; set the work-dir first");
  conf.SetCfgPath("/tmp\nx.xml:1: fine");
  EXPECT_EQ(Outcome("/tmp?x.xml:1: fine/TOLVANE.xml"), "@ 0 the directory's name holds a control character");
  conf.SetCfgPath(dir + "/");
  std::filesystem::remove(file);
  EXPECT_EQ(Outcome(file), "@ 0 cannot be opened: No such file or directory");
  ASSERT_EQ(mkfifo(file.c_str(), 0600), 0);
  EXPECT_EQ(Outcome(file), "@ 0 is no regular file");
}

TEST_F(SipConf, TheExampleIsValidAndCellsServeOneStepOfOneConfiguration) {
  conf.SetCfgPath(EXAMPLE_DIR);
  EXPECT_EQ(Outcome(EXAMPLE_DIR "/TOLVANE.xml"),
            "= X-Access-Network: wlan;site=harbour-3 | X-Account: sip:a@b;via=sip:b | "
            "X-Help: <sip:help@tolvane.example> | X-Note: ${literally} |");
  EXPECT_EQ(conf.Messages().at(0).headers.at(1).value, "${local-uri};via=${request-uri}");
  EXPECT_EQ(conf.GetSipMsg("REG", "REGISTER", nullptr)->headers.items.size(), 3U);
  CVorelSipConf("OTHER").SetTransferCell(kCells);
  EXPECT_EQ(conf.GetSipMsg("REG", "REGISTER", nullptr)->headers.items.size(), 3U);
}

// Each thread's template is whole, of one file, and good until its next step.
TEST_F(SipConf, ThreadsFillWhileOthersRead) {
  for (const std::string name : {"/a", "/b"}) {
    std::filesystem::create_directory(dir + name);
    std::ofstream(dir + name + "/TOLVANE.xml") << File("X", name + "${k}", 3);
  }
  conf.SetCfgPath(dir + "/a");
  ASSERT_EQ(conf.ReadConfFromFile(), 0);
  std::atomic<int> reading{2};
  std::atomic<int> wrong{0};
  const auto fill = [&](const std::string& key) {
    const auto whole = [&key](const std::string& name) {
      const std::string header = " X: " + name + key + " |";
      return "=" + header + header + header;
    };
    do {
      const std::string got = Get({{"k", key}});
      wrong += got == whole("/a") || got == whole("/b") ? 0 : 1;
      wrong += conf.Messages().size() == 1 && conf.Faults().size() <= 1 ? 0 : 1;
    } while (reading > 0);
  };
  const auto read = [&] {
    for (int turn = 0; turn < 150; ++turn) {
      conf.SetCfgPath(dir + (turn % 3 == 0 ? "/a" : turn % 3 == 1 ? "/b" : "/none"));
      conf.ReadConfFromFile();
    }
    --reading;
  };
  std::thread threads[] = {std::thread(fill, "1"), std::thread(fill, "2"), std::thread(read), std::thread(read)};
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(wrong, 0);
}

// Each allocation fails once, alone and with all that follow, of reading and filling.
TEST_F(SipConf, EveryAllocationMayFailAndTheFormerTemplatesStay) {
  const auto write = [this](const std::string& name) { work.Write(File(name, "a value that is no short one ${a}")); };
  for (const auto& [name, more] : {std::pair{"X-New", 0L}, {"X-New", 1L << 30}, {"Via", 0L}, {"Via", 1L << 30}}) {
    int failures = 0;
    bool over = false;
    for (long n = 1; !over; ++n) {
      ASSERT_LT(n, 1000);
      write("X-Former");
      ASSERT_EQ(conf.ReadConfFromFile(), 0);
      write(name);
      failing_new::TakePart(true);
      failing_new::Fail(n, n + more);
      const bool good = conf.ReadConfFromFile() == 0;
      try {
        conf.SetTransferCell(kCells);
        const nsip_message* message = conf.GetSipMsg("REG", "REGISTER", nullptr);
        failing_new::TakePart(false);
        EXPECT_EQ(message->headers.items.at(0)->hname, good ? name : "X-Former") << n;
      } catch (const std::bad_alloc&) {
        failing_new::TakePart(false);
        ++failures;
      }
      over = failing_new::Fail(0, 0) < n;
      EXPECT_TRUE(!over || good == (name == std::string("X-New")));
    }
    EXPECT_GT(failures, 4);
  }
}

}  // namespace
