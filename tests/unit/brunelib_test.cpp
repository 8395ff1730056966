// The bus with plug-ins of the tests' own.
#include "Brunelib/Brunelib.h"

#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "failing_new.h"

namespace {

using namespace std::chrono_literals;

std::mutex g_mutex;
std::vector<std::string> g_seen;

void See(const std::string& what) {
  const std::lock_guard lock(g_mutex);
  g_seen.push_back(what);
}

int Record(const char* source, int id, CXML* document, void*) {
  See(source + std::to_string(id) + (document != nullptr ? document->GetDoc() : ""));
  return 0;
}

std::string Load(const std::string& name) {
  std::string error;
  const std::string identity = brunelib::LoadComponent(name, "BUS", error);
  EXPECT_EQ(identity.empty(), !error.empty());
  return identity.empty() ? error : identity;
}

class BusTest : public testing::Test {
 protected:
  void TearDown() override {
    brunelib::Shutdown(10s);
    for (const char* source : {"{A}", "{B}", "{F}", "{T}"}) {
      for (int id = 0; id < 8; ++id) XSUnsubNotify(source, id, &Record);
    }
  }
  std::vector<std::string> Seen() {
    // Twice, for what the callbacks of the first round have expressed.
    EXPECT_TRUE(brunelib::DrainNotifications(10s));
    EXPECT_TRUE(brunelib::DrainNotifications(10s));
    const std::lock_guard lock(g_mutex);
    return std::exchange(g_seen, {});
  }
  using Texts = std::vector<std::string>;
};

TEST_F(BusTest, LoadsSaysWhatItLoadedAndLoadsAnew) {
  XSSubNotify("{A}", 1, &Record);
  XSSubNotify("{A}", 2, &Record);
  for (int round = 0; round < 2; ++round) {
    ASSERT_EQ(Load("BusPluginA"), "{A}");
    XSComponentInfo info{};
    ASSERT_TRUE(brunelib::GetComponentInfo("{A}", info));
    EXPECT_STREQ(info.szVendor, "Tolvane");
    EXPECT_EQ(XSExecuteCommand("{A}", 1, nullptr, nullptr), 1);
    EXPECT_EQ(XSExecuteCommand("{A}", 1, nullptr, nullptr), 2);
    EXPECT_TRUE(brunelib::UnloadComponent("{A}", 1s));
    EXPECT_FALSE(brunelib::UnloadComponent("{A}", 1s));
    EXPECT_FALSE(brunelib::GetComponentInfo("{A}", info));
    EXPECT_EQ(XSExecuteCommand("{A}", 1, nullptr, nullptr), XS_E_UNKNOWN);
    // Its subscription went with it: this would call into nothing.
    XSExpressNotify("{T}", 6, nullptr, nullptr);
    EXPECT_EQ(Seen(), (Texts{"{A}1", "{A}2"}));
  }
}

TEST_F(BusTest, LoadErrorsSayWhatFailed) {
  const auto expect = [](const std::string& error, const std::string& part) {
    EXPECT_NE(error.find(part), std::string::npos) << error;
  };
  expect(Load("Nowhere"), "lib/libNowhere.so, ");
  expect(Load("/nowhere/x.so"), "/nowhere/x.so");
  expect(Load("/proc/self/cmdline"), "cannot load /proc/self/cmdline: ");
  expect(Load("BusPluginNameless"), "no valid identity");
  std::string error;
  EXPECT_EQ(brunelib::LoadComponent("BusPluginA", "OTHER", error), "");
  expect(error, "does not export OTHERInformation");
  ASSERT_EQ(Load("BusPluginA"), "{A}");
  expect(Load("BusPluginTwin"), "identity {A} is loaded already");
  EXPECT_EQ(XSExecuteCommand("{A}", 1, nullptr, nullptr), 1);

  XSSubNotify("{F}", 2, &Record);
  expect(Load("BusPluginFailing"), "BUSInitialize gave 7");
  EXPECT_EQ(XSExecuteCommand("{F}", 1, nullptr, nullptr), XS_E_UNKNOWN);
  XSExpressNotify("{T}", 6, nullptr, nullptr);
  EXPECT_EQ(Seen(), Texts{"{F}2"});  // uninitialised all the same
}

TEST_F(BusTest, CommandsGoToTheirComponent) {
  ASSERT_EQ(Load("BusPluginA"), "{A}");
  ASSERT_EQ(Load("BusPluginB"), "{B}");
  EXPECT_EQ(XSExecuteCommand("{A}", 1, nullptr, nullptr), 1);
  EXPECT_EQ(XSExecuteCommand("{B}", 1, nullptr, nullptr), 1);
  EXPECT_EQ(XSExecuteCommand("{A}", 99, nullptr, nullptr), -1);
  EXPECT_EQ(XSExecuteCommand(nullptr, 1, nullptr, nullptr), XS_E_INVALID);
  CXML in;
  CXML out;
  in.SetDoc("<in>a&amp;b</in>");
  EXPECT_EQ(XSExecuteCommand("{B}", 5, &in, &out), 0);
  EXPECT_EQ(out.GetDoc(), "<out>a&amp;b</out>");
}

TEST_F(BusTest, NotificationsKeepTheirOrderAndTheirDocuments) {
  const std::string longest(39, 'x');
  EXPECT_EQ(XSSubNotify(longest.c_str(), 1, &Record), XS_OK);
  EXPECT_EQ(XSUnsubNotify(longest.c_str(), 1, &Record), XS_OK);
  EXPECT_EQ(XSSubNotify((longest + "x").c_str(), 1, &Record), XS_E_INVALID);
  EXPECT_EQ(XSSubNotify("{T}", 1, nullptr), XS_E_INVALID);
  EXPECT_EQ(XSExpressNotify(nullptr, 1, nullptr, nullptr), XS_E_INVALID);

  XSSubNotify("{N}", 1, &Record);
  XSSubNotify("{N}", 1, &Record);  // counts once
  XSSubNotify("{N}", 1, [](const char*, int, CXML* document, void* extra) {
    document->FindElem("d");
    document->AddChildElem("mine", "", 0);
    See("second" + std::to_string(*static_cast<int*>(extra)));
    return 0;
  });
  XSNotifyCallback* const third = [](const char*, int, CXML* document, void*) {
    See("third" + document->GetDoc());
    return 0;
  };
  XSSubNotify("{N}", 1, third);
  Texts expected;
  int extra = 5;
  for (int n = 0; n < 50; ++n) {
    CXML document;
    document.AddElem("d", std::to_string(n).c_str(), 0);
    const std::string text = document.GetDoc();
    EXPECT_EQ(XSExpressNotify("{N}", 1, &document, &extra), XS_OK);
    XSExpressNotify("{N}", 2, &document, &extra);  // wanted by nobody
    document.AddChildElem("later", "", 0);
    expected.insert(expected.end(), {"{N}1" + text, "second5", "third" + text});
  }
  EXPECT_EQ(Seen(), expected);
}

int TakeMyselfOff(const char* source, int id, CXML*, void*) {
  EXPECT_EQ(XSUnsubNotify(source, id, &TakeMyselfOff), XS_OK);
  EXPECT_EQ(XSSubNotify("{T}", 4, &Record), XS_OK);
  See("command" + std::to_string(XSExecuteCommand("{A}", 1, nullptr, nullptr)));
  EXPECT_FALSE(brunelib::UnloadComponent("{A}", 10s));
  EXPECT_FALSE(brunelib::DrainNotifications(10s));
  brunelib::Shutdown(10s);
  XSExpressNotify("{T}", 4, nullptr, nullptr);
  return 0;
}

TEST_F(BusTest, CallbacksMayUseTheBus) {
  ASSERT_EQ(Load("BusPluginA"), "{A}");
  XSSubNotify("{T}", 3, &TakeMyselfOff);
  XSSubNotify("{T}", 3, &Record);
  XSSubNotify("{A}", 7, &Record);
  XSExpressNotify("{T}", 3, nullptr, nullptr);
  EXPECT_EQ(Seen(), (Texts{"command1", "{T}3", "{T}4"}));
  XSExpressNotify("{T}", 3, nullptr, nullptr);
  CXML document;
  document.SetDoc("<d/>");
  XSExpressNotify("{T}", 6, &document, nullptr);  // the component's callback expresses 7
  EXPECT_EQ(Seen(), (Texts{"{T}3", "{A}7<d/>"}));
}

std::atomic<bool> g_inside{false};
std::atomic<bool> g_release{false};
std::atomic<bool> g_subscribed{false};

int StayInside(const char* source, int id, CXML*, void* extra) {
  if (extra != nullptr) XSUnsubNotify(source, id, &StayInside);  // takes itself off and stays
  g_inside = true;
  while (!g_release) std::this_thread::yield();
  std::this_thread::sleep_for(20ms);
  g_inside = false;
  return 0;
}

TEST_F(BusTest, UnsubscribingWaitsForTheCallThatIsUnderWay) {
  for (int* extra : {static_cast<int*>(nullptr), reinterpret_cast<int*>(&g_inside)}) {
    g_release = false;
    XSSubNotify("{T}", 1, &StayInside);
    XSExpressNotify("{T}", 1, nullptr, extra);
    while (!g_inside) std::this_thread::yield();
    EXPECT_FALSE(brunelib::DrainNotifications(10ms));
    std::thread releaser([] {
      std::this_thread::sleep_for(20ms);
      g_release = true;
    });
    XSUnsubNotify("{T}", 1, &StayInside);
    EXPECT_FALSE(g_inside);
    releaser.join();
  }
}

int OnlyWhileSubscribed(const char*, int, CXML*, void* counter) {
  EXPECT_TRUE(g_subscribed);
  ++*static_cast<std::atomic<int>*>(counter);
  return 0;
}

TEST_F(BusTest, NoCallComesAfterUnsubscribingUnderLoad) {
  std::atomic<bool> stop{false};
  std::atomic<int> calls{0};
  std::vector<std::thread> senders;
  for (int n = 0; n < 2; ++n) {
    senders.emplace_back([&] {
      while (!stop) {
        XSExpressNotify("{T}", 1, nullptr, &calls);
        std::this_thread::yield();
      }
    });
  }
  for (int round = 0; round < 200; ++round) {
    g_subscribed = true;
    XSSubNotify("{T}", 1, &OnlyWhileSubscribed);
    for (const int before = calls; round % 10 == 0 && calls == before;) std::this_thread::yield();
    XSUnsubNotify("{T}", 1, &OnlyWhileSubscribed);
    g_subscribed = false;
  }
  stop = true;
  for (std::thread& sender : senders) sender.join();
  EXPECT_TRUE(brunelib::DrainNotifications(10s));
  EXPECT_GE(calls, 20);
}

TEST_F(BusTest, UnloadingWaitsForCommandsAndGoesBackwards) {
  ASSERT_EQ(Load("BusPluginA"), "{A}");
  ASSERT_EQ(Load("BusPluginB"), "{B}");
  std::thread caller([] { EXPECT_EQ(XSExecuteCommand("{A}", 2, nullptr, nullptr), 0); });
  while (XSExecuteCommand("{A}", 3, nullptr, nullptr) == 0) std::this_thread::yield();
  EXPECT_FALSE(brunelib::UnloadComponent("{A}", 20ms));
  EXPECT_EQ(XSExecuteCommand("{A}", 1, nullptr, nullptr), 1);  // still there
  XSSubNotify("{A}", 2, &Record);
  XSSubNotify("{B}", 2, &Record);
  brunelib::Shutdown(20ms);  // the one below is passed over
  EXPECT_EQ(Seen(), Texts{"{B}2"});
  EXPECT_EQ(XSExecuteCommand("{A}", 4, nullptr, nullptr), 0);
  caller.join();
  ASSERT_EQ(Load("BusPluginB"), "{B}");
  brunelib::Shutdown(10s);
  EXPECT_EQ(Seen(), (Texts{"{B}2", "{A}2"}));
}

// The n-th allocation fails, for every n until nothing fails any more.
TEST_F(BusTest, OutOfMemoryLosesNothingThatWasQueued) {
  const std::string source(39, 'm');  // long enough to be allocated
  const auto sweep = [](auto&& attempt) {
    int failures = 0;
    for (bool done = false; !done; failures += done ? 0 : 1) {
      failing_new::Limit(failures);
      done = attempt();
      failing_new::Limit(-1);
    }
    EXPECT_GT(failures, 0);
  };
  const auto succeeded = [](int result) {
    EXPECT_TRUE(result == XS_OK || result == XS_E_NO_MEMORY) << result;
    return result == XS_OK;
  };
  sweep([&] { return succeeded(XSSubNotify(source.c_str(), 1, &Record)); });
  CXML document;
  document.SetDoc("<d/>");
  for (int round = 0; round < 2; ++round) {  // the first one starts the thread
    sweep([&] { return succeeded(XSExpressNotify(source.c_str(), 1, &document, nullptr)); });
  }
  EXPECT_EQ(Seen(), Texts(2, source + "1<d/>"));
  XSUnsubNotify(source.c_str(), 1, &Record);

  std::string error;
  std::string identity;
  const std::string name = "BusPluginA";
  const std::string prefix = "BUS";
  sweep([&] {
    identity = brunelib::LoadComponent(name, prefix, error);
    EXPECT_EQ(XSExecuteCommand("{A}", 3, nullptr, nullptr), identity.empty() ? XS_E_UNKNOWN : 0);
    return !identity.empty();
  });
  EXPECT_EQ(error, "out of memory");  // of the attempt before the last
}

}  // namespace
