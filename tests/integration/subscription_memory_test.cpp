// Memory that runs out along the road of a subscription: asked for, told of, ended by the
// registrar. Nothing crashes, no exception gets out, and the next registration is followed again.
#include "Brunelib/Brunelib.h"
#include "failing_new.h"
#include "LiveComponent.h"
#include "Register.h"
#include "RegisterProcess.h"
#include "registrar_service.h"
#include "sivra/sivra.h"

namespace {

using namespace registrar_test;
using fakes::LiveComponent;

void Road(registrar::Registrar& registrar, bool must_work) {
  const auto limit = must_work ? 5000ms : 30ms;
  if (must_work) LiveComponent::PumpFor(100ms);  // what is late of the roads before is not of this one
  const std::string aor = "sip:alice" + sip_test::Replaced(registrar.uri(), "sip:", "@");
  const int told = LiveComponent::heard[2];
  const auto hears = [&](int more) {
    return LiveComponent::PumpUntil([&] { return LiveComponent::heard[2] >= told + more; }, limit);
  };
  LiveComponent::Command(3, "<reg><aor>" + aor + "</aor><registrar>" + registrar.uri() +
                                "</registrar><expires>600</expires><auto-refresh>true</auto-refresh>"
                                "<subscribe>true</subscribe></reg>");
  bool followed = hears(1);
  std::string none;
  followed = registrar.Apply({registrar::ContactEvent::kRejected, aor, "", {}}, none) && followed && hears(2);
  EXPECT_TRUE(followed || !must_work);
}

TEST(SubscriptionMemory, RunsOutAlongTheRoad) {
  failing_new::TakePartByDefault(true);
  failing_new::TakePart(false);  // the test's own memory never runs out
  LiveComponent::on_call = failing_new::TakePart;
  Service service;
  service.registrar.OnRequest([](const nsip_message&) { failing_new::TakePart(false); });
  long allocations = 0;
  {
    LiveComponent component(10ms);
    std::string error;
    ASSERT_NE(brunelib::LoadComponent(SERVICE, "SUBSCRIPTION_XSC", error), "") << error;
    failing_new::Fail(0, 0);
    Road(service.registrar, true);
    allocations = failing_new::Fail(0, 0);
    for (long n = 1; n <= allocations && !HasFailure(); n += 9) {
      failing_new::Fail(n, n);
      Road(service.registrar, false);
      failing_new::Fail(0, 0);
      // What memory has cost an end is made up for by the next subscription of the address.
      if (n % 10 == 1) Road(service.registrar, true);
    }
    TOLVANE_XSCUninitialize();
    EXPECT_TRUE(brunelib::UnloadComponent("{C560987C-AD84-40B7-8D17-84583CC090ED}", 5s));
    EXPECT_TRUE(sip_test::Eventually([] { return sivra::SubscriptionCount() == 0; }, 5s));
  }
  EXPECT_EQ(CRegister::s_nAlive, 0);
  EXPECT_GT(allocations, 200);
  std::printf("allocations on the road: %ld\n", allocations);
}

}  // namespace
