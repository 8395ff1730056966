// Commands and their documents; ids; what the component is to its host.

#include <gtest/gtest.h>

#include <array>
#include <cstdlib>
#include <cstring>
#include <set>
#include <string>
#include <utility>

#include "FrontDoor.h"
#include "RegisterProcess.h"
#include "Vorelkit/Vorelkit.h"

namespace {

using fakes::FrontDoor;

constexpr char kBad[] = "<reg><ret>-1</ret></reg>";
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

TEST(ComponentCommands, DocumentsAndTheirResults) {
  struct Case {
    int command;
    const char* document;  // null: none
    int result;
    std::string written;  // $ for a new id
  };
  // clang-format off
  const Case cases[] = {
      {3, "<reg><aor>sip:a@b</aor><registrar>sip:b</registrar></reg>", 0, "$"},
      {3, "<reg>\n <require/><registrar>sip:b</registrar>text<aor>sip:a@b</aor><expires>x</expires></reg>", 0, "$"},
      {3, "<reg><id>0</id><aor>sip:a@b</aor><registrar>sip:b</registrar></reg>", 0, "$"},
      {3, "<reg><id>-3</id><aor>sip:a@b</aor><registrar>sip:b</registrar></reg>", 0, "$"},
      {3, "<reg><id>abc</id><aor>sip:a@b</aor><registrar>sip:b</registrar></reg>", 0, "$"},
      {3, "<reg><aor>sip:a@b</aor></reg>", -1, kBad},
      {3, "<reg><aor></aor><registrar>sip:b</registrar></reg>", -1, kBad},
      {3, "<reg><registrar>sip:b</registrar></reg>", -1, kBad},
      {3, "<sub/>", -1, kBad},
      {3, "", -1, kBad},
      {3, nullptr, -1, kBad},
      {3, "<reg><id>9999</id><aor/></reg>", -1, ""},
      {4, "<reg><nosend>1</nosend></reg>", -1, kBad},
      {4, "<sub/>", -1, kBad},
      {4, nullptr, -1, kBad},
      {4, "<reg><id>0</id></reg>", -1, ""},
      {5, "<reg/>", -1, ""},
  };
  // clang-format on
  for (const auto& c : cases) {
    SCOPED_TRACE(c.document == nullptr ? "none" : c.document);
    FrontDoor door;
    CXML in;
    CXML out;
    if (c.document != nullptr) in.SetDoc(c.document);
    EXPECT_EQ(TOLVANE_XSCCmdCallBack(c.command, c.document != nullptr ? &in : nullptr, &out), c.result);
    const bool made = c.written == "$";
    EXPECT_EQ(made ? out.GetDoc().substr(0, 21) : out.GetDoc(), made ? "<reg><ret>0</ret><id>" : c.written);
    EXPECT_EQ(door.sip.sent.size(), made ? 1u : 0u);
    EXPECT_EQ(door.sip.entries.size(), door.sip.sent.size());
    EXPECT_TRUE(!made || door.sip.sent[0].from == "sip:a@b");
    EXPECT_EQ(TOLVANE_XSCCmdCallBack(c.command, nullptr, nullptr), -1);
  }
  for (const char* source : {"{00000000-0000-0000-0000-000000000000}", static_cast<const char*>(nullptr)}) {
    EXPECT_EQ(TOLVANE_XSCNtfCallBack(source, 0x1003, nullptr, nullptr), -1);
  }
}

TEST(ComponentCommands, WhatTheRegisterCommandPutsOnTheWire) {
  using Sent = std::array<std::string, 4>;  // From, registrar, Expires, User-Agent
  // clang-format off
  const std::pair<const char*, Sent> cases[] = {
      {"<aor>sip:alice@x</aor><registrar>y</registrar><displayname>Alice</displayname><expires>90</expires>"
       "<user-agent>Phone/1</user-agent>", {"Alice<sip:alice@x>", "sip:y", "90", "Phone/1"}},
      {"<aor>alice@x</aor><registrar>sip:y</registrar>", {"sip:alice@x", "sip:y", "", ""}},
      {"<aor>sips:alice</aor><registrar>sip:y</registrar>", {"sip:sips:alice", "sip:y", "", ""}},
      {"<aor>tel:123</aor><registrar>sip:y</registrar>", {"sip:tel:123", "sip:y", "", ""}},
      {"<aor>xsip:alice</aor><registrar>sip:y</registrar><contact-param>q</contact-param><require>r</require>",
       {"xsip:alice", "sip:y", "", ""}},
  };
  // clang-format on
  for (const auto& [children, expected] : cases) {
    FrontDoor door;
    ASSERT_GT(door.Register(children), 0);
    const fakes::SentRegister& sent = door.sip.sent.back();
    EXPECT_EQ((Sent{sent.from, sent.registrar, sent.expires_header, sent.user_agent}), expected) << children;
  }
}

TEST(ComponentCommands, ARegistrationThatCannotStartLeavesNothing) {
  for (const int fault : {0, 1, 2}) {
    FrontDoor door;
    door.sip.refuse_addresses = fault == 0;
    door.sip.build_result = fault == 1 ? -1 : 0;
    door.sip.send_result = fault == 2 ? -7 : 0;
    EXPECT_EQ(door.Command(3, std::string("<reg>") + kShort + "</reg>").document, kBad);
    EXPECT_TRUE(door.sip.entries.empty());
  }
}

TEST(ComponentCommands, DeregisteringInEveryWay) {
  FrontDoor door;
  const std::string good = "<reg><ret>0</ret></reg>";
  // Without a REGISTER: gone at once, and no notification comes.
  int id = door.Register(fakes::kAlice);
  door.SentExpiries();
  EXPECT_EQ(door.Deregister(id, "<nosend>TrUe</nosend>").document, good);
  EXPECT_TRUE(door.SentExpiries().empty());
  EXPECT_EQ(door.Deregister(id).document, "");
  door.sip.Respond(door.LastStackId(), 200);
  EXPECT_TRUE(door.Notifications().empty());

  // The response to the first REGISTER decides when it comes after the deregistration.
  id = door.Register(fakes::kAlice);
  EXPECT_EQ(door.Deregister(id, "<nosend>false</nosend>").document, good);
  EXPECT_EQ(door.SentExpiries(), (std::vector<int>{600, 0}));
  EXPECT_EQ(door.sip.sent.back().expires_header, "");
  door.sip.Respond(door.LastStackId(), 200);
  EXPECT_EQ(door.Notifications().size(), 1u);
  EXPECT_EQ(door.Deregister(id).document, "");

  // A REGISTER that cannot leave: -1 ends it, another result of the library keeps it waiting.
  for (const int result : {-1, -9}) {
    door.sip.send_result = 0;
    id = door.Register(fakes::kAlice);
    door.sip.send_result = result;
    EXPECT_EQ(door.Deregister(id).document, "<reg><ret>" + std::to_string(result) + "</ret></reg>");
    EXPECT_EQ(door.Deregister(id).document, result == -1 ? "" : good);
  }
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
  const int second = fresh();
  EXPECT_EQ(second, first % 10000 + 1);
  std::set<int> ids{first, second};
  for (int i = 3; i <= 10000; ++i) ids.insert(fresh());
  EXPECT_EQ(ids.size(), 10000u);
  EXPECT_EQ(std::pair(*ids.begin(), *ids.rbegin()), std::pair(1, 10000));
  // All in use: refused, and nothing changes.
  EXPECT_EQ(fresh(), -1);
  EXPECT_EQ(door.sip.entries.size(), 10000u);
  for (const int id : {10000, 128, 64, 63, 2}) {
    end(id);
    EXPECT_EQ(fresh(), id);
  }
  for (const int id : {5, 9000}) end(id);
  for (const int id : {5, 9000}) EXPECT_EQ(fresh(), id);
}

TEST(ComponentCommands, TheFirstIdOfAProcessIsOne) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");  // a process of its own
  const auto first = [] { return FrontDoor().Register(kShort); };
  EXPECT_EXIT(std::exit(first()), testing::ExitedWithCode(1), "");
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
