// Every state against every kind of answer, through the front door: what the client hears, what
// leaves, and what becomes of the registration.

#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

#include "FrontDoor.h"

namespace {

using fakes::FrontDoor;
using Texts = std::vector<std::string>;

std::string Replace(std::string text, const std::string& what, const std::string& with) {
  for (auto at = text.find(what); at != std::string::npos; at = text.find(what)) {
    text.replace(at, what.size(), with);
  }
  return text;
}

// $ stands for the registration's id, # for the status.
constexpr char kNone[] = "";
constexpr char kSuccess[] = "1000 <reg><id>$</id><result>0</result><uri>sip:alice@example.com</uri></reg>";
constexpr char kFailed[] =
    "1000 <reg><id>$</id><result>-1</result><errorcode>#</errorcode><warncode>0</warncode>"
    "<warntext></warntext></reg>";
constexpr char kFailedLater[] =
    "1000 <reg><id>$</id><result>-1</result><errorcode>#</errorcode><warncode>0</warncode>"
    "<warntext></warntext><retry-after>30</retry-after></reg>";
constexpr char kGone[] = "1001 <reg><id>$</id><result>0</result><uri></uri></reg>";
constexpr char kLost[] = "1002 <reg><id>$</id><state>Terminate</state><event>refreshed</event></reg>";
constexpr char kLostLater[] =
    "1002 <reg><id>$</id><state>Terminate</state><event>refreshed</event>"
    "<retry-after>30</retry-after></reg>";
constexpr char kTimeout[] = "1002 <reg><id>$</id><state>Terminate</state><event>timeout</event></reg>";
constexpr char kServiceLost[] = "1003 <reg><id>$</id></reg>";

// What a deregistration then finds: nothing ('-'), no binding (U), a binding or an attempt (A), one
// under way (D).
char Probe(FrontDoor& door, int id) {
  door.sip.send_result = 0;
  door.SentExpiries();
  const fakes::Answer answer = door.Deregister(id);
  const std::vector<int> sent = door.SentExpiries();
  if (answer.document.empty()) return '-';
  if (answer.document == "<reg><ret>-1</ret></reg>") return sent.empty() ? 'U' : '?';
  return sent.empty() ? 'D' : 'A';
}

enum State { kReging, kReged, kDereging, kUnreg, kUnregTimer, kStates };
const char* const kStateNames[] = {"REGING", "REGED", "DEREGING", "UNREG", "UNREG, re-register timer"};

int Reach(FrontDoor& door, State state) {
  const bool lost = state == kUnreg || state == kUnregTimer;
  const int id = door.Register(lost ? fakes::kAliceReregister : fakes::kAlice);
  const long stack_id = door.LastStackId();
  if (state != kReging) door.sip.Answer(stack_id, 200);
  door.Pump();
  if (state == kDereging) door.Deregister(id);
  if (state == kUnreg) door.sip.Answer(stack_id, 403);
  if (state == kUnregTimer) door.sip.Error(stack_id, SIP_EVENT_REGISTER_TIMEOUT);
  door.Pump();
  door.Notifications();
  door.SentExpiries();
  return id;
}

struct Expect {
  const char* notification;
  std::vector<int> sent;
  char probe;
};

struct Kind {
  const char* name;
  std::vector<int> statuses;  // or the stack's error events
  const char* headers;
  int send_result;
  Expect expect[kStates];
};

// clang-format off
const Kind kKinds[] = {
    {"success", {200, 202, 299}, "", 0,
     {{kSuccess, {}, 'A'}, {kNone, {}, 'A'}, {kGone, {}, '-'}, {kSuccess, {}, 'A'}, {kSuccess, {}, 'A'}}},
    {"failure", {100, 183, 199, 300, 302, 400, 401, 402, 403, 405, 406, 407, 420, 482, 501, 505, 580, 603, 604, 699},
     "Retry-After: 30\r\n", 0,
     {{kFailed, {}, '-'}, {kLost, {}, '-'}, {kGone, {}, '-'}, {kFailed, {}, '-'}, {kFailed, {}, '-'}}},
    {"failure with Retry-After", {404, 408, 480, 481, 486, 500, 503, 504, 600}, "Retry-After: 30\r\n", 0,
     {{kFailedLater, {}, '-'}, {kLostLater, {}, '-'}, {kGone, {}, '-'}, {kFailedLater, {}, '-'}, {kFailedLater, {}, '-'}}},
    {"unusable Retry-After", {503}, "Retry-After: 0\r\n", 0,
     {{kFailed, {}, '-'}, {kLost, {}, '-'}, {kGone, {}, '-'}, {kFailed, {}, '-'}, {kFailed, {}, '-'}}},
    {"too brief", {423}, "Min-Expires: 1800\r\n", 0,
     {{kNone, {1800}, 'A'}, {kNone, {1800}, 'A'}, {kNone, {1800}, 'D'}, {kNone, {1800}, 'U'}, {kNone, {1800}, 'U'}}},
    {"too brief, no usable Min-Expires", {423}, "Min-Expires: none\r\n", 0,
     {{kFailed, {}, '-'}, {kLost, {}, '-'}, {kGone, {}, '-'}, {kFailed, {}, '-'}, {kFailed, {}, '-'}}},
    {"too brief, not sent again", {423}, "Min-Expires: 1800\r\n", -5,
     {{kFailed, {}, '-'}, {kLost, {}, '-'}, {kGone, {}, '-'}, {kFailed, {}, '-'}, {kFailed, {}, '-'}}},
    {"service lost", {533}, "", 0,
     {{kServiceLost, {600}, 'A'}, {kServiceLost, {600}, 'A'}, {kServiceLost, {0}, 'D'}, {kServiceLost, {600}, 'U'},
      {kServiceLost, {600}, 'U'}}},
    {"service lost, not sent again", {533}, "", -5,
     {{kFailed, {}, '-'}, {kLost, {}, '-'}, {kGone, {}, '-'}, {kFailed, {}, '-'}, {kFailed, {}, '-'}}},
    {"stack error", {-74, -78}, "", 0,
     {{kFailed, {}, '-'}, {kTimeout, {}, '-'}, {kGone, {}, '-'}, {kFailed, {}, '-'}, {kNone, {}, 'U'}}},
};
// clang-format on

TEST(ComponentStates, EveryStateMeetsEveryAnswer) {
  for (const Kind& kind : kKinds) {
    for (const int status : kind.statuses) {
      for (int state = 0; state < kStates; ++state) {
        const Expect& expect = kind.expect[state];
        SCOPED_TRACE(std::string(kind.name) + " " + std::to_string(status) + " in " + kStateNames[state]);
        FrontDoor door;
        const int id = Reach(door, static_cast<State>(state));
        const long stack_id = door.LastStackId();
        door.sip.send_result = kind.send_result;
        if (status < 0) {
          EXPECT_EQ(door.sip.Error(stack_id, -status), 0);
        } else {
          EXPECT_EQ(door.sip.Answer(stack_id, status, kind.headers), 0);
        }
        door.Pump();

        Texts expected;
        if (*expect.notification != '\0') {
          expected.push_back(Replace(Replace(expect.notification, "$", std::to_string(id)), "#",
                                     std::to_string(status < 0 ? 0 : status)));
        }
        EXPECT_EQ(door.Notifications(), expected);
        EXPECT_EQ(door.SentExpiries(), expect.sent);
        EXPECT_EQ(Probe(door, id), expect.probe);
        // What has ended has given its library entry back.
        EXPECT_EQ(door.sip.entries.contains(stack_id), expect.probe == 'A' || expect.probe == 'D');
      }
    }
  }
}

TEST(ComponentStates, AutoReregisterKeepsALostRegistration) {
  FrontDoor door;
  const int id = door.Register(fakes::kAliceReregister);
  const long stack_id = door.LastStackId();
  door.sip.Answer(stack_id, 200);
  door.Pump();
  door.sip.Error(stack_id, SIP_EVENT_REGISTER_TIMEOUT);
  door.Pump();
  door.Notifications();
  door.SentExpiries();

  // Every 30 seconds, not at the period of the refresh; errors stay silent, without limit.
  for (int i = 0; i < 5; ++i) {
    door.Advance(std::chrono::seconds(29));
    EXPECT_TRUE(door.SentExpiries().empty());
    door.Advance(std::chrono::seconds(1));
    EXPECT_EQ(door.SentExpiries(), std::vector<int>{600});
    door.sip.Error(stack_id, SIP_EVENT_REGISTER_TIMEOUT);
    door.Pump();
    EXPECT_TRUE(door.Notifications().empty());
  }
  // A success ends it: told like a first registration, and refreshed at its own period again.
  door.sip.Answer(stack_id, 200);
  door.Pump();
  EXPECT_EQ(door.Notifications(), Texts{Replace(kSuccess, "$", std::to_string(id))});
  door.Advance(std::chrono::seconds(299));
  EXPECT_TRUE(door.SentExpiries().empty());
  door.Advance(std::chrono::seconds(1));
  EXPECT_EQ(door.SentExpiries(), std::vector<int>{600});
}

TEST(ComponentStates, AFailedRefreshKeepsARegistrationThatReregistersButSendsNothing) {
  FrontDoor door;
  const int id = door.Register(fakes::kAliceReregister);
  door.sip.Answer(door.LastStackId(), 200);
  door.Pump();
  door.Advance(std::chrono::seconds(300));
  door.sip.Answer(door.LastStackId(), 503, "Retry-After: 30\r\n");
  door.SentExpiries();
  EXPECT_EQ(door.Notifications().back(), Replace(kLostLater, "$", std::to_string(id)));
  door.Advance(std::chrono::seconds(2000));
  EXPECT_TRUE(door.SentExpiries().empty());
  // A new command with the id brings it back, with the stored parameters.
  EXPECT_EQ(door.Command(3, "<reg><id>" + std::to_string(id) + "</id></reg>").document,
            "<reg><ret>0</ret><id>" + std::to_string(id) + "</id></reg>");
  EXPECT_EQ(door.SentExpiries(), std::vector<int>{600});
  door.sip.Answer(door.LastStackId(), 200);
  EXPECT_EQ(door.Notifications(), Texts{Replace(kSuccess, "$", std::to_string(id))});
}

TEST(ComponentStates, WarningGoesToTheClient) {
  const std::pair<const char*, const char*> cases[] = {
      {"Warning: 399 host \"come back later\"\r\n", "<warncode>399</warncode><warntext>come back later</warntext>"},
      {"Warning: abc\r\n", "<warncode>0</warncode><warntext></warntext>"},
      {"Warning: 399 host \"cut\r\n", "<warncode>399</warncode><warntext></warntext>"},
      {"", "<warncode>0</warncode><warntext></warntext>"},
  };
  for (const auto& [header, expected] : cases) {
    FrontDoor door;
    door.Register(fakes::kAlice);
    door.sip.Answer(door.LastStackId(), 403, header);
    const Texts heard = door.Notifications();
    ASSERT_EQ(heard.size(), 1u);
    EXPECT_NE(heard[0].find(expected), std::string::npos) << heard[0];
  }
}

TEST(ComponentStates, GrantComesFromTheFirstContactThenFromExpires) {
  const struct {
    const char* headers;
    int next;  // what the next refresh asks for
    int period;
  } cases[] = {
      {"Contact: <sip:a@b>;expires=1800, <sip:c@d>;expires=90\r\nExpires: 90\r\n", 1800, 1200},
      {"Contact: <sip:a@b>;expires=0\r\nExpires: 3600\r\n", 600, 300},
      {"Contact: <sip:a@b>;expires=-5\r\nExpires: 3600\r\n", 600, 300},
      {"Contact: <sip:a@b>\r\nExpires: 1201\r\n", 1201, 601},
      {"Expires: 60\r\n", 60, 30},
      {"", 600, 300},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.headers);
    FrontDoor door;
    door.Register(fakes::kAlice);
    door.SentExpiries();
    door.sip.Answer(door.LastStackId(), 200, c.headers);
    door.Pump();
    door.Advance(std::chrono::seconds(c.period - 1));
    EXPECT_TRUE(door.SentExpiries().empty());
    door.Advance(std::chrono::seconds(1));
    EXPECT_EQ(door.SentExpiries(), std::vector<int>{c.next});
  }
}

