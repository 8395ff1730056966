// The component and the subscription service on the real stack and the real bus, against the
// loopback registrar: what its operator does to a binding reaches the client, and nothing is left.
#include <algorithm>
#include <regex>

#include "Brunelib/Brunelib.h"
#include "Brunelib/identities.h"
#include "LiveComponent.h"
#include "Register.h"
#include "RegisterProcess.h"
#include "RegisterSipProcess.h"
#include "registrar_service.h"
#include "sivra/sivra.h"

namespace {

using namespace registrar_test;
using fakes::LiveComponent;
using registrar::ContactEvent;
using registrar::ContactIds;
using registrar::Documents;
using registrar::Gone;
using registrar::Versions;
using sip_test::Eventually;
using sip_test::Replaced;

// What the client and the service's readers have heard: "1002 7 Active registered".
std::mutex g_mutex;
std::vector<std::string> g_heard;
template <int kId>
int Hear(const char*, int, CXML* document, void*) {
  std::string text = std::to_string(kId) + std::regex_replace(document->GetDoc(), std::regex("(<[^>]*>)+"), " ");
  text.pop_back();
  const std::lock_guard lock(g_mutex);
  g_heard.push_back(text);
  return 0;
}
std::vector<std::string> Heard() {
  const std::lock_guard lock(g_mutex);
  return g_heard;
}
bool Await(const std::string& text) {
  return LiveComponent::PumpUntil([&] { return std::ranges::count(Heard(), text) == 1; }, 5s);
}

// Stack, bus, component and service.
struct Live {
  explicit Live(const char* plugin = SERVICE, std::chrono::milliseconds t1 = 50ms) : component(t1) {
    g_heard.clear();
    std::string error;
    EXPECT_EQ(brunelib::LoadComponent(plugin, "SUBSCRIPTION_XSC", error), bus::subscription::kIdentity) << error;
    XSSubNotify(bus::registration::kIdentity, 0x1001, Hear<1001>);
    XSSubNotify(bus::registration::kIdentity, 0x1002, Hear<1002>);
    XSSubNotify(bus::subscription::kIdentity, 0x1003, Hear<1003>);
  }
  ~Live() {
    TOLVANE_XSCUninitialize();  // with the service still there, which it asks for ends
    EXPECT_TRUE(Eventually([] { return sivra::SubscriptionCount() == 0; }, 5s));
    EXPECT_TRUE(brunelib::UnloadComponent(bus::subscription::kIdentity, 5s));
    EXPECT_EQ(CRegister::s_nAlive, 0);
  }
  int Register(const std::string& aor, const std::string& registrar) {
    CXML in, out;
    in.SetDoc("<reg><aor>" + aor + "</aor><registrar>" + registrar +
              "</registrar><expires>600</expires><auto-refresh>true</auto-refresh><subscribe>true</subscribe></reg>");
    EXPECT_EQ(TOLVANE_XSCCmdCallBack(3, &in, &out), 0);
    const std::string text = out.GetDoc();
    return std::stoi(text.substr(text.find("<id>") + 4));
  }
  LiveComponent component;
};

int Command(int id, const std::string& document, std::string* result_document = nullptr) {
  CXML in, out;
  in.SetDoc(document);
  const int result = XSExecuteCommand(bus::subscription::kIdentity, id, &in, &out);
  if (result_document != nullptr) *result_document = out.GetDoc();
  return result;
}

TEST(SubscriptionTest, TheServicesCommands) {
  Service service;
  Live live;
  const std::string aor = "sip:alice@127.0.0.1:" + std::to_string(service.registrar.port());
  const auto subscribe = [](const std::string& to, const std::string& event, const std::string& expires) {
    return "<sub><from>" + to + "</from><to>" + to + "</to><event>" + event + "</event><expires>" + expires +
           "</expires><ifrefresh>1</ifrefresh><module>REGISTER</module></sub>";
  };
  const std::string good = subscribe(aor, "reg", "3761");
  for (const std::string& bad :
       {std::string(), std::string("<sub/>"), std::string("<reg><to>" + aor + "</to></reg>"),
        subscribe(aor, "presence", "3761"), subscribe(aor, "reg", "0"), subscribe(aor, "reg", "-1"),
        subscribe("", "reg", "3761"), subscribe("tel:1", "reg", "3761"), subscribe(aor + "\r\nX: y", "reg", "3761")}) {
    std::string document;
    EXPECT_EQ(Command(2, bad, &document), -1) << bad;
    EXPECT_EQ(document, "");
    EXPECT_EQ(Command(3, bad), -1);
  }
  EXPECT_EQ(Command(9, good), -1);
  EXPECT_EQ(XSExecuteCommand(bus::subscription::kIdentity, 2, nullptr, nullptr), -1);
  EXPECT_EQ(sivra::SubscriptionCount(), 0U);

  std::string document;
  EXPECT_EQ(Command(2, good, &document), 0);
  EXPECT_EQ(document, "<sub><id>1</id></sub>");
  // The same address of record in another spelling: the former dialog ends, the other one stays.
  EXPECT_EQ(Command(2, subscribe("Alice &lt;" + Replaced(aor, "alice", "%61lice") + "&gt;", "reg", "3761"), &document),
            0);
  EXPECT_TRUE(Await("1003 1 SUB_STOP"));
  EXPECT_TRUE(Eventually([&] { return service.registrar.Subscriptions().size() == 1; }));
  EXPECT_EQ(Command(3, "<sub><id>1</id></sub>"), -1);
  EXPECT_EQ(Command(3, "<sub><id>2</id></sub>"), 0);
  EXPECT_TRUE(Await("1003 2 SUB_STOP"));
  EXPECT_TRUE(Eventually([&] { return service.registrar.Subscriptions().empty(); }));
  // An end that the notifier means.
  registrar::Script refusal;
  refusal.method = "SUBSCRIBE";
  refusal.status = 403;
  service.registrar.Add(refusal);
  EXPECT_EQ(Command(2, good), 0);
  EXPECT_TRUE(Await("1003 3 SUB_STOP"));
}

// A client that registers and subscribes, beside another device of the same address of record, at a registrar whose
// operator changes the client's binding. What the client must be told is noted on the way.
class OperatorTest {
 public:
  explicit OperatorTest(const registrar::RegEventOptions& manner) : manner_(manner), service_(WithRegEvent(manner)) {}

