// Entries through the real stack, against a peer on loopback that responds as each test says.
#include "sivra/sivra.h"

#include <future>

#include "sipcarrier_peer.h"

namespace sip_test {
namespace {

using MessagePtr = std::unique_ptr<nsip_message>;

constexpr const char* kAor = "Alice<sip:alice@example.com>";

int CSeq(const std::string& request) { return std::atoi(HeaderLine(request, "CSeq").c_str()); }

// Under the library's lock.
template <class Call>
auto Locked(Call call) {
  sivra_lock();
  const auto result = call();
  sivra_unlock();
  return result;
}
long SetInfo(long id, const std::string& aor, const std::string& registrar) {
  return Locked([&]()
                    TOLVANE_REQUIRES(sivra::library_lock) { return sivra_register_set_info(id, aor, aor, registrar); });
}
MessagePtr Build(long id, int expires = 60) {
  nsip_message* message = nullptr;
  const int result = Locked(
      [&]() TOLVANE_REQUIRES(sivra::library_lock) { return sivra_register_build_register(&message, id, expires); });
  EXPECT_EQ(result == 0, message != nullptr);
  return MessagePtr(message);
}
bool Send(long id, MessagePtr message) {
  return Locked(
      [&]() TOLVANE_REQUIRES(sivra::library_lock) { return sivra_register_send_register(id, message.release()) == 0; });
}
bool Register(long id, int expires = 60) { return Send(id, Build(id, expires)); }
void Release(long id) {
  Locked([id]() TOLVANE_REQUIRES(sivra::library_lock) { return sivra_register_release(id), 0; });
}
// What the I/O thread sees of this address of record.
std::vector<std::string> Contacts(const std::string& aor) {
  const auto seen = std::make_shared<std::promise<std::vector<std::string>>>();
  EXPECT_TRUE(sipcarrier::RunOnIoThread([=] { seen->set_value(sivra::RegisteredContacts(aor)); }));
  return seen->get_future().get();
}
std::string Challenge(const std::string& nonce, const std::string& more = ",realm=r") {
  return "WWW-Authenticate: Digest qop=\"auth\",nonce=" + nonce + more + "\r\n";
}

class SivraTest : public StackTest {
 protected:
  void SetUp() override {
    StartStack(2s);  // no retransmission on a busy machine
    id_ = SetInfo(0, kAor, registrar_);
  }
  void TearDown() override {
    sipcarrier::Stop(2s);
    Release(id_);
    EXPECT_EQ(sivra::EntryCount(), 0U);
  }
  void StartStack(milliseconds t1) {
    auto config = Quick(t1);
    config.credentials = {{"sip:alice@example.com", "", "alice", "secret"}};
    StartWith(config);
    ASSERT_EQ(Sipcarrier_RegisterHandler(&handler_), 0);
  }
  void Respond(const std::string& request, int status, const std::string& headers = "") {
    peer_.Send(ResponseTo(request, std::to_string(status) + " x", headers));
  }
  [[nodiscard]] std::string Reported(int event, const std::string& rest = "") const {
    return std::to_string(event) + " #" + std::to_string(id_) + rest;
  }
  [[nodiscard]] std::string OwnContact() const {
    return "sip:alice@" + sipcarrier::LocalEndpoints().at(0) + ";line=" + std::to_string(id_);
  }

