// The registrar as a notifier, against a subscriber that writes its datagrams by hand. What the tests of the subscriber
// and of the whole exercise is not told here once more.
#include <cstring>
#include <utility>

#include "Domletlib/Domletlib.h"
#include "registrar/orders.h"
#include "registrar_service.h"

namespace {

using namespace registrar_test;
using namespace registrar;
using sip_test::Eventually;
using sip_test::HeaderLine;
using sip_test::milliseconds;
using sip_test::ResponseTo;

Options Quick(milliseconds t1 = 5s) {
  Options options;
  options.reg_event.t1 = t1;
  return options;
}

// Alice's registrar and her one subscription.
struct Watch : Service {
  explicit Watch(const Options& options = Quick()) : Service(options) {}

  std::string Subscription(int number, const std::string& rest = "", const char* event = "Event: reg\r\n") {
    const std::string contact = Has(rest, "Contact:") ? "" : Contact("phone");
    return Request(number, contact + rest + event, ";rport", "SUBSCRIBE", kAor, to_tag);
  }
  std::string Contact(const std::string& user) const {
    return "Contact: <sip:" + user + "@127.0.0.1:" + std::to_string(client.port()) + ">\r\n";
  }
  // In a dialog from then on.
  void Subscribe(int number, const std::string& rest = "", const Parts& parts = {}) {
    const std::string response = Ask(Subscription(number, rest), 200, parts);
    if (to_tag.empty()) to_tag = response.substr(response.find(";tag=", response.find("\r\nTo:")), 21);
  }
  // Out of the dialog, and for a new one.
  void Leave() {
    to_tag.clear();
    cseq = 0;
  }
  // The next NOTIFY, which must be the dialog's next one; it gets this response unless the status is empty.
  std::string Expect(const Parts& parts, const std::string& status = "200 OK", const std::string& user = "phone") {
    const std::string notify = client.Receive();
    const std::string dialog = HeaderLine(notify, "Call-ID") + HeaderLine(notify, "From") + HeaderLine(notify, "To");
    EXPECT_EQ(dialog, "one<" + std::string(kAor) + ">" + to_tag + "<" + kAor + ">;tag=f");
    EXPECT_EQ(HeaderLine(notify, "CSeq") + HeaderLine(notify, "Event"), std::to_string(++cseq) + " NOTIFYreg");
    EXPECT_TRUE(notify.starts_with("NOTIFY sip:" + user + "@127.0.0.1:")) << notify;
    ExpectParts(notify, parts);
    if (!status.empty()) client.Send(ResponseTo(notify, status));
    return notify;
  }
  void Begin() {
    Subscribe(1, "Expires: 600\r\n");
    Expect({"version=", "state=\"full\""});
  }
  // An order as a line, and how its result begins.
  void Order(std::string line, std::string result) {
    for (std::string* text : {&line, &result}) {
      for (const auto& [word, value] : {std::pair("AOR", kAor), {"C1", "sip:a@127.0.0.1:1"}}) {
        for (std::size_t at = 0; (at = text->find(word, at)) != std::string::npos;)
          text->replace(at, strlen(word), value);
      }
    }
    const std::string told = RunOrder(registrar, line);
    EXPECT_TRUE(told.starts_with(result) && told.empty() == result.empty()) << line << "\n" << told;
  }
  bool IsAlone() {
    return Eventually([this] { return registrar.Subscriptions().empty(); }, 3s);
  }

