// The commands that adjust the component, and what templates do to a REGISTER.

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <memory>
#include <regex>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "Brunelib/identities.h"
#include "failing_new.h"
#include "FrontDoor.h"
#include "ParserBaseImpl.h"
#include "RegisterCfg.h"
#include "RegisterProcess.h"
#include "RegLog.h"
#include "WorkDir.h"

namespace {

using fakes::FrontDoor;
using fakes::WorkDir;

class ComponentSettings : public testing::Test {
 protected:
  ~ComponentSettings() override {
    Log(WorkDir::kLogOff);
    Configure("");
  }
  // None of these commands writes a document.
  int Give(int command, const std::string& document) {
    const fakes::Answer answer = door_.Command(command, document);
    EXPECT_EQ(answer.document, "");
    return answer.result;
  }
  int Log(const std::string& document) { return Give(bus::registration::kCommandLogSwitch, document); }
  void Read() { EXPECT_EQ(Give(bus::registration::kCommandReadConfig, ""), 0x40000002); }
  void Configure(const std::string& lines) {
    dir_.Template(lines);
    EXPECT_EQ(Give(bus::registration::kCommandSettings, dir_.Settings()), 0);
    Read();
  }
  // The headers of the last REGISTER.
  [[nodiscard]] const std::string& Sent() const { return door_.sip.sent.back().headers; }
  // "Err text" of each record of the log, "Enter function" of each trace line, without line ends of
  // their own.
  std::vector<std::string> Logged(const std::string& name = "Tolvane.log") {
    static const std::regex kRecord(
        "\\[[^\\]]*\\]\\[P:\\d+/T:\\d+\\]\\[[^:]+:\\d+ ([^(]*)\\(\\)\\]\\[(\\w+)\\]\r\n"
        "(?:Content:\r\n([^\r]*)\r\n)?");
    std::vector<std::string> records;
    const std::string all = dir_.Read(name);
    for (std::sregex_iterator at(all.begin(), all.end(), kRecord), end; at != end; ++at) {
      std::string text = (*at)[3].matched ? (*at)[3].str() : (*at)[1].str();
      if (text.ends_with('\n')) text.pop_back();
      records.push_back((*at)[2].str() + " " + text);
    }
    return records;
  }
  FrontDoor door_;
  WorkDir dir_;
};

TEST_F(ComponentSettings, TemplatesMeetTheHeadersOfARegister) {
  using Headers = std::vector<nsip_header>;
  const char* const cells =
      "X-L: ${local-uri}\nX-R: ${remote-uri}\nX-D: ${display-name}\nX-Q: ${request-uri}\nX-C: ${contact-uri}";
  // The message's own, the template's lines, what they make.
  // clang-format off
  const std::tuple<Headers, const char*, const char*> cases[] = {
      {{{"expires", "600"}}, "expires: 3600", "expires: 3600\n"},
      {{{"Expires", "7200"}}, "expires: 3600", "Expires: 7200\n"},
      {{{"Expires", "3600"}}, "expires: 3600", "expires: 3600\n"},
      {{{"Expires", "0"}}, "expires: 3600", "Expires: 0\n"},
      {{{"Expires", "00"}}, "expires: 0", "expires: 0\n"},
      {{{"A", "1"}, {"Expires", "7200"}}, "expires: 3600\nB: 2", "B: 2\nA: 1\nExpires: 7200\n"},
      {{{"A", "own"}, {"X", "own"}}, "X: 1\nX: 2", "X: 1\nX: 2\nA: own\n"},
      {{{"x", "a"}, {"A", "own"}, {"x", "b"}}, "X: 1", "X: 1\nA: own\nx: b\n"},
      {{{"A", "own"}, {"B", "own"}}, "C: 1\nB: 2", "C: 1\nB: 2\nA: own\n"},
      {{{"A", "own"}}, "", "A: own\n"},
      {{}, cells, "X-L: sip:alice@x\nX-R: sip:remote@example.com\nX-Q: sip:y\nX-C: sip:me@127.0.0.1:5060\n"},
  };
  // clang-format on
  for (const auto& [own, lines, merged] : cases) {
    Configure(lines);
    door_.sip.built_headers = own;
    ASSERT_GT(door_.Register("<aor>sip:alice@x</aor><registrar>y</registrar>"), 0);
    EXPECT_EQ(Sent(), merged) << lines;
  }
  Configure("User-Agent: template\nX-D: ${display-name}\nexpires: 3600");
  door_.sip.built_headers.clear();
  ASSERT_GT(door_.Register("<aor>sip:alice@x</aor><registrar>y</registrar><displayname>Alice</displayname>"
                           "<expires>600</expires><user-agent>own</user-agent>"),
            0);
  EXPECT_EQ(Sent(), "User-Agent: own\nX-D: Alice\nExpires: 600\n");
  // A header that is refused takes nothing away.
  nsip_message own;
  nsip_message_set_header(&own, "X", "own");
  nsip_message bad;
  bad.headers.items.push_back(std::make_unique<nsip_header>(nsip_header{"X", "1\r\nX-Injected: 1"}));
  CRegSipCfg cfg;
  cfg.MergeSipHeaders(&bad, &own);
  cfg.MergeSipHeaders(nullptr, &own);
  cfg.MergeSipHeaders(&bad, nullptr);
  ASSERT_EQ(own.headers.items.size(), 1u);
  EXPECT_EQ(own.headers.items[0]->hvalue, "own");
}

TEST_F(ComponentSettings, AChangeCountsFromTheNextRegisterOn) {
  const int id = door_.Live(fakes::kAlice);
  EXPECT_EQ(Sent(), "Expires: 600\n");
  Configure("X-A: ${local-uri}");
  EXPECT_FALSE(door_.SentIn(std::chrono::seconds(300)).empty());
  EXPECT_EQ(Sent(), "X-A: sip:alice@example.com\nExpires: 600\n");
  // A directory alone changes nothing, and a file with faults is told on the log and changes nothing either.
  EXPECT_EQ(Log(dir_.LogOn("level=\"0\"")), 0);
  dir_.Template("Via: v\nb d: v");
  Read();
  EXPECT_EQ(Give(bus::registration::kCommandSettings, "<system-settings/>"), 0);
  Read();
  door_.Deregister(id);
  EXPECT_EQ(Sent(), "X-A: sip:alice@example.com\n");
  std::string logged;
  for (const std::string& line : Logged()) logged += line + "\n";
  EXPECT_TRUE(std::regex_match(logged, std::regex("Err /.*/TOLVANE.xml:3: .*Via.*\nErr /.*/TOLVANE.xml:4: .*b d.*\n"
                                                  "Err TOLVANE.xml:0: .*\n")))
      << logged;
}

TEST_F(ComponentSettings, LogSwitchDocuments) {
  // What is read: result, switch, path, size, count, level, pause.
  // clang-format off
  const std::pair<const char*, const char*> cases[] = {
      {"<log><log-switch>1</log-switch></log>", "0 1 /log/Tolvane.log 5120 2 -1 -1"},
      {"<log><x/><log-switch path='/a' max-size='7' file-count='3' level='0' pause='0'>tRUE</log-switch></log>",
       "0 1 /a/Tolvane.log 7168 3 0 0"},
      {"<log><log-switch path='a/' max-size='0' file-count='0' level='7' pause='1'>1</log-switch></log>",
       "0 1 a/Tolvane.log 5120 2 7 1"},
      {"<log><log-switch path='' max-size='-1' file-count='-1' level='-2' pause='2'>1</log-switch></log>",
       "0 1 /log/Tolvane.log 5120 2 -1 -1"},
      {"<log><log-switch path='a\\' max-size='9999999999' level='x' pause='-1'>1</log-switch></log>",
       "0 1 a\\/Tolvane.log 2147482624 2 0 -1"},
      {"<log><log-switch path='a' level='1'>FALSE</log-switch></log>", "0 0 /log/Tolvane.log 5120 2 -1 -1"},
      {"<log><log-switch level='1'/></log>", "0 0 /log/Tolvane.log 5120 2 -1 -1"},
      {"<log/>", "0 0 /log/Tolvane.log 5120 2 -1 -1"},
      {"<log-switch>1</log-switch>", "-1 0 /log/Tolvane.log 5120 2 -1 -1"},
      {"", "-1 0 /log/Tolvane.log 5120 2 -1 -1"},
  };
  // clang-format on
  const std::unique_ptr<CRegParserFactory> factory(CRegParserFactoryObj::GetParserFactory(E_PARSER_XML));
  for (const auto& [text, expected] : cases) {
    CXML document;
    document.SetDoc(text);
    const std::unique_ptr<CRegLogSwitch> read(factory->CreateRegLogSwitch());
    const int result = read->Parse(&document);
    std::string all = std::to_string(result) + " " + std::to_string(read->m_bLogSwitch) + " " + read->m_strPath;
    for (int n : {read->m_nMaxSize, read->m_nFileCount, read->m_nLevel, read->m_nPause}) all += " " + std::to_string(n);
    EXPECT_EQ(all, expected) << text;
  }
  const std::unique_ptr<CRegisterConfig> config(factory->CreateRegisterConfig());
  CXML root;
  EXPECT_EQ(config->Parse(&root), 1);
  EXPECT_EQ(config->Parse(nullptr), -1);
  EXPECT_EQ(config->Result(&root), 0);
}

TEST_F(ComponentSettings, TheLogSwitchOpensChangesAndCloses) {
  EXPECT_EQ(Log(WorkDir::kLogOff), 0);  // none there
  EXPECT_EQ(Log("<log-switch>1</log-switch>"), 0x40000005);
  EXPECT_EQ(Log(dir_.LogOn("")), 0);
  EXPECT_EQ(Give(bus::registration::kCommandSettings, "<system-settings><work-dir>/w</work-dir></system-settings>"), 0);
  EXPECT_EQ(Log(dir_.LogOn("level=\"2\"", "other/")), 0);
  EXPECT_EQ(dir_.Read("other/Tolvane.log"), "");
  EXPECT_EQ(Log(dir_.LogOn("pause=\"1\"")), 0);
  EXPECT_EQ(Log(dir_.LogOn("pause=\"0\"")), 0);  // asleep when it says so
  for (const int command : {bus::registration::kCommandLogSwitch, bus::registration::kCommandSettings}) {
    EXPECT_EQ(Give(command, "<x/>"), 0x40000005);
    EXPECT_EQ(TOLVANE_XSCCmdCallBack(command, nullptr, nullptr), 0x40000005);
  }
  ILogOne* const log = GetRegGlobal().m_pLog;
  EXPECT_EQ(Log(WorkDir::kLogOff), 0);
  log->PrintAt(E_LOG_ERROR, "F", "f.cpp", 1, "of who found it a moment before");
  EXPECT_EQ(Log(WorkDir::kLogOff), 0);
  EXPECT_EQ(Log(dir_.LogOn("level=\"2\"")), 0);  // the same file goes on
  const std::vector<std::string> expected = {"Inf CCallProcess::E_LOG_DEBUG!",
                                             "Inf CRegisterProcess::Open log sucess",
                                             "Enter CRegisterProcess::RegSystemSettings",
                                             "Inf m_strCfgPath is /w",
                                             "Leave CRegisterProcess::RegSystemSettings",
                                             "Inf CRegisterProcess::Change log param",
                                             "Inf CRegisterProcess::Change log param",
                                             "Err log node not exist",
                                             "Err CRegisterProcess::Parse Failed!",
                                             "Err input param is null",
                                             "Err CRegisterProcess::Parse Failed!",
                                             "Err system-settings node not exist",
                                             "Err CCallProcess::Parse Failed!",
                                             "Err input param is null",
                                             "Err CCallProcess::Parse Failed!",
                                             "Inf CRegisterProcess::Close log",
                                             "Inf CRegisterProcess::Open log sucess"};
  EXPECT_EQ(Logged(), expected);
}

TEST_F(ComponentSettings, OfTwoThatOpenAtOnceOneFindsItOpen) {
  for (int n = 0; n < 100; ++n) {
    const std::string below = std::to_string(n);
    std::atomic<int> ready{0};
    const auto open = [&](const char* own) {
      const std::string document = dir_.LogOn("level=\"2\"", below + own);
      for (++ready; ready < 2;) {
      }
      Log(document);
    };
    std::thread other(open, "/a");
    open("/b");
    other.join();
    Log(WorkDir::kLogOff);
    const bool first = std::filesystem::exists(dir_.Path() / below / "a");
    EXPECT_NE(first, std::filesystem::exists(dir_.Path() / below / "b")) << n;
  }
}

TEST_F(ComponentSettings, TheLogOfOneRegistration) {
  Configure("X-A: 1");
  for (const int level : {3, 1}) {
    const std::string below = std::to_string(level) + "/";
    ASSERT_EQ(Log(dir_.LogOn("level=\"" + std::to_string(level) + "\"", below)), 0);
    door_.Deregister(door_.Live(fakes::kAlice));
    door_.Deregister(9999);
    REG_LOG(E_LOG_WARNING, "%s", "\xc4\xe3\xba\xc3");  // not UTF-8
    Log(WorkDir::kLogOff);
    const std::vector<std::string> logged = Logged(below + "Tolvane.log");
    const std::vector<std::string> quiet = {"Err DeRegister object is null!", "War \xc4\xe3\xba\xc3"};
    EXPECT_TRUE(level == 3 || logged == quiet);
    for (const char* line :
         {"Enter CRegister::SendRegister", "Leave CRegister::SendRegister", "Enter CRegSipCfg::ConfigureSipMessage",
          "Enter CRegCfgItem::CRegCfgItem", "Leave CRegCfgItem::~CRegCfgItem", "Inf m_stRegInfo.m_nExpires is 600",
          "Inf Deregister id is 9999", quiet[0].c_str(), quiet[1].c_str()}) {
      EXPECT_TRUE(level == 1 || std::find(logged.begin(), logged.end(), line) != logged.end()) << line;
    }
  }
}

TEST_F(ComponentSettings, WithoutMemoryTheMessageIsAsItWas) {
  std::string lines = "X-L: ${local-uri}\n";
  for (const char c : std::string("ABCDEFGHIJ")) lines += std::string("X-") + c + ": too long to be held in place\n";
  Configure(lines);
  int result = -1;
  for (long left = 0; result != 0; ++left) {
    nsip_message message;
    nsip_message_set_header(&message, "X-B", "own");
    failing_new::Limit(left);
    result = GetRegGlobal().m_pRegSipCfg->ConfigureSipMessage("REG", "REGISTER", &message);
    failing_new::Limit(-1);
    ASSERT_EQ(message.headers.items.size(), result == 0 ? 10u : 1u);
    EXPECT_EQ(message.headers.items.back()->hvalue == "own", result != 0);
    ASSERT_LT(left, 1000);
  }
  // A log that cannot be opened is none.
  CXML on;
  on.SetDoc(dir_.LogOn(""));
  for (long left = 0; GetRegGlobal().m_pLog == nullptr; ++left) {
    failing_new::Limit(left);
    result = TOLVANE_XSCCmdCallBack(bus::registration::kCommandLogSwitch, &on, nullptr);
    failing_new::Limit(-1);
    ASSERT_EQ(result, GetRegGlobal().m_pLog != nullptr ? 0 : -1);
  }
}

}  // namespace
