#include <sys/stat.h>

#include <atomic>
#include <thread>

#include "sipconf_support.h"

namespace {

std::string Header(const std::string& name, const std::string& value) {
  return "<header name='" + name + "'>" + value + "</header>\n";
}
std::string Many(int count, const std::string& text) {
  std::string all;
  while (count-- > 0) all += text;
  return all;
}

TEST_F(ConfFixture, EveryFaultIsToldWithItsLineAndChangesNothing) {
  const auto file = ConfFixture::File;
  ASSERT_EQ(Read(file(Header("X-Former", "here"))), 0);
  const struct {
    std::string text;
    int line;  // of the first fault
    const char* reason;
  } cases[] = {
      {"", 1, "no element found"},
      {"<sip-messages>\n<message>\n</sip-messages>", 3, "column 3: mismatched tag"},
      {"<!DOCTYPE a><sip-messages/>", 1, "document type"},
      {"<sip-messages>\n</sip-messages>\n<more/>", 3, "junk"},
      {"<messages/>", 1, "unknown element \"messages\""},
      {"\n<sip-messages version='1'/>", 2, "unknown attribute \"version\""},
      {"<sip-messages>\nhello<message kind='a' method='b'/></sip-messages>", 1, "text where only elements"},
      {"<sip-messages>\n<massage kind='a' method='b'/></sip-messages>", 2, "unknown element \"massage\""},
      {"<sip-messages>\n<message method='b'/></sip-messages>", 2, "\"kind\" of <message> is missing"},
      {"<sip-messages>\n<message kind='a' method=''/></sip-messages>", 2, "\"method\" of <message> is missing"},
      {"<sip-messages>\n<message kind='a' method='b' id='1'/></sip-messages>", 2, "unknown attribute \"id\""},
      {file("text"), 2, "text where only elements"},
      {file("\n<heather name='X'/>"), 4, "unknown element \"heather\""},
      {file("<header>v</header>"), 3, "\"name\" of <header> is missing"},
      {file("<header name='X' value='v'/>"), 3, "unknown attribute \"value\""},
      {file("<header name='X'>a<b/></header>"), 3, "unknown element \"b\""},
      {file(Header("X-A b", "v")), 3, "no token"},
      {file(Header("X&#10;\x7F:", "v")), 3, "\"X??:\" is no token"},
      {file(Header("X", "&#9;v")), 3, "control"},
      {file(Header("X", "v&#13;&#10;X-Injected: 1")), 3, "broken over lines"},
      {file(Header("X", "\nv\n")), 3, "broken over lines"},
      {file(Header("X", "v\x7F")), 3, "control"},
      {file(Header("X", "a ${key")), 3, "no \"}\""},
      {file(Header("X", "${}")), 3, "no key"},
      {file(Header("X", "${a ${b}")), 3, "no \"}\""},
      {file(Header("X", std::string(17000, 'v'))), 3, "become too many"},
      {file(Many(101, Header("X", "v"))), 103, "become too many"},
      {file(Header("EXPIRES", "soon")), 3, "number of seconds"},
      {file(Header("expires", "")), 3, "number of seconds"},
      {file(Header("expires", "4294967296")), 3, "number of seconds"},
      {file(Header("expires", "1") + Header("Expires", "1")), 4, "second Expires"},
      {std::string(70000, ' '), 0, "longer than 65536 bytes"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.text.substr(0, 200));
    EXPECT_NE(Read(c.text), 0);
    const auto faults = conf.Faults();
    ASSERT_EQ(faults.size(), 1U);
    EXPECT_EQ(faults[0].file, dir + "/TOLVANE.xml");
    EXPECT_EQ(faults[0].line, c.line);
    EXPECT_NE(faults[0].reason.find(c.reason), std::string::npos) << faults[0].reason;
    EXPECT_EQ(Get(), "X-Former: here\n");
  }
  for (const char* name :
       {"Via", "From", "To", "Call-ID", "CSeq", "Contact", "Max-Forwards", "Content-Length", "Authorization",
        "Proxy-Authorization", "Route", "Record-Route", "ROUTE", "v", "f", "t", "i", "m", "L"}) {
    ASSERT_NE(Read(file(Header(name, "v"))), 0) << name;
    EXPECT_NE(conf.Faults().at(0).reason.find("stack's own"), std::string::npos) << name;
  }
}

TEST_F(ConfFixture, AllFaultsOfAFileAreToldInTheOrderOfItsLinesUpToABound) {
  EXPECT_NE(Read("<sip-messages a=''>\n<x/>\n<message>\n" + Header("Via", "\t${") + "<y/>\n</message></sip-messages>"),
            0);
  std::string lines;
  for (const auto& fault : conf.Faults()) lines += std::to_string(fault.line) + " ";
  EXPECT_EQ(lines, "1 2 3 3 4 4 5 ");
  EXPECT_NE(Read(File(Many(500, "<x/>\n"))), 0);
  const auto faults = conf.Faults();
  ASSERT_EQ(faults.size(), 51U);
  EXPECT_EQ(faults[50].reason, "there are more faults; mend those above first");
  EXPECT_EQ(Read(File("")), 0);
  EXPECT_TRUE(conf.Faults().empty());
  EXPECT_EQ(Get(), "");
}

TEST_F(ConfFixture, WhatIsNoFileIsRefusedAtOnce) {
  ASSERT_EQ(Read(File(Header("X", "v"))), 0);
  const auto fails = [&](const std::string& path, const std::string& file, const char* reason) {
    conf.SetCfgPath(path);
    EXPECT_NE(conf.ReadConfFromFile(), 0);
    const auto faults = conf.Faults();
    ASSERT_EQ(faults.size(), 1U);
    EXPECT_EQ(faults[0].file + " " + std::to_string(faults[0].line), file + " 0");
    EXPECT_NE(faults[0].reason.find(reason), std::string::npos) << faults[0].reason;
    EXPECT_EQ(Get(), "X: v\n");
  };
  fails(dir + "/none/", dir + "/none/TOLVANE.xml", "No such file or directory");
  fails("", "TOLVANE.xml", "no directory has been set");
  fails("/tmp\nTOLVANE.xml:1: all is well", "/tmp?TOLVANE.xml:1: all is well/TOLVANE.xml", "control character");
  const std::string file = dir + "/TOLVANE.xml";
  std::filesystem::remove(file);
  ASSERT_EQ(mkfifo(file.c_str(), 0600), 0);
  fails(dir, file, "no regular file");
  std::filesystem::remove(file);
  std::filesystem::create_directory(file);
  fails(dir + "/", file, "no regular file");
}

TEST_F(ConfFixture, CellsAreInsertedOnceAndNothingElse) {
  const std::map<std::string, std::string> cells = {{"a", "A"},
                                                    {"empty", ""},
                                                    {"b", "${a}$${a}"},
                                                    {"cr", "x\r\nX-Injected: 1"},
                                                    {"tab", "a\tb"},
                                                    {"del", "\x7F"},
                                                    {"n", "60"},
                                                    {"nul", std::string("x\0y", 3)},
                                                    {"half", std::string(9000, 'h')},
                                                    {"long", std::string(16384, 'l')}};
  const struct {
    std::string headers, expected;
  } cases[] = {
      {Header("X", "  a b  "), "X: a b\n"},
      {Header("X", ""), "X: \n"},
      {Header("X", "&lt;${a}>;${empty}${a}"), "X: <A>;A\n"},
      {Header("X", "$${a} $$${a} $a $ {a} $"), "X: ${a} $${a} $a $ {a} $\n"},
      {Header("X", "${b}"), "X: ${a}$${a}\n"},
      {Header("X", "${a}${none}") + Header("Y", "${A}") + Header("k", "${a}"), "k: A\n"},
      {Header("X", "${cr}") + Header("X", "${tab}") + Header("X", "${del}") + Header("X", "${nul}"), ""},
      {Header("X", "${long}") + Header("Y", "1"), "Y: 1\n"},
      {Header("X", "${half}") + Header("Y", "${half}") + Header("Z", "1"), "X: " + std::string(9000, 'h') + "\nZ: 1\n"},
      {Header("Expires", "60"), "expires: 60\n"},
      {Header("EXPIRES", "${n}0"), "expires: 600\n"},
      {Header("expires", "${a}"), ""},
  };
  for (const auto& c : cases) {
    ASSERT_EQ(Read(File(c.headers)), 0) << c.headers;
    conf.SetTransferCell(cells);
    EXPECT_EQ(Get(), c.expected) << c.headers;
  }
  // The cells are one step's, of one configuration.
  ASSERT_EQ(Read(File(Header("X", "${a}") + Header("Y", "1"))), 0);
  CVorelSipConf("OTHER").SetTransferCell(cells);
  EXPECT_EQ(Get(), "Y: 1\n");
  conf.SetTransferCell(cells);
  EXPECT_EQ(Get("INVITE"), "null");
  EXPECT_EQ(Get(), "Y: 1\n");
}

TEST_F(ConfFixture, TheFirstMessageOfThisKindAndMethodIsTaken) {
  EXPECT_EQ(Get(), "null");
  ASSERT_EQ(Read("\xEF\xBB\xBF<sip-messages><message kind='reg' method='REGISTER'><header name='A'>1</header></message>"
                 "<message kind='REG' method='REGISTER '/><message kind='REG' method='REGISTER'>\n<!-- c -->"
                 "<header name='A'>2</header></message>"
                 "<message kind='REG' method='REGISTER'><header name='A'>3</header></message></sip-messages>"),
            0);
  EXPECT_EQ(Get(), "A: 2\n");
  EXPECT_EQ(Get("Register"), "null");
  const auto messages = conf.Messages();
  ASSERT_EQ(messages.size(), 4U);
  EXPECT_EQ(messages[2].line, 1);
  EXPECT_EQ(messages[2].headers.at(0).line, 2);
}

TEST(ConfExample, IsValidAndDoesWhatItsCommentsSay) {
  CVorelSipConf conf("TOLVANE");
  conf.SetCfgPath(EXAMPLE_DIR);
  ASSERT_EQ(conf.ReadConfFromFile(), 0) << conf.Faults().at(0).line << conf.Faults().at(0).reason;
  const std::map<std::string, std::string> cells = {{"local-uri", "sip:a@b"}, {"request-uri", "sip:b"}};
  conf.SetTransferCell(cells);
  const nsip_message* message = conf.GetSipMsg("REG", "REGISTER", nullptr);
  ASSERT_NE(message, nullptr);
  ASSERT_EQ(message->headers.items.size(), 4U) << "the display name is missing";
  EXPECT_EQ(message->headers.items[1]->hvalue, "sip:a@b;via=sip:b");
  EXPECT_EQ(message->headers.items[2]->hvalue, "<sip:help@tolvane.example>");
  EXPECT_EQ(message->headers.items[3]->hvalue, "${literally}");
}

// Each thread's template is whole, of one file, and good until its next step.
TEST_F(ConfFixture, ThreadsFillWhileOthersRead) {
  const auto write = [](const std::string& where, const std::string& name) {
    std::filesystem::create_directory(where);
    std::ofstream(where + "/TOLVANE.xml") << File(Many(5, Header("X", name + "${k}")));
  };
  write(dir + "/a", "a");
  write(dir + "/b", "b");
  conf.SetCfgPath(dir + "/a");
  ASSERT_EQ(conf.ReadConfFromFile(), 0);
  std::atomic<bool> done{false};
  std::atomic<int> wrong{0};
  std::vector<std::thread> threads;
  for (int n = 0; n < 3; ++n) {
    threads.emplace_back([&, key = std::to_string(n)] {
      const std::map<std::string, std::string> cells = {{"k", key}};
      do {
        conf.SetTransferCell(cells);
        const nsip_message* message = conf.GetSipMsg("REG", "REGISTER", nullptr);
        std::this_thread::yield();
        const std::string first = message->headers.items.at(0)->hvalue;
        if (message->headers.items.size() != 5 || (first != "a" + key && first != "b" + key)) ++wrong;
        for (const auto& header : message->headers.items) wrong += header->hvalue == first ? 0 : 1;
        wrong += conf.Messages().size() == 1 ? 0 : 1;
      } while (!done);
    });
  }
  for (int i = 0; i < 2; ++i) {
    threads.emplace_back([&] {
      for (int turn = 0; turn < 150; ++turn) {
        conf.SetCfgPath(dir + (turn % 3 == 0 ? "/a" : turn % 3 == 1 ? "/b" : "/none"));
        conf.ReadConfFromFile();
        static_cast<void>(conf.Faults());
      }
    });
  }
  for (std::size_t i = threads.size(); i-- > 0;) {
    if (i == 2) done = true;
    threads[i].join();
  }
  EXPECT_EQ(wrong, 0);
}

}  // namespace
