// Every state against every kind of response, through the front door: what the client hears, what
// leaves, and what becomes of the registration.

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <string>
#include <vector>

#include "FrontDoor.h"

namespace {

using fakes::FrontDoor;
using namespace std::chrono_literals;
using Ints = std::vector<int>;
using Texts = std::vector<std::string>;

// $ stands for the registration's id, # for the status.
std::string Fill(std::string text, int id, int status = 0) {
  for (const auto& [mark, number] : {std::pair{'$', id}, std::pair{'#', status}}) {
    const auto at = text.find(mark);
    if (at != std::string::npos) text.replace(at, 1, std::to_string(number));
  }
  return text;
}

#define REGISTRATION "<reg><id>$</id>"
#define FAILED \
  "1000 " REGISTRATION "<result>-1</result><errorcode>#</errorcode><warncode>0</warncode><warntext></warntext>"
#define TERMINATED "1002 " REGISTRATION "<state>Terminate</state><event>"
constexpr char kNone[] = "";
constexpr char kSuccess[] = "1000 " REGISTRATION "<result>0</result><uri>sip:alice@example.com</uri></reg>";
constexpr char kFailed[] = FAILED "</reg>";
constexpr char kFailedLater[] = FAILED "<retry-after>30</retry-after></reg>";
constexpr char kGone[] = "1001 " REGISTRATION "<result>0</result><uri></uri></reg>";
constexpr char kLost[] = TERMINATED "refreshed</event></reg>";
constexpr char kLostLater[] = TERMINATED "refreshed</event><retry-after>30</retry-after></reg>";
constexpr char kTimeout[] = TERMINATED "timeout</event></reg>";
constexpr char kServiceLost[] = "1003 " REGISTRATION "</reg>";

// What a deregistration then finds: nothing ('-'), no binding (U), a binding or an attempt (A), one
// under way (D).
char Probe(FrontDoor& door, int id) {
  door.sip.send_result = 0;
  door.SentExpiries();
  const fakes::Answer answer = door.Deregister(id);
  const Ints sent = door.SentExpiries();
  if (answer.document.empty()) return '-';
  if (answer.document == "<reg><ret>-1</ret></reg>") return sent.empty() ? 'U' : '?';
  return sent.empty() ? 'D' : 'A';
}

enum State { kReging, kReged, kDereging, kUnreg, kUnregTimer, kStates };
const char* const kStateNames[] = {"REGING", "REGED", "DEREGING", "UNREG", "UNREG, re-register timer"};

int Reach(FrontDoor& door, State state) {
  const int id = door.Register(state < kUnreg ? fakes::kAlice : fakes::kAliceReregister);
  if (state != kReging) door.Settle(200);
  if (state == kDereging) door.Deregister(id);
  if (state == kUnreg) door.Settle(403);
  if (state == kUnregTimer) door.sip.Error(door.LastStackId(), SIP_EVENT_REGISTER_TIMEOUT);
  door.Pump();
  door.Notifications();
  door.SentExpiries();
  return id;
}

struct Expect {
  const char* notification;
  Ints sent;
  char probe;
};

struct Kind {
  const char* name;
  Ints statuses;  // or the stack's error events
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

TEST(ComponentStates, EveryStateMeetsEveryResponse) {
  for (const Kind& kind : kKinds) {
    for (const int status : kind.statuses) {
      for (int state = 0; state < kStates; ++state) {
        const Expect& expect = kind.expect[state];
        SCOPED_TRACE(std::string(kind.name) + " " + std::to_string(status) + " in " + kStateNames[state]);
        FrontDoor door;
        const int id = Reach(door, static_cast<State>(state));
        const long stack_id = door.LastStackId();
        door.sip.send_result = kind.send_result;
        EXPECT_EQ(status < 0 ? door.sip.Error(stack_id, -status) : door.sip.Respond(stack_id, status, kind.headers), 0);
        door.Pump();
        Texts expected;
        if (*expect.notification != '\0') expected = {Fill(expect.notification, id, std::max(status, 0))};
        EXPECT_EQ(door.Notifications(), expected);
        EXPECT_EQ(door.SentExpiries(), expect.sent);
        EXPECT_EQ(Probe(door, id), expect.probe);
        // What has ended has released its library entry.
        EXPECT_EQ(door.sip.entries.contains(stack_id), expect.probe == 'A' || expect.probe == 'D');
      }
    }
  }
}

TEST(ComponentStates, AutoReregisterKeepsALostRegistration) {
  FrontDoor door;
  const int id = Reach(door, kUnregTimer);
  // Every 30 seconds, not at the period of the refresh; errors stay silent, without limit.
  for (int i = 0; i < 5; ++i) {
    EXPECT_TRUE(door.SentIn(29s).empty());
    EXPECT_EQ(door.SentIn(1s), Ints{600});
    door.sip.Error(door.LastStackId(), SIP_EVENT_REGISTER_TIMEOUT);
    door.Pump();
    EXPECT_TRUE(door.Notifications().empty());
  }
  // A success ends it: told like a first registration, and refreshed at its own period again.
  door.Settle(200);
  EXPECT_EQ(door.Notifications(), Texts{Fill(kSuccess, id)});
  EXPECT_TRUE(door.SentIn(299s).empty());
  EXPECT_EQ(door.SentIn(1s), Ints{600});
  // Lost once more, it comes back at the pace of the loss.
  door.sip.Error(door.LastStackId(), SIP_EVENT_REGISTER_TIMEOUT);
  door.Pump();
  EXPECT_EQ(door.Notifications(), Texts{Fill(kTimeout, id)});
  EXPECT_EQ(door.SentIn(30s), Ints{600});
  door.Settle(200);
  EXPECT_EQ(door.Notifications(), Texts{Fill(kSuccess, id)});
  // A refused refresh keeps it, but nothing leaves by itself; a command with the id brings it back, with what is
  // stored.
  door.sip.Respond(door.LastStackId(), 503, "Retry-After: 30\r\n");
  EXPECT_EQ(door.Notifications(), Texts{Fill(kLostLater, id)});
  EXPECT_TRUE(door.SentIn(2000s).empty());
  EXPECT_EQ(door.Command(3, Fill("<reg><id>$</id></reg>", id)).document, Fill("<reg><ret>0</ret><id>$</id></reg>", id));
  EXPECT_EQ(door.SentExpiries(), Ints{600});
  door.sip.Respond(door.LastStackId(), 200);
  EXPECT_EQ(door.Notifications(), Texts{Fill(kSuccess, id)});
}

TEST(ComponentStates, WarningGoesToTheClient) {
  const std::pair<const char*, const char*> cases[] = {
      {"Warning: 399 host \"come back later\"\r\n", "<warncode>399</warncode><warntext>come back later</warntext>"},
      {"Warning: abc\r\n", "<warncode>0</warncode><warntext></warntext>"},
      {"Warning: 399 host \"cut\r\n", "<warncode>399</warncode><warntext></warntext>"},
  };
  for (const auto& [header, expected] : cases) {
    FrontDoor door;
    door.Register(fakes::kAlice);
    door.sip.Respond(door.LastStackId(), 403, header);
    EXPECT_NE(door.Notifications().at(0).find(expected), std::string::npos) << header;
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
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.headers);
    FrontDoor door;
    Reach(door, kReging);
    door.Settle(200, c.headers);
    EXPECT_TRUE(door.SentIn(std::chrono::seconds(c.period - 1)).empty());
    EXPECT_EQ(door.SentIn(1s), Ints{c.next});
  }
}

TEST(ComponentStates, PAssociatedUriMovesTheRegistration) {
  FrontDoor door;
  const int id = Reach(door, kReging);
  const long stack_id = door.LastStackId();
  const auto settle = [&](int status, const std::string& uris) {
    door.Settle(status, "P-Associated-URI: " + uris + "\r\n");
  };
  // Without the address of record among them the first one is registered from now on.
  settle(200, "\"A\" <sip:alice@public.example>;x=1, <tel:+1>");
  EXPECT_EQ(door.Notifications(),
            Texts{Fill("1000 " REGISTRATION "<result>0</result><uri>sip:alice@public.example</uri></reg>", id)});
  EXPECT_EQ(door.sip.entries[stack_id], "sip:alice@public.example");
  // With it among them, at any place, the report is the address of record again; the entry is not touched.
  settle(200, "<tel:+1>, <sip:alice@example.com>");
  EXPECT_EQ(door.sip.entries[stack_id], "sip:alice@public.example");
  // An address that the library refuses costs nothing.
  door.sip.refuse_addresses = true;
  settle(200, "<sip:mallory@example.org>");
  door.sip.refuse_addresses = false;
  EXPECT_EQ(door.SentIn(300s), Ints{600});
  // Service lost: back to the address of record.
  door.Settle(533);
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
    door.sip.Respond(it->second, 200);
    EXPECT_EQ(door.Notifications(), Texts{Fill(kSuccess, it->first)});
  }
  // Nobody's: of an entry that is gone, of one that never was, of an unknown kind, none at all.
  const auto [first, gone] = *stack_ids.begin();
  door.Deregister(first, "<nosend>true</nosend>");
  for (const long nobody : {gone, 987654L}) door.sip.Respond(nobody, 403);
  const auto [id, stack_id] = *stack_ids.rbegin();
  EXPECT_EQ(door.sip.Error(stack_id, 27), -1);
  EXPECT_EQ(door.sip.handler->OnStackEvent(nullptr), -1);
  EXPECT_TRUE(door.Notifications().empty());
  EXPECT_EQ(Probe(door, id), 'A');
  // A response without a message: told as a failure of nobody, and the registration ends.
  SipStackEvent event{SIP_EVENT_REGISTER_RESPONSE, nullptr, 0, nullptr, stack_id};
  EXPECT_EQ(door.sip.handler->OnStackEvent(&event), 0);
  EXPECT_EQ(door.Notifications(), Texts{Fill(kFailed, 0)});
  EXPECT_EQ(Probe(door, id), '-');
}

}  // namespace
