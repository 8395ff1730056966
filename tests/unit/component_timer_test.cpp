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
using std::chrono::seconds;

std::string Alice(int expires) {
  return "<aor>sip:alice@example.com</aor><registrar>sip:example.com</registrar><expires>" + std::to_string(expires) +
         "</expires><auto-refresh>true</auto-refresh>";
}

// On another thread, as the stack does it.
void Answer(FrontDoor& door, int status, const std::string& headers = {}) {
  std::thread([&] { door.sip.Answer(door.LastStackId(), status, headers); }).join();
}

TEST(ComponentTimer, RefreshesForADay) {
  const struct {
    int expires;
    int period;
  } cases[] = {{3600, 3000}, {1201, 601}, {1200, 600}, {61, 30}, {7, 3}, {2, 1}, {86400, 85800}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.expires);
    FrontDoor door;
    door.Register(Alice(c.expires));
    door.sip.Answer(door.LastStackId(), 200);
    door.Pump();
    door.SentExpiries();
    // A day; of the shortest periods, as many as show a drift.
    for (int time = c.period; time <= std::min(86400, 3000 * c.period); time += c.period) {
      door.Jump(seconds(c.period) - std::chrono::milliseconds(1));
      ASSERT_TRUE(door.SentExpiries().empty()) << time;
      door.Jump(std::chrono::milliseconds(1));
      ASSERT_EQ(door.SentExpiries(), std::vector<int>{c.expires}) << time;
      door.sip.Answer(door.LastStackId(), 200);
    }
    EXPECT_EQ(door.sip.sent.back().expires_header, std::to_string(c.expires));
    EXPECT_EQ(door.Notifications().size(), 1u);  // refreshes are silent
  }
}

TEST(ComponentTimer, NoTimerWithoutAPeriodOrTheWish) {
  const std::string cases[] = {
      Alice(1), Alice(0),
      "<aor>sip:alice@example.com</aor><registrar>sip:example.com</registrar><expires>600</expires>"
      "<auto-refresh>TRUE</auto-refresh>"};
  for (const std::string& children : cases) {
    FrontDoor door;
    door.Register(children);
    door.sip.Answer(door.LastStackId(), 200);
    door.Pump();
    door.SentExpiries();
    door.Advance(seconds(3600));
    EXPECT_TRUE(door.SentExpiries().empty()) << children;
  }
}

TEST(ComponentTimer, AGrantCountsFromTheNextStartOfTheTimer) {
  FrontDoor door;
  door.Register(Alice(600));
  door.sip.Answer(door.LastStackId(), 200);
  door.Pump();
  // The running timer keeps its period.
  door.sip.Answer(door.LastStackId(), 200, "Expires: 3600\r\n");
  door.Pump();
  door.SentExpiries();
  door.Advance(seconds(300));
  EXPECT_EQ(door.SentExpiries(), std::vector<int>{3600});
  // A 423 stops it; nothing leaves by itself until the answer, which starts it with the new period.
  door.sip.Answer(door.LastStackId(), 423, "Min-Expires: 1201\r\n");
  door.Pump();
  EXPECT_EQ(door.SentExpiries(), std::vector<int>{1201});
  door.Advance(seconds(4000));
  EXPECT_TRUE(door.SentExpiries().empty());
  door.sip.Answer(door.LastStackId(), 200);
  door.Pump();
  door.Advance(seconds(600));
  EXPECT_TRUE(door.SentExpiries().empty());
  door.Advance(seconds(1));
  EXPECT_EQ(door.SentExpiries(), std::vector<int>{1201});
}

TEST(ComponentTimer, AFailedSendAtAFiringIsTriedAtTheNext) {
  FrontDoor door;
  door.Register(Alice(600));
  door.sip.Answer(door.LastStackId(), 200);
  door.Pump();
  door.SentExpiries();
  door.sip.build_result = -1;
  door.Advance(seconds(300));
  EXPECT_TRUE(door.SentExpiries().empty());
  door.sip.build_result = 0;
  door.Advance(seconds(300));
  EXPECT_EQ(door.SentExpiries(), std::vector<int>{600});
}

TEST(ComponentTimer, NoRefreshAfterDeregister) {
  // On the timer's own thread, also when a START is still in the queue, and from another thread.
  for (const bool start_queued : {false, true}) {
    for (const bool other_thread : {false, true}) {
      FrontDoor door;
      const int id = door.Register(Alice(600));
      door.sip.Answer(door.LastStackId(), 200);
      if (!start_queued) door.Pump();
      const auto end = [&] { EXPECT_EQ(door.Deregister(id).document, "<reg><ret>0</ret></reg>"); };
      if (other_thread) {
        std::thread(end).join();
      } else {
        end();
      }
      EXPECT_EQ(door.SentExpiries(), (std::vector<int>{600, 0}));
      door.Advance(seconds(3000));
      EXPECT_EQ(door.Deregister(id).document, "<reg><ret>0</ret></reg>");
      EXPECT_TRUE(door.SentExpiries().empty());
      Answer(door, 200);
      door.Pump();
      EXPECT_EQ(CRegister::s_nAlive, 0) << "a timer was left";
      door.Advance(seconds(3000));
      EXPECT_TRUE(door.SentExpiries().empty());
      EXPECT_TRUE(door.sip.entries.empty());
    }
  }
}

