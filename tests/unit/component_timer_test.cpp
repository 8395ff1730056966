// Refresh times on virtual time, and how registrations and their timers end.

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <thread>
#include <vector>

#include "failing_new.h"
#include "FrontDoor.h"
#include "Register.h"

namespace {

using fakes::FrontDoor;
using namespace std::chrono_literals;
using Ints = std::vector<int>;

constexpr char kGood[] = "<reg><ret>0</ret></reg>";

std::string Alice(int expires, const std::string& refresh = "true") {
  return "<aor>sip:alice@example.com</aor><registrar>sip:example.com</registrar><expires>" + std::to_string(expires) +
         "</expires><auto-refresh>" + refresh + "</auto-refresh>";
}

// On another thread, as the stack does it.
void Respond(FrontDoor& door, int status) {
  std::thread([&] { door.sip.Respond(door.LastStackId(), status); }).join();
}

TEST(ComponentTimer, RefreshesForADay) {
  constexpr std::pair<int, int> kPeriods[] = {{3600, 3000}, {1201, 601}, {1200, 600},   {61, 30},
                                              {7, 3},       {2, 1},      {86400, 85800}};
  for (const auto& [expires, period] : kPeriods) {
    SCOPED_TRACE(expires);
    FrontDoor door;
    door.Live(Alice(expires));
    // A day; of the shortest periods, as many as show a drift.
    for (int time = period; time <= std::min(86400, 3000 * period); time += period) {
      door.Jump(std::chrono::seconds(period) - 1ms);
      ASSERT_TRUE(door.SentExpiries().empty()) << time;
      door.Jump(1ms);
      ASSERT_EQ(door.SentExpiries(), Ints{expires}) << time;
      door.sip.Respond(door.LastStackId(), 200);
    }
    EXPECT_EQ(door.sip.sent.back().expires_header, std::to_string(expires));
    EXPECT_TRUE(door.Notifications().empty());  // refreshes are silent
  }
  for (const std::string& none : {Alice(1), Alice(0), Alice(600, "TRUE")}) {  // without a period, or not asked for
    FrontDoor door;
    door.Live(none);
    EXPECT_TRUE(door.SentIn(3600s).empty()) << none;
  }
}

TEST(ComponentTimer, AGrantCountsFromTheNextStartOfTheTimer) {
  FrontDoor door;
  door.Live(Alice(600));
  door.Settle(200, "Expires: 3600\r\n");  // the running timer keeps its period
  EXPECT_EQ(door.SentIn(300s), Ints{3600});
  // A 423 stops it; nothing leaves by itself until the response, which starts it with the new period.
  door.Settle(423, "Min-Expires: 1201\r\n");
  EXPECT_EQ(door.SentExpiries(), Ints{1201});
  EXPECT_TRUE(door.SentIn(4000s).empty());
  door.Settle(200);
  EXPECT_TRUE(door.SentIn(600s).empty());
  EXPECT_EQ(door.SentIn(1s), Ints{1201});
  // What could not be sent at a firing is tried at the next.
  door.sip.build_result = -1;
  EXPECT_TRUE(door.SentIn(601s).empty());
  door.sip.build_result = 0;
  EXPECT_EQ(door.SentIn(601s), Ints{1201});
}

TEST(ComponentTimer, NoRefreshAfterDeregister) {
  // On the timer's own thread, also when a START is still in the queue, and from another thread.
  for (const int way : {0, 1, 2, 3}) {
    FrontDoor door;
    const int id = door.Register(Alice(600));
    door.sip.Respond(door.LastStackId(), 200);
    if (way < 2) door.Pump();
    const auto end = [&] { EXPECT_EQ(door.Deregister(id).document, kGood); };
    if (way % 2 == 0) end();
    if (way % 2 != 0) std::thread(end).join();
    EXPECT_EQ(door.SentExpiries(), (Ints{600, 0}));
    door.Advance(3000s);
    end();
    EXPECT_TRUE(door.SentExpiries().empty());
    Respond(door, 200);
    door.Pump();
    EXPECT_EQ(CRegister::s_nAlive, 0) << "a timer was left";
    EXPECT_TRUE(door.SentIn(3000s).empty());
    EXPECT_TRUE(door.sip.entries.empty());
  }
  // A firing has seen a live registration and waits for the lock.
  FrontDoor door;
  const int id = door.Live(Alice(600));
  door.sip.before_lock = [&] { std::thread([&] { door.Deregister(id); }).join(); };
  door.Jump(300s);
  EXPECT_EQ(door.SentExpiries(), Ints{0});
}

TEST(ComponentTimer, AnObjectIsFreedHoweverItEnds) {
  {
    FrontDoor door;
    // By its STOP, when its timer runs on a live loop.
    door.Live(Alice(600));
    Respond(door, 403);
    EXPECT_EQ(CRegister::s_nAlive, 1);
    door.Pump();
    EXPECT_EQ(CRegister::s_nAlive, 0);
    // At once, when its timer has not started yet.
    door.Register(Alice(600));
    for (const int status : {200, 403}) Respond(door, status);
    EXPECT_EQ(CRegister::s_nAlive, 0);
    // At once, when it is ended while it waits to be registered again.
    const int id = door.Register(fakes::kAliceReregister);
    Respond(door, 200);
    door.sip.Error(door.LastStackId(), SIP_EVENT_REGISTER_TIMEOUT);
    door.Pump();
    EXPECT_EQ(door.Deregister(id).document, "<reg><ret>-1</ret></reg>");
    EXPECT_EQ(CRegister::s_nAlive, 0);
  }
  // At its next firing, when no memory was left for the STOP or for the event that ends it.
  for (long left = 0; left < 60; ++left) {
    FrontDoor door;
    const int id = door.Live(Alice(600));
    std::thread([&] {
      SipStackEvent event{SIP_EVENT_REGISTER_TIMEOUT, nullptr, 0, nullptr, door.LastStackId()};
      failing_new::Limit(left);
      door.sip.handler->OnStackEvent(&event);
      failing_new::Limit(-1);
    }).join();
    door.Jump(600s);
    std::thread([&] { door.Deregister(id, "<nosend>1</nosend>"); }).join();
    door.Jump(600s);
    EXPECT_EQ(CRegister::s_nAlive, 0) << left;
  }
  // After its thread has ended, the STOP still in the queue or refused: at the next registration.
  // That one goes at shutdown, with its timer running.
  for (const bool stop_queued : {false, true}) {
    FrontDoor door;
    std::thread([&] {
      door.Live(Alice(600));
      if (stop_queued) Respond(door, 403);
    }).join();
    if (!stop_queued) Respond(door, 403);
    door.Live(Alice(600));
    EXPECT_EQ(CRegister::s_nAlive, 1);
  }
  EXPECT_EQ(CRegister::s_nAlive, 0);
}

TEST(ComponentTimer, ARegistrationTakenOverByAnotherThreadEndsOnBoth) {
  FrontDoor door;
  const int id = door.Live(Alice(600));  // the timer runs here
  std::thread([&] {
    door.Command(3, "<reg><id>" + std::to_string(id) + "</id></reg>");
    door.Settle(200);
    door.Settle(403);  // STOP goes to this thread, which cannot cancel
  }).join();
  EXPECT_EQ(CRegister::s_nAlive, 0);
  door.SentExpiries();
  EXPECT_TRUE(door.SentIn(3000s).empty());
}

TEST(ComponentTimer, ShutdownGivesEveryBindingBackOnceAndTellsNobody) {
  auto& sip = fakes::FakeSip::Get();
  {
    FrontDoor door;
    door.Register(Alice(600));
    door.Register(Alice(600));
    door.sip.Respond(door.LastStackId(), 200);
    door.Live(Alice(600));
    door.Deregister(door.Live(Alice(600)));  // has sent its own
    sip.sent.clear();
  }
  EXPECT_EQ(sip.sent.size(), 3u);
  for (const auto& sent : sip.sent) EXPECT_EQ(sent.expires, 0);
  EXPECT_TRUE(sip.entries.empty());
  EXPECT_TRUE(fakes::FakeBus::Get().expressed.empty());
  EXPECT_EQ(CRegister::s_nAlive, 0);
}

}  // namespace
