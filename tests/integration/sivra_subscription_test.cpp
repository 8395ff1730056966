// Subscriptions through the real stack, against a notifier on loopback that does as each test tells it.
#include <ctime>
#include <deque>
#include <set>

#include "failing_new.h"
#include "sipcarrier_peer.h"
#include "sivra/sivra.h"

namespace sip_test {
namespace {

std::string StartLine(const std::string& text) { return text.substr(0, text.find("\r\n")); }

// Notes "new BODY" or "BODY" of each NOTIFY and "end STATUS REASON", then runs `action`.
class Listener final : public sivra::SubscriptionListener, public Notes {
 public:
  using Action = std::function<void(long id)>;
  explicit Listener(Action action = nullptr, bool failing = false) : action_(std::move(action)), failing_(failing) {}
  void OnNotify(long id, const std::string& body, bool fresh) override { Hear(id, (fresh ? "new " : "") + body); }
  void OnEnd(long id, int status, const std::string& reason) override {
    Hear(id, "end " + std::to_string(status) + " " + reason);
  }

 private:
  void Hear(long id, const std::string& text) {
    failing_new::TakePart(false);
    Note(text);
    if (action_) action_(id);
    failing_new::TakePart(failing_);
  }
  const Action action_;
  const bool failing_;  // memory fails on the caller's thread, and not here
};

class Notifier {
 public:
  [[nodiscard]] std::string Place() const { return "127.0.0.1:" + std::to_string(peer_.port()); }
  [[nodiscard]] sivra::SubscriptionInfo Info(int expires = 600, bool refresh = true) const {
    return {"sip:alice@" + Place(), "sip:alice@" + Place(), "reg", "application/reginfo+xml", expires, refresh};
  }

  // The next SUBSCRIBE, retransmissions aside; empty when none came in time.
  std::string Request(milliseconds wait = 10s) { return Take(requests_, wait); }
  // Header lines end with \r\n. The response to a request that makes a dialog has this tag.
  void Respond(const std::string& request, const std::string& status, const std::string& headers = "",
               const std::string& tag = "n1") {
    const std::string text = ResponseTo(request, status, headers);
    const std::string to = "To: " + HeaderLine(request, "To");
    peer_.Send(response_ = Has(to, ";tag=") ? text : Replaced(text, to, to + ";tag=" + tag));
  }
  void Accept(const std::string& request, const std::string& expires = "3600") {
    Respond(request, "200 OK", "Expires: " + expires + "\r\nContact: <sip:n@" + Place() + ">\r\n");
  }
  // A NOTIFY in the dialog of this SUBSCRIBE, with From tag n1.
  std::string Notify(const std::string& request, const std::string& state, const std::string& body = "", int cseq = 0) {
    const std::string to = HeaderLine(request, "To");
    const std::string contact = HeaderLine(request, "Contact");
    return "NOTIFY " + contact.substr(1, contact.find('>') - 1) + " SIP/2.0\r\nVia: SIP/2.0/UDP " + Place() +
           ";branch=z9hG4bK" + std::to_string(++branches_) + "\r\nFrom: " + to.substr(0, to.find(";tag=")) +
           ";tag=n1\r\nTo: " + HeaderLine(request, "From") + "\r\nCall-ID: " + HeaderLine(request, "Call-ID") +
           "\r\nCSeq: " + std::to_string(cseq > 0 ? cseq : ++cseq_) + " NOTIFY\r\nContact: <sip:n@" + Place() +
           ">\r\nMax-Forwards: 70\r\nEvent: reg\r\nSubscription-State: " + state +
           "\r\nContent-Type: application/reginfo+xml\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" +
           body;
  }
  // Sends it; its response.
  std::string Ask(const std::string& notify, milliseconds wait = 10s) {
    peer_.Send(notify);
    return Take(responses_, wait);
  }
  void Tell(const std::string& request, const std::string& state, const std::string& body = "") {
    EXPECT_EQ(StartLine(Ask(Notify(request, state, body))), "SIP/2.0 200 OK");
  }