TEST(ComponentTimer, ARefreshThatADeregistrationOvertakesIsNotSent) {
  FrontDoor door;
  const int id = door.Register(Alice(600));
  Answer(door, 200);
  door.Pump();
  door.SentExpiries();
  // The firing has seen a live registration and waits for the lock.
  door.sip.before_lock = [&] { std::thread([&] { door.Deregister(id); }).join(); };
  door.Jump(seconds(300));
  EXPECT_EQ(door.SentExpiries(), std::vector<int>{0});
}

TEST(ComponentTimer, AnObjectIsFreedHoweverItEnds) {
  // By its STOP, when its timer runs on a live loop.
  {
    FrontDoor door;
    door.Register(Alice(600));
    Answer(door, 200);
    door.Pump();
    Answer(door, 403);
    EXPECT_EQ(CRegister::s_nAlive, 1);
    door.Pump();
    EXPECT_EQ(CRegister::s_nAlive, 0);
    // At once, when its timer has not started yet.
    door.Register(Alice(600));
    Answer(door, 200);
    Answer(door, 403);
    EXPECT_EQ(CRegister::s_nAlive, 0);
    // At once, when it is given up while it waits to be brought back.
    const int id = door.Register(fakes::kAliceReregister);
    Answer(door, 200);
    door.sip.Error(door.LastStackId(), SIP_EVENT_REGISTER_TIMEOUT);
    door.Pump();
    EXPECT_EQ(door.Deregister(id).document, "<reg><ret>-1</ret></reg>");
    EXPECT_EQ(CRegister::s_nAlive, 0);
  }
  // At its next firing, when no memory was left for the STOP or for the event that ends it.
  for (long left = 0; left < 60; ++left) {
    FrontDoor door;
    const int id = door.Register(Alice(600));
    Answer(door, 200);
    door.Pump();
    std::thread([&] {
      SipStackEvent event{SIP_EVENT_REGISTER_TIMEOUT, nullptr, 0, nullptr, door.LastStackId()};
      failing_new::Limit(left);
      door.sip.handler->OnStackEvent(&event);
      failing_new::Limit(-1);
    }).join();
    door.Jump(seconds(600));
    std::thread([&] { door.Deregister(id, "<nosend>1</nosend>"); }).join();
    door.Jump(seconds(600));
    EXPECT_EQ(CRegister::s_nAlive, 0) << left;
  }
  // After its thread has ended, the STOP still in the queue or refused: at the next registration.
  for (const bool stop_queued : {false, true}) {
    FrontDoor door;
    std::thread([&] {
      door.Register(Alice(600));
      Answer(door, 200);
      kdPumpEvents();
      if (stop_queued) Answer(door, 403);
    }).join();
    if (!stop_queued) Answer(door, 403);
    EXPECT_LE(CRegister::s_nAlive, 1);
    door.Register(Alice(600));
    EXPECT_EQ(CRegister::s_nAlive, 1);
  }
  // At shutdown, with the timer running, and with the loop over.
  {
    FrontDoor door;
    door.Register(Alice(600));
    door.sip.Answer(door.LastStackId(), 200);
    door.Pump();
  }
  EXPECT_EQ(CRegister::s_nAlive, 0);
}

TEST(ComponentTimer, ARegistrationTakenOverByAnotherThreadEndsOnBoth) {
  FrontDoor door;
  const int id = door.Register(Alice(600));
  door.sip.Answer(door.LastStackId(), 200);
  door.Pump();  // the timer runs here
  std::thread([&] {
    door.Command(3, "<reg><id>" + std::to_string(id) + "</id></reg>");
    door.sip.Answer(door.LastStackId(), 200);
    kdPumpEvents();
    door.sip.Answer(door.LastStackId(), 403);  // STOP goes to this thread, which cannot cancel
    kdPumpEvents();
  }).join();
  EXPECT_EQ(CRegister::s_nAlive, 0);
  door.SentExpiries();
  door.Advance(seconds(3000));
  EXPECT_TRUE(door.SentExpiries().empty());
}

TEST(ComponentTimer, ShutdownGivesEveryBindingBackOnceAndTellsNobody) {
  auto& sip = fakes::FakeSip::Get();
  {
    FrontDoor door;
    for (int i = 0; i < 3; ++i) {
      door.Register(Alice(600));
      if (i > 0) door.sip.Answer(door.LastStackId(), 200);
      if (i > 1) door.Pump();
    }
    const int leaving = door.Register(Alice(600));
    door.sip.Answer(door.LastStackId(), 200);
    door.Deregister(leaving);
    door.SentExpiries();
    door.Notifications();
    sip.sent.clear();
  }
  EXPECT_EQ(sip.sent.size(), 3u);  // the fourth had sent its own
  for (const auto& sent : sip.sent) EXPECT_EQ(sent.expires, 0);
  EXPECT_TRUE(sip.entries.empty());
  EXPECT_TRUE(fakes::FakeBus::Get().expressed.empty());
  EXPECT_EQ(CRegister::s_nAlive, 0);
}

}  // namespace