TEST(ComponentStates, PAssociatedUriMovesTheRegistration) {
  FrontDoor door;
  const int id = door.Register(fakes::kAlice);
  const long stack_id = door.LastStackId();
  // Without the address of record among them the first one is registered from now on.
  door.sip.Answer(stack_id, 200, "P-Associated-URI: \"A\" <sip:alice@public.example>;x=1, <tel:+1>\r\n");
  EXPECT_EQ(door.Notifications(), Texts{"1000 <reg><id>" + std::to_string(id) +
                                        "</id><result>0</result><uri>sip:alice@public.example</uri></reg>"});
  EXPECT_EQ(door.sip.entries[stack_id], "sip:alice@public.example");
  // With it among them, at any place, the report is the address of record again; the entry is not
  // touched.
  door.sip.Answer(stack_id, 200, "P-Associated-URI: <tel:+1>, <sip:alice@example.com>\r\n");
  EXPECT_EQ(door.sip.entries[stack_id], "sip:alice@public.example");
  // An address that the library refuses costs nothing.
  door.sip.refuse_addresses = true;
  door.sip.Answer(stack_id, 200, "P-Associated-URI: <sip:mallory@example.org>\r\n");
  door.sip.refuse_addresses = false;
  door.Pump();
  door.SentExpiries();
  door.Advance(std::chrono::seconds(300));
  EXPECT_EQ(door.SentExpiries(), std::vector<int>{600});
  // Service lost: back to the address of record.
  door.sip.Answer(stack_id, 533);
  EXPECT_EQ(door.sip.entries[stack_id], "sip:alice@example.com");
}

