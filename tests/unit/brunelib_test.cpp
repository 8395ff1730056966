// The bus, with plug-ins of the tests' own.
#include "Brunelib/Brunelib.h"

#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace {

using namespace std::chrono_literals;
using Texts = std::vector<std::string>;

Texts g_seen;  // by the delivery thread, until it has been waited for

int Record(const char* source, int id, CXML* document, void*) {
  g_seen.push_back(source + std::to_string(id) + (document != nullptr ? document->GetDoc() : ""));
  return 0;
}

Texts Seen() {
  // Twice, for what the callbacks of the first round have expressed.
  EXPECT_TRUE(brunelib::DrainNotifications(10s) && brunelib::DrainNotifications(10s));
  return std::exchange(g_seen, {});
}

void Express(const char* source, int id) { XSExpressNotify(source, id, nullptr, nullptr); }
int Execute(const char* target, int id) { return XSExecuteCommand(target, id, nullptr, nullptr); }

// The identity, or the error.
std::string Load(const std::string& name, const char* prefix = "BUS") {
  std::string error;
  const std::string identity = brunelib::LoadComponent(name, prefix, error);
  EXPECT_EQ(identity.empty(), !error.empty());
  return identity.empty() ? error : identity;
}

class BusTest : public testing::Test {
 protected:
  ~BusTest() override {
    brunelib::Shutdown(10s);
    g_seen.clear();
    for (const char* source : {"{A}", "{B}", "{F}", "{T}"}) {
      for (int id = 0; id < 8; ++id) XSUnsubNotify(source, id, &Record);
    }
  }
};

TEST_F(BusTest, LoadsTakesBackAndLoadsAgain) {
  XSSubNotify("{A}", 1, &Record);
  XSSubNotify("{A}", 2, &Record);
  for (int round = 0; round < 2; ++round) {
    ASSERT_EQ(Load("BusPluginA"), "{A}");
    XSComponentInfo info{};
    ASSERT_TRUE(brunelib::GetComponentInfo("{A}", info));
    CXML in;
    CXML out;
    in.SetDoc("<in>a</in>");
    EXPECT_EQ(XSExecuteCommand("{A}", 1, &in, &out), 1);
    EXPECT_EQ(out.GetDoc(), "<in>a</in>");
    EXPECT_EQ(Execute(nullptr, 1), XS_E_INVALID);
    EXPECT_TRUE(brunelib::UnloadComponent("{A}", 1s) && !brunelib::UnloadComponent("{A}", 1s));
    EXPECT_TRUE(!brunelib::GetComponentInfo("{A}", info) && Execute("{A}", 1) == XS_E_UNKNOWN);
    Express("{T}", 6);  // its subscription went with it: this would call into nothing
    EXPECT_EQ(Seen(), (Texts{"{A}1", "{A}2"}));
  }
}

TEST_F(BusTest, LoadErrorsSayWhatFailed) {
  ASSERT_EQ(Load("BusPluginA"), "{A}");
  XSSubNotify("{F}", 2, &Record);
  // clang-format off
  static const char* const kRows[][3] = {  // name, prefix, part of the error
      {"Nowhere", "BUS", "lib/libNowhere.so, "}, {"/nowhere/x.so", "BUS", "/nowhere/x.so"},
      {"/proc/self/cmdline", "BUS", "cannot load /proc/self/cmdline: "}, {"BusPluginNameless", "BUS", "no valid identity"},
      {"BusPluginB", "OTHER", "does not export OTHERInformation"}, {"BusPluginFailing", "BUS", "BUSInitialize gave 7"},
      {"BusPluginTwin", "BUS", "identity {A} is loaded already"}};
  // clang-format on
  for (const auto& [name, prefix, part] : kRows) {
    const std::string error = Load(name, prefix);
    EXPECT_NE(error.find(part), std::string::npos) << error;
  }
  EXPECT_TRUE(Execute("{A}", 1) == 1 && Execute("{F}", 1) == XS_E_UNKNOWN);
  brunelib::Shutdown(10s);
  Express("{T}", 6);
  EXPECT_EQ(Seen(), Texts{"{F}2"});  // uninitialised all the same
}