  std::string to_tag;
  int cseq = 0;
};

// The values of an attribute of these elements, in their order.
std::string Values(const std::string& notify, const std::string& start) {
  std::string values;
  for (auto at = notify.find(start); at != std::string::npos; at = notify.find(start, at)) {
    at += start.size();
    values += notify.substr(at, notify.find('"', at) - at) + " ";
  }
  return values;
}

TEST(RegEventTest, ADialogFromSubscribeToTheLastNotify) {
  Options options = Quick();
  options.reg_event.min_expires = 2;
  options.reg_event.max_expires = 100;
  Watch watch(options);
  watch.Ask(watch.Subscription(1, "", "Event: regular\r\n"), 489, {"Allow-Events: reg\r\n"});
  watch.Ask(watch.Subscription(2, "Accept: application/pidf+xml, text/*;q=1\r\n"), 406, {"application/reginfo+xml"});
  watch.Ask(watch.Subscription(3, "Expires: 1\r\n"), 423, {"Min-Expires: 2\r\n"});
  watch.Ask(watch.Subscription(4, "Contact: <sip:a@192.0.2.1>\r\n"), 400);
  EXPECT_TRUE(watch.registrar.Subscriptions().empty());
  const std::string route = "<sip:127.0.0.1:" + std::to_string(watch.client.port()) + ";lr>";
  watch.Subscribe(20, "Contact: <sip:phone@127.0.0.1:9>\r\nRecord-Route: " + route + "\r\nAccept: text/plain, */*\r\n",
                  {"Expires: 100\r\n", "Record-Route: " + route, "Contact: <" + watch.registrar.uri() + ">"});
  watch.Expect({"Route: " + route, "Subscription-State: active;expires=100\r\n", "state=\"init\""});
  watch.Ask(watch.Subscription(20), 500);
  watch.Subscribe(22, watch.Contact("desk") + "Expires: 50\r\n", {"Expires: 50\r\n"});
  watch.Expect({"version=\"1\" state=\"full\"", "expires=50\r\n"}, "200 OK", "desk");
  EXPECT_EQ(watch.registrar.Subscriptions(kAor).front().refreshes, 1U);
  watch.Subscribe(23, "Expires: 0\r\n", {"Expires: 0\r\n"});
  const std::string last = watch.Expect({"Subscription-State: terminated;reason=timeout\r\n", "version=\"2\""}, "");
  watch.Ask(watch.Subscription(24), 481);  // over, though its last NOTIFY has no response yet
  watch.client.Send(ResponseTo(last, "200 OK"));
  EXPECT_TRUE(watch.IsAlone());
  // A fetch; and a subscription that nobody refreshes.
  for (const char* seconds : {"0", "2"}) {
    watch.Leave();
    watch.Subscribe(30, "Expires: " + std::string(seconds) + "\r\n");
    if (*seconds != '0') {
      watch.Expect({"active;expires=2"});
      watch.registrar.Advance(2s);
    }
    watch.Expect({"terminated;reason=timeout\r\n", "<reginfo"});
    EXPECT_TRUE(watch.IsAlone());
  }
}

TEST(RegEventTest, DocumentsFollowTheRequests) {
  const std::string odd =
      "Contact: \"<&> \\\"\" <sip:b@127.0.0.1:7002;x=%22>;q=0.5;+sip.instance=\"<urn:a&b>\"\r\nExpires: 1\r\n";
  for (const auto& [documents, leaving] : {std::pair{Documents::kFull, Gone::kListed},
                                           {Documents::kPartial, Gone::kMissing},
                                           {Documents::kFull, Gone::kMissing}}) {
    Options options = Quick();
    options.reg_event.documents = documents;
    options.reg_event.gone = leaving;
    const bool full = documents == Documents::kFull;
    const std::string listed = leaving == Gone::kListed || !full ? "" : "!";
    const std::string others = full ? "" : "!";
    Watch watch(options);
    watch.Begin();
    watch.Register(1, kPhone, 200);
    watch.Expect({full ? "\"full\"" : "\"partial\"", "state=\"active\">\n    <contact", "event=\"registered\"",
                  "callid=\"one\" cseq=\"1\"", "<uri>sip:alice@127.0.0.1:7001</uri>"});
    watch.Register(2, kPhone, 200);
    watch.Expect({"event=\"refreshed\"", "!registered\""});
    watch.Register(3, odd, 200);
    const std::string notify =
        watch.Expect({"q=\"0.5\"", others + "refreshed", "event=\"registered\"", "&lt;urn:a&amp;b&gt;",
                      "<display-name>&lt;&amp;&gt; &quot;</display-name>"});
    CXML document;
    ASSERT_NE(document.SetDoc(notify.substr(notify.find("<?xml"))), 0) << document.LastError();
    watch.registrar.Advance(1s);
    watch.Expect(
        {listed + "state=\"terminated\" event=\"expired\"", others + "refreshed", "state=\"active\">\n    <contact"});
    watch.Register(4, "Contact: *\r\nExpires: 0\r\n", 200);
    watch.Expect({listed + "event=\"unregistered\"", "!refreshed", "state=\"terminated\">"});
  }
}

TEST(RegEventTest, DocumentsAreNumberedAsTheMannerIs) {
  // The versions of four documents of a dialog and of the next dialog's first; the ids of two contacts in two
  // documents.
  // clang-format off
  const struct { Versions versions; ContactIds ids; const char *numbers, *contacts; } cases[] = {
      {Versions::kProper, ContactIds::kStable, "0 1 2 3 | 0 ", "c1 c2 c1 c2 "},
      {Versions::kOne, ContactIds::kFresh, "1 2 3 4 | 1 ", "f1 f2 f3 f4 "},
      {Versions::kAor, ContactIds::kSwapped, "0 1 2 3 | 4 ", "c1 c2 c2 c1 "},
      {Versions::kZero, ContactIds::kStable, "0 0 0 0 | 0 ", "c1 c2 c1 c2 "},
      {Versions::kGaps, ContactIds::kStable, "2 5 8 11 | 2 ", "c1 c2 c1 c2 "},
      {Versions::kTwice, ContactIds::kStable, "0 0 1 1 | 0 ", "c1 c2 c1 c2 "}};
  // clang-format on
  for (const auto& c : cases) {
    Options options = Quick();
    options.reg_event.versions = c.versions;
    options.reg_event.contact_ids = c.ids;
    Watch watch(options);
    watch.Register(1, kPhone + "Contact: <sip:desk@127.0.0.1:7002>\r\n", 200);
    std::string numbers;
    std::string contacts;
    for (int number = 2; number <= 6; ++number) {
      if (number == 6) watch.Leave();
      watch.Subscribe(number);
      const std::string notify = watch.Expect({});
      numbers += (number == 6 ? "| " : "") + Values(notify, "reginfo\" version=\"");
      if (number < 4) contacts += Values(notify, "<contact id=\"");
    }
    EXPECT_EQ(numbers + contacts, std::string(c.numbers) + c.contacts);
  }
}

TEST(RegEventTest, OneNotifyAtATimeUntilItsResponseOrTimerF) {
  Watch watch(Quick(10ms));
  watch.Subscribe(1);
  // The same datagram again and again, ever more slowly; 64 times T1 are 640 ms.
  const auto began = sip_test::Clock::now();
  const std::string first = watch.Expect({}, "");
  int copies = 1;
  for (std::string copy; !(copy = watch.client.Receive(300ms)).empty(); ++copies) EXPECT_EQ(copy, first);
  EXPECT_GE(sip_test::Clock::now() - began, 560ms);
  EXPECT_TRUE(copies >= 5 && copies <= 12) << copies;
  EXPECT_TRUE(watch.IsAlone());
  EXPECT_EQ(watch.registrar.GetRegEventCounters().responses.at(408), 1U);

  Options options = Quick();
  options.reg_event.documents = Documents::kPartial;
  Watch calm(options);
  calm.Subscribe(1);
  const std::string held = calm.Expect({"init"}, "");
  calm.Register(1, kPhone, 200);
  calm.Order("refresh AOR", "done");
  EXPECT_EQ(calm.client.Receive(100ms), "");
  EXPECT_EQ(calm.registrar.Subscriptions().front().waiting, 3U);
  for (const char* status : {"100 Trying", "200 OK", "200 OK"}) calm.client.Send(ResponseTo(held, status));
  calm.Expect({"version=\"1\" state=\"partial\"", "event=\"registered\""}, "503 Service Unavailable");
  const std::string third = calm.Expect({"version=\"2\"", "event=\"refreshed\""}, "");
  // What does not fit into the queue any more is said by one full document.
  for (int i = 0; i < 65; ++i) calm.Order("refresh AOR " + std::to_string(100 + i), "done");
  EXPECT_EQ(calm.registrar.Subscriptions().front().waiting, 2U);
  EXPECT_EQ(calm.registrar.Subscriptions().front().last_status, 503);
  calm.client.Send(ResponseTo(third, "200 OK"));
  calm.Expect({"state=\"full\"", "expires=\"164\""}, "481 Gone");
  EXPECT_TRUE(calm.IsAlone());
}

TEST(RegEventTest, AResponseThatIsLateAndAnApproval) {
  Options options = Quick();
  options.reg_event.pending = true;
  Watch watch(options);
  watch.Order("delay-subscribe 200", "done");
  watch.Register(1, kPhone, 200);  // takes no script of another method
  watch.client.Send(watch.Subscription(2));
  const std::string early = watch.client.Receive();
  ExpectParts(early, {"NOTIFY ", "Subscription-State: pending;expires=3761\r\n", "Content-Length: 0", "!Content-Type"});
  watch.client.Send(ResponseTo(early, "200 OK"));
  watch.to_tag = HeaderLine(early, "From").substr(std::string(kAor).size() + 2);
  ExpectParts(watch.client.Receive(), {"SIP/2.0 200", watch.to_tag});
  watch.cseq = 1;
  watch.Order("shorten AOR 9", "done");
  EXPECT_EQ(watch.client.Receive(100ms), "");
  watch.Order("approve AOR", "done: 1 subscription");
  watch.Expect({"Subscription-State: active;", "version=\"0\" state=\"full\"", "shortened"});
}

TEST(RegEventTest, Orders) {
  Watch watch;
  watch.Begin();
  // What the subscriber is told, when there is anything to tell. AOR and C1 stand for an address of record and a
  // contact.
  // clang-format off
  const struct { const char *line, *result; Parts told; } orders[] = {
      {"", "", {}}, {" # deactivate AOR", "", {}}, {"reboot", "error: unknown order \"reboot\"", {}},
      {"expire", "error: an address of record is missing", {}}, {"expire alice", "error: an address of record is", {}},
      {"expire AOR", "error: no such binding", {}}, {"create AOR nonsense", "error: \"nonsense\" is no URI", {}},
      {"create AOR C1 90\r", "done: created AOR", {"state=\"active\" event=\"created\"", "expires=\"90\""}},
      {"create AOR sip:b@127.0.0.1:1", "done: created", {"sip:b@", "expires=\"7200\""}},
      {"refresh AOR 900 C1", "done", {"state=\"active\" event=\"refreshed\"", "expires=\"900\"", "created"}},
      {"shorten AOR 0", "error: how many seconds", {}}, {"shorten AOR 60 C1 more", "error: \"more\" is too much", {}},
      {"shorten AOR 30 C1", "done: shortened", {"state=\"active\" event=\"shortened\"", "expires=\"30\"", "created"}},
      {"list", "binding AOR C1, 30 s left, shortened\nbinding AOR sip:b@", {}},
      {"reject AOR C1", "done", {"state=\"terminated\" event=\"rejected\"", "created", "state=\"active\">"}},
      {"expire AOR", "done", {"state=\"terminated\" event=\"expired\"", "!retry-after", "! expires=", "!C1"}},
      {"list", "subscription ", {}}, {"create AOR C1", "done", {"created"}},
      {"deactivate AOR", "done", {"state=\"terminated\" event=\"deactivated\""}}, {"create AOR C1", "done", {"created"}},
      {"probation AOR 17", "done", {"state=\"terminated\" event=\"probation\"", "retry-after=\"17\""}},
      {"create AOR C1", "done", {"created"}},
      {"unregister AOR", "done", {"state=\"terminated\" event=\"unregistered\""}},
      {"notify AOR cseq=-1", "error: \"-1\" is not a number from 0 to", {}},
      {"notify AOR empty state=pending", "done: 1 subscription",
       {"Subscription-State: pending\r\n", "!Content-Type", "Content-Length: 0\r\n"}},
      {"notify-body AOR text/odd", "error: TYPE or TEXT is missing", {}},
      {"notify-body AOR text/odd  two words ", "done", {"Content-Type: text/odd\r\n", "\r\n\r\n two words "}},
      {"end-subscription AOR a;b", "error: the reason", {}}, {"refuse-subscribe 200", "error: \"200\" is not a num", {}}};
  // clang-format on
  for (const auto& order : orders) {
    watch.Order(order.line, order.result);
    if (!order.told.empty()) watch.Expect(order.told);
  }
  watch.Order("notify AOR twice", "done");
  const std::string twice = watch.Expect({}, "");
  EXPECT_EQ(watch.client.Receive(), twice);
  watch.client.Send(ResponseTo(twice, "200 OK"));
  const int cseq = std::exchange(watch.cseq, 1);
  watch.Order("notify AOR cseq=2", "done");
  watch.Expect({}, "500 Out Of Order");
  watch.cseq = cseq;
  watch.Order("notify AOR foreign", "done");
  const std::string foreign = watch.client.Receive();
  ExpectParts(foreign, {"NOTIFY sip:phone@", "!Call-ID: one\r\n", "!" + watch.to_tag, "!;tag=f\r\n"});
  watch.client.Send(ResponseTo(foreign, "481 Not Mine"));
  watch.Order("end-subscription AOR probation 5", "done: 1 subscription");
  watch.Expect({"Subscription-State: terminated;reason=probation;retry-after=5\r\n"});
  EXPECT_TRUE(watch.IsAlone());
  watch.Order("end-subscription AOR", "error: no subscription");
}

}  // namespace