 private:
  std::string Take(std::deque<std::string>& queue, milliseconds wait) {
    const auto end = Clock::now() + wait;
    while (queue.empty() && Clock::now() < end) {
      const std::string text = peer_.Receive(std::chrono::ceil<milliseconds>(end - Clock::now()));
      if (text.empty()) continue;
      // A request has a branch of its own, a response that of the NOTIFY.
      if (!seen_.insert(text.substr(0, 4) + HeaderLine(text, "Via")).second) {
        if (text.starts_with("SUBSCRIBE ")) peer_.Send(response_);
        continue;
      }
      (text.starts_with("SIP/2.0") ? responses_ : requests_).push_back(text);
    }
    const std::string text = queue.empty() ? "" : queue.front();
    if (!queue.empty()) queue.pop_front();
    return text;
  }

  Peer peer_;
  std::set<std::string> seen_;
  std::string response_;  // the last, for copies
  std::deque<std::string> requests_, responses_;
  int branches_ = 0;
  int cseq_ = 0;
};

class SubscriptionTest : public StackTest {
 protected:
  void SetUp() override { StartStack(20ms); }
  void TearDown() override {
    sipcarrier::Stop(0ms);
    EXPECT_EQ(sivra::SubscriptionCount(), 0U);
  }
  void StartStack(milliseconds t1) {
    sipcarrier::Stop(0ms);
    auto config = Quick(t1);
    config.trace = nullptr;
    config.credentials = {{"sip:alice@" + notifier_.Place(), "", "alice", "secret"}};
    StartWith(config);
  }
  // A subscription up to its first NOTIFY; the SUBSCRIBE.
  std::string Establish() {
    const std::string request = Begin();
    notifier_.Accept(request);
    notifier_.Tell(request, "active", "first");
    EXPECT_EQ(listener_->Next(), "new first");
    return request;
  }
  // Up to its first SUBSCRIBE.
  std::string Begin(int expires = 600, bool refresh = true) {
    id_ = sivra::Subscribe(notifier_.Info(expires, refresh), listener_);
    EXPECT_GT(id_, 0);
    return notifier_.Request();
  }
  // The next SUBSCRIBE, of the old one's dialog or of one of its own.
  std::string NextOf(const std::string& old, bool fresh) {
    std::string request = notifier_.Request();
    EXPECT_EQ(HeaderLine(request, "Call-ID") != HeaderLine(old, "Call-ID"), fresh) << request;
    EXPECT_EQ(request.starts_with("SUBSCRIBE ") && !Has(HeaderLine(request, "To"), ";tag="), fresh) << request;
    return request;
  }
  std::string NextNew(const std::string& old) { return NextOf(old, true); }
  void ExpectResponse(const std::string& notify, const std::string& status, const std::string& line = "CSeq") {
    const std::string response = notifier_.Ask(notify);
    EXPECT_TRUE(response.starts_with("SIP/2.0 " + status) && Has(response, "\r\n" + line)) << response << notify;
  }