TEST_F(BusTest, NotificationsKeepTheirOrderAndTheirDocuments) {
  XSSubNotify("{N}", 1, [](const char*, int, CXML* document, void* extra) {
    document->SetDoc("<mine/>");
    g_seen.push_back("first" + std::to_string(*static_cast<int*>(extra)));
    return 0;
  });
  XSSubNotify("{N}", 1, &Record);
  XSSubNotify("{N}", 1, &Record);  // counts once
  Texts expected;
  int extra = 5;
  for (int n = 0; n < 50; ++n) {
    const std::string text = "<d" + std::to_string(n) + "/>";
    CXML document;
    document.SetDoc(text.c_str());
    EXPECT_EQ(XSExpressNotify("{N}", 1, &document, &extra), XS_OK);
    document.SetDoc("<later/>");
    expected.insert(expected.end(), {"first5", "{N}1" + text});
  }
  EXPECT_EQ(Seen(), expected);
}

int TakeMyselfOff(const char* source, int id, CXML*, void*) {
  EXPECT_EQ(XSUnsubNotify(source, id, &TakeMyselfOff), XS_OK);
  for (int ntf : {3, 4}) EXPECT_EQ(XSSubNotify("{T}", ntf, &Record), XS_OK);  // from now on
  EXPECT_EQ(Execute("{A}", 1), 1);
  EXPECT_FALSE(brunelib::UnloadComponent("{A}", 10s) || brunelib::DrainNotifications(10s));
  brunelib::Shutdown(10s);
  Express("{T}", 4);
  return 0;
}

TEST_F(BusTest, CallbacksMayUseTheBus) {
  ASSERT_EQ(Load("BusPluginA"), "{A}");
  XSSubNotify("{T}", 3, &TakeMyselfOff);
  XSSubNotify("{A}", 7, &Record);
  Express("{T}", 3);
  EXPECT_EQ(Seen(), Texts{"{T}4"});
  Express("{T}", 3);
  Express("{T}", 6);  // the component's callback expresses 7
  EXPECT_EQ(Seen(), (Texts{"{T}3", "{A}7"}));
}

std::atomic<bool> g_inside{false};

int StayInside(const char* source, int id, CXML*, void* extra) {
  if (extra != nullptr) XSUnsubNotify(source, id, &StayInside);  // takes itself off and stays
  g_inside = true;
  std::this_thread::sleep_for(100ms);
  g_inside = false;
  return 0;
}

TEST_F(BusTest, UnsubscribingWaitsForTheCallThatIsUnderWay) {
  for (void* extra : {static_cast<void*>(nullptr), static_cast<void*>(&g_inside)}) {
    XSSubNotify("{T}", 1, &StayInside);
    XSExpressNotify("{T}", 1, nullptr, extra);
    while (!g_inside) std::this_thread::yield();
    EXPECT_FALSE(brunelib::DrainNotifications(1ms));
    XSUnsubNotify("{T}", 1, &StayInside);
    EXPECT_FALSE(g_inside);
  }
  static std::atomic<bool> subscribed{false};
  std::atomic<int> calls{0};
  const auto call = [](const char*, int, CXML*, void* counter) {
    EXPECT_TRUE(subscribed);
    return ++*static_cast<std::atomic<int>*>(counter);
  };
  std::jthread sender([&](const std::stop_token& stop) {
    for (; !stop.stop_requested(); std::this_thread::yield()) XSExpressNotify("{T}", 1, nullptr, &calls);
  });
  for (int round = 0; round < 200; ++round) {
    subscribed = true;
    XSSubNotify("{T}", 1, call);
    for (const int before = calls; round % 10 == 0 && calls == before;) std::this_thread::yield();
    XSUnsubNotify("{T}", 1, call);
    subscribed = false;
  }
  sender = {};
  EXPECT_TRUE(brunelib::DrainNotifications(10s));
}

TEST_F(BusTest, UnloadingWaitsForCommandsAndGoesBackwards) {
  ASSERT_EQ(Load("BusPluginA"), "{A}");
  ASSERT_EQ(Load("BusPluginB"), "{B}");
  XSSubNotify("{A}", 2, &Record);
  XSSubNotify("{B}", 2, &Record);
  std::thread caller([] { EXPECT_EQ(Execute("{A}", 2), 0); });
  while (Execute("{A}", 3) == 0) std::this_thread::yield();
  EXPECT_FALSE(brunelib::UnloadComponent("{A}", 20ms));
  EXPECT_EQ(Execute("{A}", 1), 1);  // still there
  brunelib::Shutdown(20ms);         // the one below is passed over
  EXPECT_EQ(Execute("{B}", 1), XS_E_UNKNOWN);
  EXPECT_EQ(Execute("{A}", 4), 0);
  caller.join();
  Seen();
  ASSERT_EQ(Load("BusPluginB"), "{B}");
  brunelib::Shutdown(10s);
  EXPECT_EQ(Seen(), (Texts{"{B}2", "{A}2"}));
}

}  // namespace
