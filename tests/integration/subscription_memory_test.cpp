// Memory that runs out along the road of a subscription: asked for, told of, ended by the
// registrar. Nothing crashes, no exception gets out, and the next registration is followed again.
#include "Brunelib/Brunelib.h"
#include "Brunelib/identities.h"
#include "failing_new.h"
#include "LiveComponent.h"
#include "Register.h"
#include "RegisterProcess.h"
#include "registrar_service.h"
#include "sivra/sivra.h"

namespace {

using namespace registrar_test;
using fakes::LiveComponent;

// As far as it gets when this allocation fails; 0: none does, and it must get to the end.
void Road(registrar::Registrar& registrar, long failing) {
  const bool must_work = failing == 0;
  const std::string aor = "sip:alice" + sip_test::Replaced(registrar.uri(), "sip:", "@");
  const auto reject = [&] {
    std::string none;
    return registrar.Apply({registrar::ContactEvent::kRejected, aor, "", {}}, none);
  };
  if (must_work) {  // a road before that is late would end the dialog of this one
    for (int i = 0; i < 2; ++i) {
      LiveComponent::PumpFor(50ms);
      LiveComponent::PumpUntil([] { return sipcarrier::GetCounters().transactions == 0; }, 2000ms);
      reject();
    }
    LiveComponent::PumpFor(50ms);
  }
  const int id = LiveComponent::Register("<reg><aor>" + aor + "</aor><registrar>" + registrar.uri() +
                                         "</registrar><expires>600</expires><auto-refresh>true</auto-refresh>"
                                         "<subscribe>true</subscribe></reg>");
  const auto hears = [&](int states) {
    return id > 0 &&
           LiveComponent::PumpUntil([&] { return LiveComponent::told.at(static_cast<std::size_t>(id))[2] >= states; },
                                    [&] { return failing != 0 && failing_new::Counted() >= failing; }, 25ms);
  };
  const bool active = hears(1);
  const bool followed = reject() && active && hears(2);
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
    Road(service.registrar, 0);
    allocations = failing_new::Fail(0, 0);
    for (long n = 1; n <= allocations && !HasFailure(); n += 9) {
      failing_new::Fail(n, n);
      Road(service.registrar, n);
      failing_new::Fail(0, 0);
      // What memory has cost an end is made up for by the next subscription of the address.
      if (n % 10 == 1) Road(service.registrar, 0);
    }
    TOLVANE_XSCUninitialize();
    EXPECT_TRUE(brunelib::UnloadComponent(bus::subscription::kIdentity, 5s));
    EXPECT_TRUE(sip_test::Eventually([] { return sivra::SubscriptionCount() == 0; }, 5s));
  }
  EXPECT_EQ(CRegister::s_nAlive, 0);
  EXPECT_GT(allocations, 200);
  std::printf("allocations on the road: %ld\n", allocations);
}

}  // namespace