  Notifier notifier_;
  std::shared_ptr<Listener> listener_ = std::make_shared<Listener>();
  long id_ = 0;
};

// One subscription from its first SUBSCRIBE to its last NOTIFY, a step at a time. Each step takes the last SUBSCRIBE
// that the one before has left in request_.
class WholeSubscriptionTest : public SubscriptionTest {
 protected:
  void IsAskedForAtTheAddressOfRecord() {
    request_ = Begin();
    EXPECT_EQ(StartLine(request_), "SUBSCRIBE sip:alice@" + notifier_.Place() + " SIP/2.0");
    EXPECT_EQ(HeaderLine(request_, "Contact"), "<sip:alice@" + sipcarrier::LocalEndpoints().at(0) + ">");
    EXPECT_TRUE(Has(request_, "\r\nMax-Forwards: 70\r\n"));
    EXPECT_TRUE(Has(request_, "\r\nEvent: reg\r\nAccept: application/reginfo+xml\r\nExpires: 600\r\n")) << request_;
    dialog_ = HeaderLine(request_, "From") + HeaderLine(request_, "Call-ID");
  }
  void IsAuthorisedWhenChallenged() {
    notifier_.Respond(request_, "401 Unauthorized", "WWW-Authenticate: Digest realm=r,nonce=n1,qop=\"auth\"\r\n", "x");
    request_ = notifier_.Request();
    EXPECT_TRUE(Has(HeaderLine(request_, "Authorization"), "nonce=\"n1\"")) << request_;
  }
  void IsAskedForLongerWhenTooBrief() {
    notifier_.Respond(request_, "423 Interval Too Brief", "Min-Expires: 700\r\n", "y");
    request_ = notifier_.Request();
    EXPECT_EQ(HeaderLine(request_, "Expires") + HeaderLine(request_, "CSeq"), "7003 SUBSCRIBE");
  }
  // For one second, with a route set and a Contact that the NOTIFY's will replace.
  void IsGrantedAndTold() {
    granted_ = Clock::now();
    notifier_.Respond(request_, "200 OK",
                      "Expires: 1\r\nContact: <sip:n@far.example;method=REFER?h=1>\r\nRecord-Route: " + route_ +
                          ";n=2>, " + route_ + ";n=1>\r\n");
    notifier_.Tell(request_, "active;expires=1", "first");
    notifier_.Tell(request_, "active;expires=1");
    EXPECT_EQ(listener_->Next(), "new first");
  }
  void IsRefreshedInItsDialogBeforeTheGrantEnds() {
    request_ = notifier_.Request();
    EXPECT_GT(Clock::now() - granted_, 500ms);
    EXPECT_EQ(StartLine(request_), "SUBSCRIBE sip:n@" + notifier_.Place() + " SIP/2.0") << "the NOTIFY's Contact";
    EXPECT_TRUE(Has(request_, "\r\nRoute: " + route_ + ";n=1>\r\nRoute: " + route_ + ";n=2>\r\n")) << request_;
    EXPECT_TRUE(HeaderLine(request_, "To").ends_with(";tag=n1"));
    EXPECT_EQ(HeaderLine(request_, "From") + HeaderLine(request_, "Call-ID"), dialog_);
    EXPECT_EQ(HeaderLine(request_, "CSeq") + HeaderLine(request_, "Expires"), "4 SUBSCRIBE700");
    EXPECT_TRUE(Has(HeaderLine(request_, "Authorization"), "nc=00000003")) << request_;
    notifier_.Respond(request_, "200 OK", "Expires: 600\r\n");
  }
  void IsEndedWithExpiryZeroThoughChallenged() {
    EXPECT_TRUE(sivra::Unsubscribe(id_));
    notifier_.Respond(notifier_.Request(), "401 Unauthorized",
                      "WWW-Authenticate: Digest realm=r,nonce=n2,stale=true\r\n");
    request_ = notifier_.Request();
    EXPECT_EQ(HeaderLine(request_, "Expires"), "0");
    notifier_.Accept(request_, "0");
  }
  void IsToldUntilTheLastNotify() {
    notifier_.Tell(request_, "active", "second");
    EXPECT_EQ(listener_->Next(), "second");
    EXPECT_EQ(sivra::SubscriptionCount(), 1U);
    notifier_.Tell(request_, "Terminated;reason=timeout", "last");
    for (const char* note : {"last", "end 0 timeout"}) EXPECT_EQ(listener_->Next(), note);
  }
  void IsKnownNoMore() {
    EXPECT_FALSE(sivra::Unsubscribe(id_) || sivra::RefreshSubscription(id_));
    ExpectResponse(notifier_.Notify(request_, "active"), "481");
  }

