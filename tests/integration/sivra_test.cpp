// Entries through the real stack, against a peer on loopback that answers as each test tells it.
#include "sivra/sivra.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "nsip/nsip.h"
#include "Sipcarrier/Sipcarrier.h"

namespace {

using namespace std::chrono_literals;
using MessagePtr = std::unique_ptr<nsip_message>;

constexpr const char* kAor = "Alice<sip:alice@example.com>";

// The value of the first header line of this name; empty when there is none.
std::string Header(const std::string& request, const std::string& name) {
  const std::string start = "\r\n" + name + ": ";
  const std::size_t pos = request.find(start);
  if (pos == std::string::npos) return "";
  return request.substr(pos + start.size(), request.find("\r\n", pos + 2) - pos - start.size());
}

int CSeq(const std::string& request) { return std::atoi(Header(request, "CSeq").c_str()); }

bool Has(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

// The next datagram, or nothing.
std::string Read(int socket, std::chrono::milliseconds wait, sockaddr_in& from) {
  pollfd ready{socket, POLLIN, 0};
  std::array<char, 8192> buffer{};
  socklen_t size = sizeof from;
  if (::poll(&ready, 1, static_cast<int>(wait.count())) != 1) return "";
  const ssize_t length = ::recvfrom(socket, buffer.data(), buffer.size(), 0,
                                    reinterpret_cast<sockaddr*>(&from), &size);
  return {buffer.data(), static_cast<std::size_t>(length)};
}

class Peer {
 public:
  Peer() {
    socklen_t size = sizeof address_;
    address_.sin_family = AF_INET;
    address_.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    EXPECT_EQ(::bind(socket_, reinterpret_cast<sockaddr*>(&address_), size), 0);
    ::getsockname(socket_, reinterpret_cast<sockaddr*>(&address_), &size);
  }
  Peer(const Peer&) = delete;
  Peer& operator=(const Peer&) = delete;
  ~Peer() { ::close(socket_); }

  std::string Receive(std::chrono::milliseconds wait = 5s) { return Read(socket_, wait, address_); }
  // Header lines end with \r\n.
  void Answer(const std::string& request, int status, const std::string& headers = "") {
    std::string text = "SIP/2.0 " + std::to_string(status) + " x\r\n" + headers;
    for (const char* name : {"Via", "From", "To", "Call-ID", "CSeq"}) {
      text.append(name).append(": ").append(Header(request, name)).append("\r\n");
    }
    text += "\r\n";
    ::sendto(socket_, text.data(), text.size(), 0, reinterpret_cast<sockaddr*>(&address_),
             sizeof address_);
  }
  // Its own address; after Receive the sender's.
  [[nodiscard]] std::string address() const {
    return "127.0.0.1:" + std::to_string(ntohs(address_.sin_port));
  }

 private:
  int socket_ = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  sockaddr_in address_{};
};

class Handler : public ISipStackEvent {
 public:
  Handler() { EXPECT_EQ(::socketpair(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0, pair_.data()), 0); }
  ~Handler() override {
    for (const int end : pair_) ::close(end);
  }
  int OnStackEvent(SipStackEvent* event) override {
    std::string text = std::to_string(event->nEventId) + " #" + std::to_string(event->nStackId);
    if (event->pMessage != nullptr) {
      text += " " + std::to_string(event->pMessage->status_code);
      if (!event->pMessage->contacts.empty()) {
        text += " " + nsip_from_text(*event->pMessage->contacts.front());
      }
    }
    EXPECT_GT(::send(pair_[0], text.data(), text.size(), 0), 0);
    return 0;
  }
  std::string GetServiceName() override { return "test"; }
  // "EVENT #ENTRY STATUS FIRST-CONTACT", or nothing.
  std::string Next(std::chrono::milliseconds wait = 5s) {
    sockaddr_in from{};
    return Read(pair_[1], wait, from);
  }

 private:
  std::array<int, 2> pair_{};
};

struct Library {
  void lock() { sivra_lock(); }
  void unlock() { sivra_unlock(); }
} library;

long SetInfo(long id, const std::string& aor, const std::string& registrar) {
  const std::lock_guard locked(library);
  return sivra_register_set_info(id, aor, aor, registrar);
}
MessagePtr Build(long id, int expires = 60) {
  nsip_message* message = nullptr;
  const std::lock_guard locked(library);
  const int result = sivra_register_build_register(&message, id, expires);
  EXPECT_EQ(result == 0, message != nullptr);
  return MessagePtr(message);
}
bool Send(long id, MessagePtr message) {
  const std::lock_guard locked(library);
  return sivra_register_send_register(id, message.release()) == 0;
}
bool Register(long id, int expires = 60) { return Send(id, Build(id, expires)); }
void Release(long id) {
  const std::lock_guard locked(library);
  sivra_register_release(id);
}
std::string Challenge(const std::string& nonce, const std::string& more = "") {
  return "WWW-Authenticate: Digest realm=r,qop=\"auth\",nonce=" + nonce + more + "\r\n";
}

class SivraTest : public ::testing::Test {
 protected:
  void SetUp() override {
    config_.local_address = "127.0.0.1";
    config_.t1 = 2s;  // no retransmission on a busy machine
    config_.credentials = {{"sip:alice@example.com", "", "alice", "secret"}};
    StartStack();
    id_ = SetInfo(0, kAor, registrar_);
  }
  void TearDown() override {
    sipcarrier::Stop(2s);
    Release(id_);
    EXPECT_EQ(sivra::EntryCount(), 0U);
  }
  void StartStack() {
    std::string error;
    ASSERT_EQ(sipcarrier::Start(config_, error), 0) << error;
    ASSERT_EQ(Sipcarrier_RegisterHandler(&handler_), 0);
  }
  std::string Reported(int event, const std::string& rest = "") const {
    return std::to_string(event) + " #" + std::to_string(id_) + rest;
  }

  sipcarrier::Config config_;
  Handler handler_;
  Peer peer_;
  const std::string host_port_ = peer_.address();
  const std::string registrar_ = "sip:user@" + host_port_ + ";x=1";
  long id_ = 0;
};

TEST_F(SivraTest, TheRequest) {
  MessagePtr built = Build(id_);
  ASSERT_TRUE(built);
  EXPECT_EQ(nsip_message_set_header(built.get(), "User-Agent", "kept"), 0);
  const std::string built_contact = nsip_from_text(*built->contacts.at(0));
  const std::string built_from = nsip_from_text(*built->from);
  EXPECT_TRUE(Send(id_, std::move(built)));
  const std::string request = peer_.Receive();
  EXPECT_EQ(request.substr(0, request.find("\r\n")), "REGISTER sip:" + host_port_ + ";x=1 SIP/2.0");
  EXPECT_TRUE(Header(request, "To").ends_with(" <sip:alice@example.com>")) << request;
  EXPECT_EQ(Header(request, "From"), built_from);
  EXPECT_TRUE(Has(built_from, Header(request, "To") + ";tag="));
  EXPECT_EQ(Header(request, "Contact"),
            "<sip:alice@" + peer_.address() + ";line=" + std::to_string(id_) + ">;expires=60");
  EXPECT_EQ(Header(request, "Contact"), built_contact);
  EXPECT_EQ(Header(request, "CSeq") + Header(request, "User-Agent") + Header(request, "Expires"),
            "1 REGISTERkept");
  peer_.Answer(request, 100);
  peer_.Answer(request, 423, "Min-Expires: 90\r\n");
  EXPECT_EQ(handler_.Next(), Reported(26, " 423"));

  // A second binding of the same address of record is one of its own; a bare URI keeps its
  // parameter.
  const long other = SetInfo(0, "sip:alice@example.com;user=phone", registrar_);
  EXPECT_EQ(other, id_ + 1);
  const MessagePtr second = Build(other, 0);
  EXPECT_NE(second->call_id, Header(request, "Call-ID"));
  EXPECT_FALSE(nsip_uri_equal(*second->contacts.at(0)->url, *Build(id_)->contacts.at(0)->url));
  EXPECT_EQ(nsip_uri_text(*second->to->url), "sip:alice@example.com;user=phone");

  Release(other);
  EXPECT_FALSE(Build(other));
  EXPECT_FALSE(Send(other, Build(id_)));
  EXPECT_FALSE(Send(id_, nullptr));
  EXPECT_FALSE(Build(id_, -1));
  EXPECT_EQ(SetInfo(other, kAor, registrar_), -1);
  for (const char* text : {"", "alice", "Alice<", "sip:", "xsip:alice", "sip:sips:alice"}) {
    EXPECT_EQ(SetInfo(0, text, registrar_), -1) << text;
    EXPECT_EQ(SetInfo(id_, kAor, text), -1) << text;
  }
}

TEST_F(SivraTest, OneInFlightOneWaitsAndTheNewestLeaves) {
  ASSERT_TRUE(Register(id_));
  MessagePtr removal = Build(id_, 0);  // before newer ones, but its number counts when it leaves
  const std::string first = peer_.Receive();
  ASSERT_TRUE(Register(id_, 61) && Register(id_, 62));
  EXPECT_EQ(peer_.Receive(100ms), "");
  peer_.Answer(first, 200);
  EXPECT_EQ(handler_.Next(), Reported(26, " 200"));
  const std::string second = peer_.Receive();
  EXPECT_TRUE(Header(second, "Contact").ends_with(";expires=62")) << second;
  EXPECT_GT(CSeq(second), CSeq(first));

  // Released with one in flight and one waiting: both finish, and nothing is reported.
  ASSERT_TRUE(Send(id_, std::move(removal)));
  Release(id_);
  EXPECT_EQ(sivra::EntryCount(), 1U);
  peer_.Answer(second, 200);
  const std::string third = peer_.Receive();
  EXPECT_TRUE(Header(third, "Contact").ends_with(">;expires=0")) << third;
  EXPECT_EQ(Header(third, "Expires"), "0");
  EXPECT_EQ(Header(third, "Call-ID"), Header(first, "Call-ID"));
  EXPECT_GT(CSeq(third), CSeq(second));
  peer_.Answer(third, 401, Challenge("n1"));
  const std::string fourth = peer_.Receive();
  EXPECT_TRUE(Has(Header(fourth, "Authorization"), "nonce=\"n1\"")) << fourth;
  EXPECT_EQ(Header(fourth, "Contact"), Header(third, "Contact"));
  peer_.Answer(fourth, 200);
  EXPECT_EQ(handler_.Next(100ms), "");
  for (int i = 0; i < 500 && sivra::EntryCount() != 0; ++i) std::this_thread::sleep_for(10ms);
  EXPECT_EQ(sivra::EntryCount(), 0U);
}

TEST_F(SivraTest, Challenges) {
  ASSERT_TRUE(Register(id_));
  const std::string bare = peer_.Receive();
  EXPECT_EQ(Header(bare, "Authorization"), "");
  peer_.Answer(bare, 401, Challenge("n1"));
  const std::string first = peer_.Receive();
  EXPECT_TRUE(Header(first, "Authorization").starts_with("Digest username=\"alice\"")) << first;
  EXPECT_GT(CSeq(first), CSeq(bare));
  // Other devices stand in the list too, one even at our address.
  const std::string own = Header(first, "Contact");
  peer_.Answer(first, 200,
               "Contact: <sip:alice@192.0.2.1>;expires=1\r\nContact: <sip:alice@" +
                   peer_.address() + ">;expires=2, " + own + "\r\n");
  EXPECT_EQ(handler_.Next(), Reported(26, " 200 " + own));

  // Under an associated URI: same Contact, Call-ID and account; authorised in advance.
  EXPECT_EQ(SetInfo(id_, "sip:+4930@example.com", registrar_), id_);
  ASSERT_TRUE(Register(id_));
  const std::string refresh = peer_.Receive();
  EXPECT_TRUE(Has(Header(refresh, "Authorization"), "nc=00000002")) << refresh;
  EXPECT_TRUE(Has(Header(refresh, "To"), "sip:+4930@example.com")) << refresh;
  EXPECT_EQ(Header(refresh, "Contact"), own);
  EXPECT_EQ(Header(refresh, "Call-ID"), Header(first, "Call-ID"));
  EXPECT_GT(CSeq(refresh), CSeq(first));
  peer_.Answer(refresh, 401, Challenge("n2", ",stale=true"));
  const std::string again = peer_.Receive();
  EXPECT_TRUE(Has(Header(again, "Authorization"), "nonce=\"n2\"")) << again;
  peer_.Answer(again, 401, Challenge("n3"));  // the password has changed
  EXPECT_EQ(handler_.Next(), Reported(26, " 401"));

  // A server that asks for a new realm each time does not keep us sending.
  ASSERT_TRUE(Register(id_));
  int sent = 0;
  for (std::string request; sent < 10 && !(request = peer_.Receive(200ms)).empty(); ++sent) {
    peer_.Answer(request, 401,
                 "WWW-Authenticate: Digest realm=" + std::to_string(sent) + ",nonce=n\r\n");
  }
  EXPECT_EQ(sent, 4);
  EXPECT_EQ(handler_.Next(), Reported(26, " 401"));
}

TEST_F(SivraTest, NoAnswerUnsentAndStop) {
  sipcarrier::Stop(0s);
  config_.t1 = 5ms;
  StartStack();
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
  sipcarrier::Stop(0s);
  EXPECT_EQ(sivra::EntryCount(), 1U);
  EXPECT_FALSE(Send(id_, std::move(late)));
  EXPECT_FALSE(Build(id_));
  // The entry is not stuck: it goes on with the next run of the stack, its numbers rising.
  while (!peer_.Receive(0ms).empty()) {
  }
  config_.t1 = 2s;
  StartStack();
  ASSERT_TRUE(Register(id_));
  const std::string request = peer_.Receive();
  EXPECT_GT(CSeq(request), 2);
  peer_.Answer(request, 200);
  std::string event = handler_.Next();  // some may be left of the run before
  while (event == Reported(74) || event == Reported(78)) event = handler_.Next();
  EXPECT_EQ(event, Reported(26, " 200"));
}

}  // namespace