  Handler handler_;
  Peer peer_;
  const std::string registrar_ = "sip:user@" + UriOf(peer_).substr(4) + ";x=1?h=1";
  long id_ = 0;
};

TEST_F(SivraTest, TheRequest) {
  MessagePtr built = Build(id_);
  ASSERT_TRUE(built && nsip_message_set_header(built.get(), "User-Agent", "kept") == 0);
  const std::string from = nsip_from_text(*built->from);
  const std::string contact = nsip_from_text(*built->contacts.at(0));
  EXPECT_TRUE(Send(id_, std::move(built)));
  const std::string request = peer_.Receive();
  EXPECT_TRUE(request.starts_with("REGISTER " + UriOf(peer_) + ";x=1 SIP/2.0\r\n")) << request;
  EXPECT_TRUE(HeaderLine(request, "To").ends_with(" <sip:alice@example.com>")) << request;
  EXPECT_EQ(HeaderLine(request, "From"), from);
  EXPECT_TRUE(Has(from, HeaderLine(request, "To") + ";tag="));
  EXPECT_EQ(HeaderLine(request, "Contact"), "<" + OwnContact() + ">;expires=60");
  EXPECT_EQ(HeaderLine(request, "Contact"), contact);
  EXPECT_TRUE(Has(request, "\r\nCSeq: 1 REGISTER\r\n") && Has(request, "\r\nUser-Agent: kept\r\n"));
  EXPECT_FALSE(Has(request, "\r\nExpires:"));
  const std::vector<std::string> own{OwnContact()};
  EXPECT_EQ(Contacts("<sip:%61lice@EXAMPLE.com>"), own);
  EXPECT_TRUE(Contacts("sip:alice@example.net").empty());
  Respond(request, 100);
  Respond(request, 423, "Min-Expires: 90\r\n");
  EXPECT_EQ(handler_.Next(), Reported(26, " 423"));

  // A second binding of the same address of record is one of its own; a bare URI keeps its parameter.
  const long other = SetInfo(0, "sip:alice@example.com;user=phone", registrar_);
  EXPECT_EQ(other, id_ + 1);
  const MessagePtr second = Build(other, 0);
  EXPECT_NE(second->call_id, HeaderLine(request, "Call-ID"));
  EXPECT_FALSE(nsip_uri_equal(*second->contacts.at(0)->url, *Build(id_)->contacts.at(0)->url));
  EXPECT_EQ(nsip_uri_text(*second->to->url), "sip:alice@example.com;user=phone");
  EXPECT_EQ(Contacts(kAor), own) << "nothing has left for the other";
  Release(other);
  EXPECT_FALSE(Build(other) || Send(other, Build(id_)) || Send(id_, nullptr) || Build(id_, -1));
  EXPECT_EQ(SetInfo(other, kAor, registrar_), -1);
  for (const char* text : {"", "alice", "Alice<", "sip:", "xsip:alice", "sip:sips:alice"}) {
    EXPECT_EQ(SetInfo(0, text, registrar_), -1) << text;
    EXPECT_EQ(SetInfo(id_, kAor, text), -1) << text;
  }
  EXPECT_EQ(Contacts(kAor), own);
  EXPECT_EQ(SetInfo(id_, "sip:carol@example.com", registrar_), id_);
  EXPECT_EQ(Contacts("sip:carol@example.com"), own) << "it is found where it has moved to";
  EXPECT_TRUE(Contacts(kAor).empty());
}

TEST_F(SivraTest, OneInFlightOneWaitsAndTheNewestLeaves) {
  ASSERT_TRUE(Register(id_));
  MessagePtr removal = Build(id_, 0);  // before newer ones, but its number counts when it leaves
  const std::string first = peer_.Receive();
  ASSERT_TRUE(Register(id_, 61) && Register(id_, 62));
  EXPECT_EQ(peer_.Receive(100ms), "");
  Respond(first, 200);
  EXPECT_EQ(handler_.Next(), Reported(26, " 200"));
  const std::string second = peer_.Receive();
  EXPECT_TRUE(HeaderLine(second, "Contact").ends_with(";expires=62")) << second;
  EXPECT_GT(CSeq(second), CSeq(first));

  // Released with one in flight and one waiting: both finish, and nothing is reported.
  ASSERT_TRUE(Send(id_, std::move(removal)));
  Release(id_);
  EXPECT_EQ(sivra::EntryCount(), 1U);
  Respond(second, 200);
  const std::string third = peer_.Receive();
  EXPECT_TRUE(HeaderLine(third, "Contact").ends_with(">;expires=0")) << third;
  EXPECT_EQ(HeaderLine(third, "Expires") + HeaderLine(third, "Call-ID"), "0" + HeaderLine(first, "Call-ID"));
  EXPECT_GT(CSeq(third), CSeq(second));
  Respond(third, 401, Challenge("n1"));
  const std::string fourth = peer_.Receive();
  EXPECT_TRUE(Has(HeaderLine(fourth, "Authorization"), "nonce=\"n1\"")) << fourth;
  EXPECT_EQ(HeaderLine(fourth, "Contact"), HeaderLine(third, "Contact"));
  Respond(fourth, 200);
  EXPECT_EQ(handler_.Next(100ms), "");
  EXPECT_TRUE(Eventually([] { return sivra::EntryCount() == 0; }));
}

TEST_F(SivraTest, Challenges) {
  ASSERT_TRUE(Register(id_));
  const std::string bare = peer_.Receive();
  EXPECT_EQ(HeaderLine(bare, "Authorization"), "");
  Respond(bare, 401, Challenge("n1"));
  const std::string first = peer_.Receive();
  EXPECT_TRUE(HeaderLine(first, "Authorization").starts_with("Digest username=\"alice\"")) << first;
  EXPECT_GT(CSeq(first), CSeq(bare));
  // Other devices stand in the list too, one even at our address.
  const std::string own = HeaderLine(first, "Contact");
  Respond(first, 200,
          "Contact: <sip:alice@192.0.2.1>;expires=1\r\nContact: <sip:alice@" + sipcarrier::LocalEndpoints().at(0) +
              ">;expires=2, " + own + "\r\n");
  EXPECT_EQ(handler_.Next(), Reported(26, " 200 " + own));

  // Under an associated URI: same Contact, Call-ID and account; authorised in advance.
  EXPECT_EQ(SetInfo(id_, "sip:+4930@example.com", registrar_), id_);
  ASSERT_TRUE(Register(id_));
  const std::string refresh = peer_.Receive();
  EXPECT_TRUE(Has(HeaderLine(refresh, "Authorization"), "nc=00000002")) << refresh;
  EXPECT_TRUE(Has(HeaderLine(refresh, "To"), "sip:+4930@example.com")) << refresh;
  EXPECT_EQ(HeaderLine(refresh, "Contact") + HeaderLine(refresh, "Call-ID"), own + HeaderLine(first, "Call-ID"));
  EXPECT_GT(CSeq(refresh), CSeq(first));
  Respond(refresh, 401, Challenge("n2", ",realm=r,stale=true"));
  const std::string again = peer_.Receive();
  EXPECT_TRUE(Has(HeaderLine(again, "Authorization"), "nonce=\"n2\"")) << again;
  Respond(again, 401, Challenge("n3"));  // the password has changed
  EXPECT_EQ(handler_.Next(), Reported(26, " 401"));
  // A server that asks for a new realm each time does not keep us sending.
  ASSERT_TRUE(Register(id_));
  for (const char* realm : {"1", "2", "3", "4"}) {
    Respond(peer_.Receive(), 401, Challenge("n", std::string(",realm=") + realm));
  }
  EXPECT_EQ(handler_.Next(), Reported(26, " 401"));
}

TEST_F(SivraTest, NoResponseUnsentAndStop) {
  sipcarrier::Stop(0s);
  StartStack(5ms);
  ASSERT_TRUE(Register(id_));
  EXPECT_EQ(handler_.Next(), Reported(74));
  SetInfo(id_, kAor, "sip:127.0.0.1;transport=carrier-pigeon");
  ASSERT_TRUE(Register(id_));
  EXPECT_EQ(handler_.Next(), Reported(78));

  SetInfo(id_, kAor, registrar_);
  const long released = SetInfo(0, kAor, registrar_);
  for (const long entry : {id_, released}) ASSERT_TRUE(Register(entry) && Register(entry, 0));
  Release(released);
  MessagePtr late = Build(id_);
  MessagePtr early = Build(id_);
  sipcarrier::Stop(0s);
  EXPECT_EQ(sivra::EntryCount(), 1U);
  EXPECT_FALSE(Send(id_, std::move(late)) || Build(id_));
  // The entry is not stuck: it goes on with the next run of the stack, its numbers rising, and from the new port,
  // whatever was known when the request was built.
  while (!peer_.Receive(0ms).empty()) continue;
  StartStack(2s);
  ASSERT_TRUE(Send(id_, std::move(early)));
  const std::string request = peer_.Receive();
  EXPECT_GT(CSeq(request), 2);
  EXPECT_TRUE(Has(HeaderLine(request, "Contact"), OwnContact())) << request;
  Respond(request, 200);
  // Some may be left of the run before.
  EXPECT_TRUE(Eventually([&] { return handler_.seen().back() == Reported(26, " 200"); }));
}

}  // namespace
}  // namespace sip_test