 private:
  const std::string route_ = "<sip:" + notifier_.Place() + ";lr";
  std::string request_;
  std::string dialog_;  // From and Call-ID
  Clock::time_point granted_;
};

TEST_F(WholeSubscriptionTest, FromTheFirstRequestToTheLastNotify) {
  IsAskedForAtTheAddressOfRecord();
  IsAuthorisedWhenChallenged();
  IsAskedForLongerWhenTooBrief();
  IsGrantedAndTold();
  IsRefreshedInItsDialogBeforeTheGrantEnds();
  IsEndedWithExpiryZeroThoughChallenged();
  IsToldUntilTheLastNotify();
  IsKnownNoMore();
}

TEST_F(SubscriptionTest, ANotifyBeforeTheResponseMakesTheDialogAndOtherForksHaveNone) {
  std::string request = Begin();
  const std::string router = "sip:" + notifier_.Place();
  ExpectResponse(Replaced(notifier_.Notify(request, "active", "first"), "CSeq",
                          "Record-Route: <" + router + ";r=1>,<" + router + ";r=2;lr>\r\nCSeq"),
                 "200");
  EXPECT_EQ(listener_->Next(), "new first");
  ExpectResponse(Replaced(notifier_.Notify(request, "terminated;reason=rejected", "fork"), "tag=n1", "tag=n2"), "481");
  notifier_.Respond(request, "200 OK", "Expires: 1\r\nContact: <sip:fork@127.0.0.1:9>\r\n", "n2");
  // A strict router stands in the Request-URI, the target behind the other routers.
  request = notifier_.Request();
  EXPECT_EQ(StartLine(request), "SUBSCRIBE " + router + ";r=1 SIP/2.0");
  EXPECT_TRUE(Has(request, "\r\nRoute: <" + router + ";r=2;lr>\r\nRoute: <sip:n@" + notifier_.Place() + ">\r\n"));
  EXPECT_TRUE(HeaderLine(request, "To").ends_with(";tag=n1"));
  EXPECT_EQ(listener_->Next(0ms), "");
}

TEST_F(SubscriptionTest, NotifiesThatAreRefusedChangeNothingAndALateOneHasTheFullStateAskedFor) {
  const std::string request = Establish();
  // clang-format off
  const struct { const char *from, *to, *response, *line = "CSeq: 100 NOTIFY"; } cases[] = {
      {"Call-ID: ", "Call-ID: x", "481"}, {"To: ", "To: <sip:alice@a>;tag=x\r\nX: ", "481"},
      {";tag=n1", ";tag=n2", "481"}, {";tag=n1", "", "481"}, {"Event: reg", "Event: reg;id=1", "481"},
      {"Event: reg", "X: reg", "489", "Allow-Events: reg"}, {"Event: reg", "Event: Reg", "489", "Allow-Events: reg"},
      {"Subscription-State: ", "X: ", "400"}, {"terminated;", ";", "400"},
      {"reginfo+xml", "xml", "415", "Accept: application/reginfo+xml"},
      {"Content-Type", "X", "415", "Accept: application/reginfo+xml"},
      {"Content-Type", "Content-Encoding: gzip\r\nContent-Type", "415", "Accept-Encoding: identity"},
  };
  // clang-format on
  for (const auto& c : cases) {
    const std::string notify = notifier_.Notify(request, "terminated;reason=rejected", "foreign", 100);
    ExpectResponse(Replaced(notify, c.from, c.to), c.response, c.line);
  }
  ExpectResponse(Replaced(notifier_.Notify(request, "pending", "fine", 7), "Content-Type: application/reginfo",
                          "Content-Encoding: Identity\r\nc: Application/RegInfo"),
                 "200");
  EXPECT_EQ(listener_->Next(), "fine");
  EXPECT_EQ(notifier_.Request(50ms), "");
  ExpectResponse(notifier_.Notify(request, "active", "old", 6), "500");
  EXPECT_EQ(HeaderLine(NextOf(request, false), "Expires"), "600");
  EXPECT_EQ(listener_->Next(0ms), "");
}

TEST_F(SubscriptionTest, WhatEndsItAndWhatIsMadeAgain) {
  enum How { kNotify, kResponse, kRefreshResponse };
  // By a Subscription-State or a status line, headers behind it; an end, or null: made again.
  // clang-format off
  const struct { How how; const char *by, *end; milliseconds after = 0ms; } cases[] = {
      {kNotify, "terminated;reason=rejected", "end 0 rejected"},
      {kNotify, "terminated;reason=NoResource;retry-after=1", "end 0 NoResource"},
      {kNotify, "terminated;reason=invariant", "end 0 invariant"},
      {kNotify, "terminated;reason=deactivated;retry-after=99", nullptr},
      {kNotify, "terminated;reason=timeout", nullptr}, {kNotify, "terminated", nullptr},
      {kNotify, "terminated;reason=probation;retry-after=1", nullptr, 1s},
      {kNotify, "terminated;reason=probation", nullptr, 30ms}, {kNotify, "terminated;reason=giveup", nullptr, 30ms},
      {kNotify, "active;expires=0", nullptr},
      {kResponse, "403 No", "end 403 No"}, {kResponse, "423 No\r\nMin-Expires: 1", "end 423 No"},
      {kResponse, "489 No", "end 489 No"}, 
      {kResponse, "480 Later", nullptr, 30ms}, {kResponse, "503 Later", nullptr, 30ms},
      {kRefreshResponse, "481 Gone", nullptr}, {kRefreshResponse, "408 Gone", nullptr, 30ms},
      {kRefreshResponse, "404 Gone", nullptr, 30ms}, {kRefreshResponse, "200 OK\r\nExpires: 0", nullptr},
  };
  // clang-format on
  for (const auto& c : cases) {
    SCOPED_TRACE(c.by);
    std::string request = c.how == kResponse ? Begin() : Establish();
    const auto before = Clock::now();
    if (c.how == kNotify) {
      notifier_.Tell(request, c.by);
    } else {
      EXPECT_TRUE(c.how == kResponse || sivra::RefreshSubscription(id_));
      notifier_.Respond(c.how == kResponse ? request : notifier_.Request(), c.by);
    }
    if (c.end != nullptr) {
      EXPECT_EQ(listener_->Next(), c.end);
      EXPECT_EQ(sivra::SubscriptionCount(), 0U);
      continue;
    }
    request = NextNew(request);
    EXPECT_GE(Clock::now() - before, c.after);
    EXPECT_LT(Clock::now() - before, c.after + 5s);
    EXPECT_TRUE(sivra::Unsubscribe(id_));
    notifier_.Respond(request, "500 x");
    EXPECT_EQ(listener_->Next(), "end 0 unsubscribed");
  }
}

TEST_F(SubscriptionTest, ShortenedItIsRefreshedEarlierAndARefusalLeavesWhatWasGranted) {
  std::string request = Establish();
  notifier_.Tell(request, "active;expires=1");
  for (const char* refusal : {"403 No", "500 Down", "503 Later\r\nRetry-After: 1"}) {
    request = NextOf(request, false);
    notifier_.Respond(request, refusal);
    notifier_.Tell(request, "active", "still");
    EXPECT_EQ(listener_->Next(), "still");
  }
  const auto refused = Clock::now();
  NextNew(request);
  EXPECT_GT(Clock::now() - refused, 950ms) << "the time that was asked for outlives the grant";
  // A goodbye that was wanted while such a refresh was under way is said all the same.
  request = Establish();
  EXPECT_TRUE(sivra::RefreshSubscription(id_));
  request = NextOf(request, false);
  EXPECT_TRUE(sivra::Unsubscribe(id_));
  EXPECT_EQ(notifier_.Request(30ms), "");
  notifier_.Respond(request, "503 Down");
  EXPECT_EQ(HeaderLine(NextOf(request, false), "Expires"), "0");
}

TEST_F(SubscriptionTest, SilenceLosesTheDialogAndPausesGrow) {
  StartStack(5ms);
  std::string request = NextNew(Begin());  // no response at all
  notifier_.Accept(request);
  request = NextNew(request);  // a response, but no NOTIFY
  auto last = Clock::now();
  for (int i = 0; i < 3; ++i) {  // 40 ms and more, doubled each time, a quarter up or down
    notifier_.Respond(request, "503 Down");
    request = NextNew(request);
    EXPECT_GE(Clock::now() - last, 30ms * (1 << i));
    last = Clock::now();
  }
  // A SUBSCRIBE with expiry 0 that gets no response ends, too; a subscription between two dialogs sends none.
  notifier_.Accept(request);
  notifier_.Tell(request, "active");
  EXPECT_TRUE(sivra::Unsubscribe(id_));
  EXPECT_EQ(HeaderLine(notifier_.Request(), "Expires"), "0");
  EXPECT_EQ(listener_->Next(), "end 0 unsubscribed");
  notifier_.Respond(Begin(), "404 Later\r\nRetry-After: 100 (soon);duration=9");
  EXPECT_EQ(notifier_.Request(100ms), "");
  EXPECT_TRUE(sivra::Unsubscribe(id_));
  EXPECT_EQ(listener_->Next(), "end 0 unsubscribed");
}

TEST_F(SubscriptionTest, ANotifierThatSendsRubbishIsAskedForMoreAtGrowingIntervals) {
  listener_ = std::make_shared<Listener>([](long id) { sivra::RefreshSubscription(id); });
  std::string request = Establish();
  auto before = Clock::now();
  for (int i = 0; i < 4; ++i) {  // the first at once, then after 4 T1 and doubled
    request = NextOf(request, false);
    const auto pause = i == 0 ? 0ms : 80ms * (1 << (i - 1));
    EXPECT_TRUE(Clock::now() - before > pause * 3 / 4 && Clock::now() - before < pause + 5s) << i;
    notifier_.Accept(request);
    before = Clock::now();
    for (int n = 0; n < 2; ++n) notifier_.Tell(request, "active", "rubbish");
  }
}

TEST_F(SubscriptionTest, WithoutRefreshItRunsOut) {
  listener_ = std::make_shared<Listener>([](long id) { sivra::RefreshSubscription(id); });
  std::string request = Begin(1, false);
  notifier_.Accept(request, "1");
  notifier_.Tell(request, "active", "first");
  request = NextOf(request, false);
  EXPECT_EQ(HeaderLine(request, "Expires"), "1") << "asking for the state prolongs nothing";
  notifier_.Accept(request, "1");
  EXPECT_EQ(notifier_.Request(1100ms), "");
  const std::clock_t busy = std::clock();
  notifier_.Tell(request, "active", "second");
  EXPECT_EQ(notifier_.Request(200ms), "");
  EXPECT_LT(std::clock() - busy, CLOCKS_PER_SEC / 10) << "it asks what can no more be asked, again and again";
  notifier_.Tell(request, "terminated;reason=timeout", "last");
  for (const char* note : {"new first", "second", "last", "end 0 timeout"}) EXPECT_EQ(listener_->Next(), note);
}

TEST_F(SubscriptionTest, StopEndsWhatever200AreDoing) {
  StartStack(500ms);
  std::vector<long> ids(200);
  for (long& id : ids) ASSERT_GT(id = sivra::Subscribe(notifier_.Info(), listener_), 0);
  for (std::size_t i = 1; i < ids.size(); ++i) {  // one stays in flight
    const std::string request = notifier_.Request();
    notifier_.Accept(request);
    notifier_.Tell(request, "active", "body");
  }
  for (std::size_t i = 0; i < ids.size() / 2; ++i) EXPECT_TRUE(sivra::Unsubscribe(ids[i]));
  sipcarrier::Stop(0ms);
  EXPECT_EQ(listener_->seen().size(), 2 * ids.size() - 1);
  EXPECT_EQ(sivra::Subscribe(notifier_.Info(), listener_), -1) << "not started";
  StartStack(500ms);
  for (const sivra::SubscriptionInfo& bad :
       std::initializer_list<sivra::SubscriptionInfo>{{"", "sip:a@b", "reg", "a/b"},
                                                      {"sip:a@b", "tel:+49", "reg", "a/b"},
                                                      {"sip:a@b", "sip:a@b", "a b", "a/b"},
                                                      {"sip:a@b", "sip:a@b", "reg", "a\r\nb:c"},
                                                      {"sip:a@b", "sip:a@b", "reg", "a/b", 0}}) {
    EXPECT_EQ(sivra::Subscribe(bad, listener_), -1) << bad.from << bad.to << bad.event;
  }
}

TEST_F(SubscriptionTest, AForgottenListenerHearsNothingMore) {
  std::atomic<bool> leave{false};
  listener_ = std::make_shared<Listener>([&](long) { Eventually([&] { return leave.load(); }); });
  std::string request = Begin();
  notifier_.Accept(request);
  notifier_.Ask(notifier_.Notify(request, "active", "body"), 0ms);
  EXPECT_EQ(listener_->Next(), "new body");
  std::atomic<bool> forgotten{false};
  std::thread forget([&] {
    sivra::ForgetListener(listener_.get());
    forgotten = true;
  });
  std::this_thread::sleep_for(50ms);
  EXPECT_FALSE(forgotten) << "it waits for the call under way";
  leave = true;
  forget.join();
  EXPECT_EQ(listener_.use_count(), 1);
  request = NextOf(request, false);
  EXPECT_EQ(HeaderLine(request, "Expires"), "0") << "the notifier gets its goodbye all the same";
  notifier_.Accept(request, "0");
  notifier_.Ask(notifier_.Notify(request, "terminated", "late"));
  EXPECT_TRUE(Eventually([] { return sivra::SubscriptionCount() == 0; }));
  EXPECT_EQ(listener_->seen().size(), 1U);
}

// One allocation of the I/O thread after the other fails: the subscription outlives it, and ends when it is told to.
TEST_F(SubscriptionTest, MemoryThatRunsOut) {
  StartStack(1ms);
  ASSERT_TRUE(sipcarrier::RunOnIoThread([] { failing_new::TakePart(true); }));
  long normal = 1000;
  int ends = 0;
  for (long n = 0; n <= normal; ++n) {
    SCOPED_TRACE(n);
    listener_ = std::make_shared<Listener>(nullptr, true);
    failing_new::Fail(n, n);
    id_ = sivra::Subscribe(notifier_.Info(), listener_);
    std::string note;
    while (note.empty() && !testing::Test::HasFailure()) {
      const std::string request = notifier_.Request(100ms);
      if (!request.empty()) {
        notifier_.Accept(request);
        const std::string notify = notifier_.Notify(request, "active", "body");
        for (int i = 0; i < 3 && notifier_.Ask(notify, 5ms).empty(); ++i) continue;
      }
      note = listener_->Next(5ms);
    }
    ends += note.starts_with("end 0 ") ? 1 : 0;
    EXPECT_TRUE(note == "new body" || note.starts_with("end 0 ")) << note;
    const long taken = failing_new::Fail(0, 0);
    if (n == 0) normal = taken;
    while (sivra::Unsubscribe(id_)) {
      if (const std::string last = notifier_.Request(2ms); !last.empty()) notifier_.Respond(last, "481 Gone");
    }
  }
  EXPECT_TRUE(Eventually([] { return sivra::SubscriptionCount() == 0; }));
  EXPECT_GT(normal, 50);
  EXPECT_LE(ends, 1) << "a subscription outlives all but the want of its first timer";
}

}  // namespace
}  // namespace sip_test