  void Register() {
    if (other_cseq_ % 4 == 0) OtherDevice(600);
    id_ = live_.Register(aor_, registrar_.uri());
    ExpectTold("Active registered");
  }
  // The registrar's order to do this to the client's binding.
  void Order(ContactEvent event) {
    std::string error;
    EXPECT_TRUE(registrar_.Apply({event, aor_, OwnContact(), 300}, error)) << error;
  }
  void ShortenAndAwaitTheRefresh() {
    const auto requests = registrar_.GetCounters().requests;
    Order(ContactEvent::kShortened);
    EXPECT_TRUE(LiveComponent::PumpUntil([&] { return registrar_.GetCounters().requests > requests; }, 5s));
  }
  // The other device leaves or comes, which is no news for the client.
  void OtherDeviceChanges() { OtherDevice(other_cseq_ % 4 == 1 ? 0 : 600); }
  void OrderTheEnd(ContactEvent end) {
    Order(end);
    ExpectTold(std::string("Terminate ") + (manner_.gone == Gone::kMissing ? "expired" : Word(end)));
  }
  // Where documents are full, the subscription ends first: that its last document calls the binding active is no news.
  void Deregister() {
    if (manner_.documents == Documents::kFull) EndTheSubscription();
    EXPECT_EQ(LiveComponent::Deregister(id_), 0);
    EXPECT_TRUE(LiveComponent::PumpUntil([] { return LiveComponent::heard[1] == 1; }, 5s));
  }
  void ExpectNothingLeft() {
    const auto none = [&] { return registrar_.Subscriptions().empty() && sivra::SubscriptionCount() == 0; };
    EXPECT_TRUE(LiveComponent::PumpUntil(none, 5s));
    EXPECT_EQ(OwnContact(), "none");
  }
  void ExpectTold(const std::string& what) {
    expected_.push_back("1002 " + std::to_string(id_) + " " + what);
    EXPECT_TRUE(Await(expected_.back())) << testing::PrintToString(Heard());
  }
  void ExpectNothingElseTold() const {
    brunelib::DrainNotifications(5s);
    std::vector<std::string> heard = Heard();
    std::erase_if(heard, [](const std::string& text) { return !text.starts_with("1002"); });
    // Whether the registrar's view or its response comes first at a deregistration is nobody's promise.
    if (!heard.empty() && Has(heard.back(), "Terminate")) heard.pop_back();
    EXPECT_EQ(heard, expected_);
  }

 private:
  static Options WithRegEvent(const registrar::RegEventOptions& manner) {
    Options options;
    options.reg_event = manner;
    return options;
  }
  void OtherDevice(int expires) {
    const std::string rest = kPhone + "Expires: " + std::to_string(expires) + "\r\n";
    service_.Ask(Replaced(service_.Request(++other_cseq_, rest), kAor, aor_), 200);
  }
  // The contact of the client's binding.
  [[nodiscard]] std::string OwnContact() const {
    for (const registrar::Binding& binding : registrar_.Bindings(aor_)) {
      if (!Has(kPhone, binding.contact)) return binding.contact;
    }
    return "none";
  }
  static void EndTheSubscription() {
    int last = 0;  // of those that have ended; the client's is the next one
    for (const std::string& text : Heard()) last = text.starts_with("1003") ? std::stoi(text.substr(5)) : last;
    const std::string id = std::to_string(last + 1);
    EXPECT_EQ(Command(3, "<sub><id>" + id + "</id></sub>"), 0);
    EXPECT_TRUE(Await("1003 " + id + " SUB_STOP"));
  }

