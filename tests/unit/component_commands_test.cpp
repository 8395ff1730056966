// Commands and their documents; ids; what the component is to its host.

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <set>
#include <string>

#include "FrontDoor.h"
#include "RegisterProcess.h"
#include "Vorelkit/Vorelkit.h"

namespace {

using fakes::FrontDoor;

constexpr char kShort[] = "<aor>sip:a@b</aor><registrar>sip:b</registrar>";

TEST(ComponentCommands, InformationRecord) {
  unsigned char record[382];
  std::memset(record, 0xAB, sizeof record);
  EXPECT_EQ(TOLVANE_XSCInformation(nullptr), -1);
  EXPECT_EQ(TOLVANE_XSCInformation(reinterpret_cast<XSComponentInfo*>(record)), 0);
  const unsigned char host[] = {0xAB, 0xAB, 0xAB, 0xAB};
  const unsigned char numbers[] = {1, 0, 0, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0xDB, 7, 3, 0, 17, 0};
  EXPECT_EQ(std::memcmp(record, host, sizeof host), 0);
  EXPECT_STREQ(reinterpret_cast<char*>(record + 4), "{8836E13D-A307-43DF-8C88-B7783DC728BF}");
  EXPECT_EQ(std::memcmp(record + 44, numbers, sizeof numbers), 0);
  EXPECT_STREQ(reinterpret_cast<char*>(record + 62), "Tolvane");
  EXPECT_EQ(record[126], 0);
}

TEST(ComponentCommands, RegisterDocuments) {
  struct Case {
    const char* document;
    int result;
    const char* answer;  // $ for a new id
  };
  // clang-format off
  const Case cases[] = {
      {"<reg><aor>sip:a@b</aor><registrar>sip:b</registrar></reg>", 0, "$"},
      {"<reg>\n <require/><registrar>sip:b</registrar>text<aor>sip:a@b</aor><expires>x</expires></reg>", 0, "$"},
      {"<reg><id>0</id><aor>sip:a@b</aor><registrar>sip:b</registrar></reg>", 0, "$"},
      {"<reg><id>-3</id><aor>sip:a@b</aor><registrar>sip:b</registrar></reg>", 0, "$"},
      {"<reg><id>abc</id><aor>sip:a@b</aor><registrar>sip:b</registrar></reg>", 0, "$"},
      {"<reg><aor>sip:a@b</aor></reg>", -1, "<reg><ret>-1</ret></reg>"},
      {"<reg><aor></aor><registrar>sip:b</registrar></reg>", -1, "<reg><ret>-1</ret></reg>"},
      {"<reg><registrar>sip:b</registrar></reg>", -1, "<reg><ret>-1</ret></reg>"},
      {"<sub/>", -1, "<reg><ret>-1</ret></reg>"},
      {"", -1, "<reg><ret>-1</ret></reg>"},
      {"<reg><id>9999</id><aor/></reg>", -1, ""},
  };
  // clang-format on
  for (const auto& c : cases) {
    SCOPED_TRACE(c.document);
    FrontDoor door;
    const fakes::Answer answer = door.Command(3, c.document);
    EXPECT_EQ(answer.result, c.result);
    if (*c.answer == '$') {
      EXPECT_TRUE(answer.document.starts_with("<reg><ret>0</ret><id>")) << answer.document;
      EXPECT_EQ(door.sip.sent.size(), 1u);
    } else {
      EXPECT_EQ(answer.document, c.answer);
      EXPECT_TRUE(door.sip.entries.empty());
    }
  }
}

TEST(ComponentCommands, WhatTheRegisterCommandPutsOnTheWire) {
  struct Case {
    const char* children;
    const char* from;
    const char* registrar;
    const char* expires;
    const char* user_agent;
  };
  // clang-format off
  const Case cases[] = {
      {"<aor>sip:alice@x</aor><registrar>y</registrar><displayname>Alice</displayname><expires>90</expires>"
       "<user-agent>Phone/1</user-agent>", "Alice<sip:alice@x>", "sip:y", "90", "Phone/1"},
      {"<aor>alice@x</aor><registrar>sip:y</registrar>", "sip:alice@x", "sip:y", "", ""},
      {"<aor>sips:alice</aor><registrar>sip:y</registrar>", "sip:sips:alice", "sip:y", "", ""},
      {"<aor>tel:123</aor><registrar>sip:y</registrar>", "sip:tel:123", "sip:y", "", ""},
      {"<aor>xsip:alice</aor><registrar>sip:y</registrar><contact-param>q</contact-param><require>r</require>",
       "xsip:alice", "sip:y", "", ""},
      // Nothing that would end a header line gets into one.
      {"<aor>sip:a</aor><registrar>sip:y</registrar><user-agent>A&#13;&#10;X-Injected: 1</user-agent>",
       "sip:a", "sip:y", "", ""},
  };
  // clang-format on
  for (const auto& c : cases) {
    SCOPED_TRACE(c.children);
    FrontDoor door;
    ASSERT_GT(door.Register(c.children), 0);
    const fakes::SentRegister& sent = door.sip.sent.back();
    EXPECT_EQ(sent.from, c.from);
    EXPECT_EQ(sent.registrar, c.registrar);
    EXPECT_EQ(sent.expires_header, c.expires);
    EXPECT_EQ(sent.user_agent, c.user_agent);
  }
}

TEST(ComponentCommands, ARegistrationThatCannotStartLeavesNothing) {
  for (const int fault : {0, 1, 2}) {
    FrontDoor door;
    door.sip.refuse_addresses = fault == 0;
    door.sip.build_result = fault == 1 ? -1 : 0;
    door.sip.send_result = fault == 2 ? -7 : 0;
    const fakes::Answer answer = door.Command(3, std::string("<reg>") + kShort + "</reg>");
    EXPECT_EQ(answer.result, -1);
    EXPECT_EQ(answer.document, "<reg><ret>-1</ret></reg>");
    EXPECT_TRUE(door.sip.entries.empty());
  }
}

TEST(ComponentCommands, DeregisterDocuments) {
  FrontDoor door;
  EXPECT_EQ(door.Command(4, "<reg><nosend>1</nosend></reg>").document, "<reg><ret>-1</ret></reg>");
  EXPECT_EQ(door.Command(4, "<sub/>").document, "<reg><ret>-1</ret></reg>");
  EXPECT_EQ(door.Command(4, "<reg><id>0</id></reg>").result, -1);
  EXPECT_EQ(door.Command(4, "<reg><id>0</id></reg>").document, "");

  // Without a REGISTER: gone at once, and no notification comes.
  int id = door.Register(fakes::kAlice);
  const long stack_id = door.LastStackId();
  door.SentExpiries();
  EXPECT_EQ(door.Deregister(id, "<nosend>TrUe</nosend>").document, "<reg><ret>0</ret></reg>");
  EXPECT_TRUE(door.SentExpiries().empty());
  EXPECT_EQ(door.Deregister(id).document, "");
  door.sip.Answer(stack_id, 200);
  EXPECT_TRUE(door.Notifications().empty());

  // The answer to the first REGISTER decides when it comes after the wish to leave.
  id = door.Register(fakes::kAlice);
  door.SentExpiries();
  EXPECT_EQ(door.Deregister(id, "<nosend>false</nosend>").document, "<reg><ret>0</ret></reg>");
  EXPECT_EQ(door.SentExpiries(), std::vector<int>{0});
  EXPECT_EQ(door.sip.sent.back().expires_header, "");
  door.sip.Answer(door.LastStackId(), 200);
  EXPECT_EQ(door.Notifications().size(), 1u);
  EXPECT_EQ(door.Deregister(id).document, "");

  // A REGISTER that cannot leave: -1 ends it, another result of the library keeps it waiting.
  id = door.Register(fakes::kAlice);
  door.sip.send_result = -1;
  EXPECT_EQ(door.Deregister(id).document, "<reg><ret>-1</ret></reg>");
  EXPECT_EQ(door.Deregister(id).document, "");
  door.sip.send_result = 0;
  id = door.Register(fakes::kAlice);
  door.sip.send_result = -9;
  EXPECT_EQ(door.Deregister(id).document, "<reg><ret>-9</ret></reg>");
  EXPECT_EQ(door.Deregister(id).document, "<reg><ret>0</ret></reg>");
}

TEST(ComponentCommands, UnknownCommandsAndNotifications) {
  FrontDoor door;
  EXPECT_EQ(door.Command(5, "<reg/>").result, -1);
  EXPECT_EQ(door.Command(5, "<reg/>").document, "");
  EXPECT_EQ(TOLVANE_XSCNtfCallBack("{00000000-0000-0000-0000-000000000000}", 0x1003, nullptr, nullptr), -1);
  EXPECT_EQ(TOLVANE_XSCNtfCallBack(nullptr, 0x1003, nullptr, nullptr), -1);
}

TEST(ComponentCommands, NullDocuments) {
  FrontDoor door;
  CXML out;
  EXPECT_EQ(TOLVANE_XSCCmdCallBack(3, nullptr, &out), -1);
  EXPECT_EQ(out.GetDoc(), "<reg><ret>-1</ret></reg>");
  CXML in;
  in.SetDoc("<reg><id>77</id></reg>");
  EXPECT_EQ(TOLVANE_XSCCmdCallBack(4, &in, nullptr), -1);
  EXPECT_EQ(TOLVANE_XSCCmdCallBack(3, nullptr, nullptr), -1);
}

TEST(ComponentCommands, IdsRunInTurnAndPassOverThoseInUse) {
  FrontDoor door;
  const auto fresh = [&] { return door.Register(kShort); };
  const auto end = [&](int id) { door.Deregister(id, "<nosend>1</nosend>"); };
  const int first = fresh();
  // No memory: no id is used up.
  vorelkit::FailAllocation(2);
  EXPECT_EQ(fresh(), -1);
  vorelkit::FailAllocation(0);
  std::set<int> ids{first};
  for (int i = 2; i <= 10000; ++i) ids.insert(fresh());
  EXPECT_EQ(ids.size(), 10000u);
  EXPECT_EQ(*ids.begin(), 1);
  EXPECT_EQ(*ids.rbegin(), 10000);
  // All in use: refused, and nothing changes.
  EXPECT_EQ(fresh(), -1);
  EXPECT_EQ(door.sip.entries.size(), 10000u);
  for (const int id : {10000, 128, 64, 63, 2}) {
    end(id);
    EXPECT_EQ(fresh(), id);
  }
  end(5);
  end(9000);
  EXPECT_EQ(fresh(), 5);
  EXPECT_EQ(fresh(), 9000);
}

TEST(ComponentCommands, TheFirstIdOfAProcessIsOne) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");  // a process of its own
  const auto first = [] {
    int id = 0;
    {
      FrontDoor door;
      id = door.Register(kShort);
    }
    std::exit(id);
  };
  EXPECT_EXIT(first(), testing::ExitedWithCode(1), "");
}

TEST(ComponentCommands, StartResultIsTheStacks) {
  FrontDoor door;
  EXPECT_EQ(door.initialized, 0);
  EXPECT_EQ(door.sip.handler->GetServiceName(), "Tolvane_SERVICE");
  EXPECT_EQ(TOLVANE_XSCUninitialize(), 0);
  door.sip.register_handler_result = -4;
  EXPECT_EQ(TOLVANE_XSCInitialize(nullptr), -4);
  // The rest of the start has run all the same.
  EXPECT_GT(door.Register(kShort), 0);
}

}  // namespace