TEST(ComponentStates, EventsReachTheirOwnRegistrationOnly) {
  FrontDoor door;
  std::map<int, long> stack_ids;
  for (int i = 0; i < 50; ++i) {
    const int id = door.Register(fakes::kAlice);
    stack_ids[id] = door.LastStackId();
  }
  // In descending order, so that a scan in ascending order would find others first.
  for (auto it = stack_ids.rbegin(); it != stack_ids.rend(); ++it) {
    door.sip.Answer(it->second, 200);
    EXPECT_EQ(door.Notifications(), Texts{Replace(kSuccess, "$", std::to_string(it->first))});
  }
  const auto [id, stack_id] = *stack_ids.begin();
  door.Deregister(id, "<nosend>true</nosend>");
  door.sip.Answer(stack_id, 403);
  door.sip.Answer(987654, 403);
  EXPECT_TRUE(door.Notifications().empty());
  EXPECT_EQ(Probe(door, stack_ids.rbegin()->first), 'A');
}

TEST(ComponentStates, EventsThatNobodyAskedFor) {
  FrontDoor door;
  const int id = door.Register(fakes::kAlice);
  EXPECT_EQ(door.sip.Error(door.LastStackId(), 27), -1);
  EXPECT_EQ(door.sip.handler->OnStackEvent(nullptr), -1);
  EXPECT_TRUE(door.Notifications().empty());
  // A response without a message: told as a failure of nobody, and the registration ends.
  SipStackEvent event{SIP_EVENT_REGISTER_RESPONSE, nullptr, 0, nullptr, door.LastStackId()};
  EXPECT_EQ(door.sip.handler->OnStackEvent(&event), 0);
  EXPECT_EQ(door.Notifications(), Texts{Replace(Replace(kFailed, "$", "0"), "#", "0")});
  EXPECT_EQ(Probe(door, id), '-');
}

}  // namespace