  const registrar::RegEventOptions manner_;
  Service service_;
  registrar::Registrar& registrar_ = service_.registrar;
  const std::string aor_ = "sip:alice@127.0.0.1:" + std::to_string(registrar_.port());
  Live live_;
  std::vector<std::string> expected_;
  int other_cseq_ = 0;
  int id_ = 0;
};

TEST(SubscriptionTest, TheRegistrarsOrdersReachTheClient) {
  const registrar::RegEventOptions manners[] = {
      {.t1 = 100ms},
      {.documents = Documents::kPartial},
      {.versions = Versions::kOne, .contact_ids = ContactIds::kFresh},
      {.versions = Versions::kAor, .documents = Documents::kPartial},
      {.versions = Versions::kZero, .gone = Gone::kMissing},
      {.versions = Versions::kGaps, .contact_ids = ContactIds::kSwapped},
      {.versions = Versions::kTwice, .documents = Documents::kPartial},
  };
  constexpr ContactEvent kEnds[] = {ContactEvent::kExpired, ContactEvent::kDeactivated, ContactEvent::kProbation,
                                    ContactEvent::kUnregistered, ContactEvent::kRejected};
  for (const registrar::RegEventOptions& manner : manners) {
    OperatorTest test(manner);
    const auto live = [&] {
      test.Register();
      test.Order(ContactEvent::kRefreshed);
      test.OtherDeviceChanges();
      test.ShortenAndAwaitTheRefresh();
      test.Order(ContactEvent::kCreated);
      test.ExpectTold("Active created");
    };
    for (const ContactEvent end : kEnds) {
      SCOPED_TRACE(std::to_string(&manner - manners) + " " + Word(end));
      live();
      test.OrderTheEnd(end);
      test.ExpectNothingLeft();
      if (testing::Test::HasFailure()) return;
    }
    live();
    test.Deregister();
    test.ExpectNothingLeft();
    test.ExpectNothingElseTold();
  }
}

// Every fourth command to the service is refused, the other results are late; half of the registrations end meanwhile.
TEST(SubscriptionTest, TwoHundredAtOnceWithALateService) {
  Service service;
  registrar::Registrar& registrar = service.registrar;
  std::mutex mutex;
  std::map<int, int> asked;  // first SUBSCRIBEs of each user
  registrar.OnRequest([&](const nsip_message& request) {
    char* to = nullptr;
    nsip_from_to_str(request.to.get(), &to);
    const std::string text = to;
    nsip_free(to);
    const std::lock_guard lock(mutex);
    if (request.sip_method == "SUBSCRIBE" && !Has(text, ";tag="))
      ++asked[std::stoi(text.substr(text.find("user") + 4))];
  });
  for (const int delay : {1, 40, 190}) {  // of the registrar's responses, in turn
    registrar::Script late;
    late.delay = std::chrono::milliseconds(delay);
    late.repeat = 25;
    registrar.Add(late);
    late.method = "SUBSCRIBE";
    registrar.Add(late);
  }
  constexpr int kCount = 200;
  {
    Live live(SLOW_SERVICE, 150ms);
    std::vector<int> ids;
    for (int i = 0; i < kCount; ++i) {
      ids.push_back(
          live.Register("sip:user" + std::to_string(i) + Replaced(registrar.uri(), "sip:", "@"), registrar.uri()));
    }
    // As soon as they are registered, while the exchanges go through one by one.
    std::thread enemy([&] {
      EXPECT_TRUE(Eventually([] { return LiveComponent::succeeded == kCount; }, 30s));
      for (int i = 0; i < kCount; i += 2) LiveComponent::Deregister(ids[static_cast<std::size_t>(i)], i % 4 == 0);
    });
    // All of them, or those that are to stay.
    const auto count = [&](bool all) {
      const std::lock_guard lock(mutex);
      return static_cast<std::size_t>(
          std::ranges::count_if(asked, [&](const auto& user) { return all || user.first % 2 == 1; }));
    };
    EXPECT_TRUE(LiveComponent::PumpUntil([&] { return count(true) == kCount * 3 / 4; }, 40s)) << count(true);
    enemy.join();
    EXPECT_TRUE(LiveComponent::PumpUntil([&] { return sivra::SubscriptionCount() == count(false); }, 30s))
        << sivra::SubscriptionCount() << " of " << count(false);
    EXPECT_GT(count(false), 0U);
    TOLVANE_XSCUninitialize();
    EXPECT_TRUE(Eventually([&] { return registrar.Subscriptions().empty(); }, 20s)) << registrar.Subscriptions().size();
  }
  EXPECT_TRUE(Eventually([&] { return registrar.Bindings().size() == kCount / 4; }, 20s));  // not sent
  for (const auto& [user, times] : asked) EXPECT_EQ(times, 1) << user;
}

}  // namespace
