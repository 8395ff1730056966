// Entries through the real stack, against a peer on loopback that answers as each test tells it.
#include "sivra/sivra.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "nsip/nsip.h"
#include "Sipcarrier/Sipcarrier.h"

namespace {

using namespace std::chrono_literals;
using MessagePtr = std::unique_ptr<nsip_message>;

constexpr const char* kAor = "Alice<sip:alice@example.com>";

class Peer {
 public:
  Peer() : socket_(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    EXPECT_EQ(::bind(socket_, reinterpret_cast<sockaddr*>(&address), size), 0);
    ::getsockname(socket_, reinterpret_cast<sockaddr*>(&address), &size);
    uri_ = "sip:user@127.0.0.1:" + std::to_string(ntohs(address.sin_port));
  }
  Peer(const Peer&) = delete;
  Peer& operator=(const Peer&) = delete;
  ~Peer() { ::close(socket_); }

  [[nodiscard]] const std::string& uri() const { return uri_; }
  [[nodiscard]] int port() const { return ntohs(from_.sin_port); }  // of the last request's sender

  // The next request, or null when none comes.
  MessagePtr Receive(std::chrono::milliseconds wait = 5s) {
    pollfd ready{socket_, POLLIN, 0};
    if (::poll(&ready, 1, static_cast<int>(wait.count())) != 1) return nullptr;
    std::array<char, 8192> buffer{};
    socklen_t size = sizeof from_;
    const ssize_t length = ::recvfrom(socket_, buffer.data(), buffer.size(), 0,
                                      reinterpret_cast<sockaddr*>(&from_), &size);
    std::string reason;
    MessagePtr message =
        nsip_message_parse({buffer.data(), static_cast<std::size_t>(length)}, reason);
    EXPECT_TRUE(message) << reason;
    return message;
  }

  // Header lines end with \r\n.
  void Answer(const MessagePtr& request, int status, const std::string& headers = "") {
    ASSERT_TRUE(request);
    MessagePtr answer = nsip_message_clone(*request);
    answer->status_code = status;
    answer->reason_phrase = "x";
    answer->contacts.clear();
    answer->headers.items.clear();
    std::string text;
    ASSERT_EQ(nsip_message_to_str(*answer, text), 0);
    text.insert(text.find("\r\n") + 2, headers);
    ::sendto(socket_, text.data(), text.size(), 0, reinterpret_cast<sockaddr*>(&from_),
             sizeof from_);
  }

 private:
  int socket_;
  sockaddr_in from_{};
  std::string uri_;
};

struct Event {
  int id = 0;
  int status = 0;
  long entry = 0;
  std::string first_contact;
};

class Handler : public ISipStackEvent {
 public:
  int OnStackEvent(SipStackEvent* event) override {
    Event seen{event->nEventId, 0, event->nStackId, ""};
    if (event->pMessage != nullptr) {
      seen.status = event->pMessage->status_code;
      if (!event->pMessage->contacts.empty()) {
        seen.first_contact = nsip_from_text(*event->pMessage->contacts.front());
      }
    }
    const std::lock_guard lock(mutex_);
    events_.push_back(seen);
    changed_.notify_all();
    return 0;
  }
  std::string GetServiceName() override { return "test"; }

  // id 0: none came.
  Event Next(std::chrono::milliseconds wait = 5s) {
    std::unique_lock lock(mutex_);
    if (!changed_.wait_for(lock, wait, [this] { return !events_.empty(); })) return {};
    const Event event = events_.front();
    events_.pop_front();
    return event;
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::deque<Event> events_;
};

class SivraTest : public ::testing::Test {
 protected:
  void SetUp() override {
    config_.local_address = "127.0.0.1";
    config_.credentials = {{"sip:alice@example.com", "", "alice", "secret"}};
    StartStack();
  }
  void TearDown() override {
    sipcarrier::Stop(2s);
    for (const long id : ids_) Release(id);
    EXPECT_EQ(sivra::EntryCount(), 0U);
  }
  void StartStack() {
    std::string error;
    ASSERT_EQ(sipcarrier::Start(config_, error), 0) << error;
    ASSERT_EQ(Sipcarrier_RegisterHandler(&handler_), 0);
  }

  long SetInfo(long id, const std::string& aor, const std::string& registrar) {
    sivra_lock();
    const long result = sivra_register_set_info(id, aor, aor, registrar);
    sivra_unlock();
    if (id == 0 && result > 0) ids_.push_back(result);
    return result;
  }
  static MessagePtr Build(long id, int expires = 60) {
    nsip_message* message = nullptr;
    sivra_lock();
    const int result = sivra_register_build_register(&message, id, expires);
    sivra_unlock();
    EXPECT_EQ(result == 0, message != nullptr);
    return MessagePtr(message);
  }
  static int Send(long id, MessagePtr message) {
    sivra_lock();
    const int result = sivra_register_send_register(id, message.release());
    sivra_unlock();
    return result;
  }
  static int Register(long id, int expires = 60) { return Send(id, Build(id, expires)); }
  static void Release(long id) {
    sivra_lock();
    sivra_register_release(id);
    sivra_unlock();
  }
  // A parameter of the request's Authorization header; empty when there is none.
  static std::string Auth(const MessagePtr& request, const char* name) {
    nsip_header* header = nullptr;
    std::string scheme;
    nsip_param_list params;
    const nsip_generic_param* param = nullptr;
    if (!request || nsip_message_header_get_byname(request.get(), "Authorization", 0, &header) < 0)
      return "";
    EXPECT_TRUE(nsip_auth_params_parse(header->hvalue, scheme, params));
    return nsip_generic_param_get_byname(params, name, &param) == 0 ? param->value : "";
  }
  static std::string Challenge(const std::string& nonce, const std::string& more = "") {
    return "WWW-Authenticate: Digest realm=\"r\",qop=\"auth\",nonce=\"" + nonce + "\"" + more +
           "\r\n";
  }
  static std::string ContactOf(const MessagePtr& request) {
    return request && request->contacts.size() == 1 ? nsip_from_text(*request->contacts[0]) : "";
  }

  sipcarrier::Config config_;
  Handler handler_;
  Peer peer_;
  std::vector<long> ids_;
};

TEST_F(SivraTest, TheRequest) {
  const long id = SetInfo(0, kAor, peer_.uri() + ";x=1?h=1");
  ASSERT_EQ(id, 1);
  MessagePtr built = Build(id);
  ASSERT_TRUE(built);
  EXPECT_EQ(nsip_message_set_header(built.get(), "User-Agent", "kept"), 0);
  const std::string built_contact = ContactOf(built);
  const std::string built_from = nsip_from_text(*built->from);
  EXPECT_EQ(Send(id, std::move(built)), 0);
  const MessagePtr request = peer_.Receive();
  ASSERT_TRUE(request);
  EXPECT_EQ(nsip_uri_text(*request->req_uri),
            "sip:" + peer_.uri().substr(peer_.uri().find('@') + 1) + ";x=1");
  EXPECT_EQ(nsip_from_text(*request->to).substr(0, 5), "Alice");
  EXPECT_EQ(nsip_uri_text(*request->to->url), "sip:alice@example.com");
  EXPECT_TRUE(request->to->params.empty());
  EXPECT_EQ(nsip_from_text(*request->from), built_from);
  ASSERT_EQ(request->from->params.size(), 1U);
  EXPECT_EQ(request->from->params[0].name, "tag");
  EXPECT_EQ(ContactOf(request),
            "<sip:alice@127.0.0.1:" + std::to_string(peer_.port()) + ";line=1>;expires=60");
  EXPECT_EQ(ContactOf(request), built_contact);
  EXPECT_EQ(request->cseq_number, 1U);
  EXPECT_EQ(request->max_forwards, 70);
  nsip_header* header = nullptr;
  EXPECT_EQ(nsip_message_header_get_byname(request.get(), "Expires", 0, &header), -1);
  EXPECT_GE(nsip_message_header_get_byname(request.get(), "User-Agent", 0, &header), 0);
  peer_.Answer(request, 100);
  peer_.Answer(request, 423, "Min-Expires: 90\r\n");
  const Event event = handler_.Next();
  EXPECT_EQ(event.id, SIP_EVENT_REGISTER_RESPONSE);
  EXPECT_EQ(event.status, 423);
  EXPECT_EQ(event.entry, id);

  // A second binding of the same address of record is one of its own.
  const long other = SetInfo(0, "sip:alice@example.com;user=phone", peer_.uri());
  EXPECT_EQ(other, 2);
  const MessagePtr second = Build(other);
  ASSERT_TRUE(second);
  EXPECT_NE(second->call_id, request->call_id);
  EXPECT_FALSE(nsip_uri_equal(*second->contacts[0]->url, *request->contacts[0]->url));
  EXPECT_EQ(nsip_uri_text(*second->to->url), "sip:alice@example.com;user=phone");
}

TEST_F(SivraTest, Refusals) {
  for (const char* text : {"", "alice", "Alice<", "sip:", "xsip:alice", "sip:sips:alice"}) {
    EXPECT_EQ(SetInfo(0, text, peer_.uri()), -1) << text;
    EXPECT_EQ(SetInfo(0, kAor, text), -1) << text;
  }
  EXPECT_EQ(SetInfo(7, kAor, peer_.uri()), -1);
  const long id = SetInfo(0, kAor, peer_.uri());
  EXPECT_EQ(SetInfo(id, "alice", peer_.uri()), -1);
  EXPECT_FALSE(Build(id, -1));
  EXPECT_FALSE(Build(id + 1));
  EXPECT_NE(Send(id + 1, Build(id)), 0);
  EXPECT_NE(Send(id, nullptr), 0);
  MessagePtr late = Build(id);
  Release(id);
  EXPECT_EQ(sivra::EntryCount(), 0U);
  EXPECT_NE(Send(id, std::move(late)), 0);
}

TEST_F(SivraTest, OneInFlightOneWaitsAndTheNewestLeaves) {
  const long id = SetInfo(0, kAor, peer_.uri());
  ASSERT_EQ(Register(id, 60), 0);
  MessagePtr removal =
      Build(id, 0);  // built before the newer ones: its number counts when it leaves
  const MessagePtr first = peer_.Receive();
  ASSERT_EQ(Register(id, 61), 0);
  ASSERT_EQ(Register(id, 62), 0);
  EXPECT_FALSE(peer_.Receive(100ms));
  peer_.Answer(first, 200);
  EXPECT_EQ(handler_.Next().status, 200);
  const MessagePtr second = peer_.Receive();
  EXPECT_NE(ContactOf(second).find("expires=62"), std::string::npos);
  EXPECT_GT(second->cseq_number, first->cseq_number);

  // Released with one in flight and one waiting: both finish, challenge included, and nothing is
  // reported.
  ASSERT_EQ(Send(id, std::move(removal)), 0);
  Release(id);
  EXPECT_FALSE(Build(id));
  EXPECT_EQ(sivra::EntryCount(), 1U);
  peer_.Answer(second, 200);
  const MessagePtr third = peer_.Receive();
  EXPECT_EQ(ContactOf(third).substr(ContactOf(third).find('>')), ">;expires=0");
  nsip_header* expires = nullptr;
  ASSERT_GE(nsip_message_header_get_byname(third.get(), "Expires", 0, &expires), 0);
  EXPECT_EQ(expires->hvalue, "0");
  EXPECT_GT(third->cseq_number, second->cseq_number);
  EXPECT_EQ(third->call_id, first->call_id);
  peer_.Answer(third, 401, Challenge("n1"));
  const MessagePtr fourth = peer_.Receive();
  EXPECT_EQ(Auth(fourth, "nonce"), "n1");
  EXPECT_EQ(ContactOf(fourth), ContactOf(third));
  peer_.Answer(fourth, 200);
  EXPECT_EQ(handler_.Next(200ms).id, 0);
  EXPECT_EQ(sivra::EntryCount(), 0U);
}

TEST_F(SivraTest, Challenges) {
  const long id = SetInfo(0, kAor, peer_.uri());
  ASSERT_EQ(Register(id), 0);
  MessagePtr request = peer_.Receive();
  EXPECT_EQ(Auth(request, "nonce"), "");
  std::uint32_t cseq = request->cseq_number;
  peer_.Answer(request, 401, Challenge("n1"));
  request = peer_.Receive();
  EXPECT_EQ(Auth(request, "username") + Auth(request, "nonce") + Auth(request, "nc"),
            "alicen100000001");
  EXPECT_GT(request->cseq_number, cseq);
  cseq = request->cseq_number;
  // Other devices stand in the list too, one even at our address.
  const std::string own = ContactOf(request);
  peer_.Answer(request, 200,
               "Contact: <sip:alice@192.0.2.1>;expires=1\r\nContact: <sip:alice@127.0.0.1:" +
                   std::to_string(peer_.port()) + ";line=99>;expires=2\r\nContact: " + own +
                   "\r\n");
  EXPECT_EQ(handler_.Next().first_contact, own);

  // Under an associated URI: same Contact, Call-ID and account; authorised in advance.
  EXPECT_EQ(SetInfo(id, "sip:+4930@example.com", peer_.uri()), id);
  ASSERT_EQ(Register(id), 0);
  const MessagePtr refresh = peer_.Receive();
  EXPECT_EQ(Auth(refresh, "nc"), "00000002");
  EXPECT_EQ(nsip_uri_text(*refresh->to->url), "sip:+4930@example.com");
  EXPECT_EQ(ContactOf(refresh), own);
  EXPECT_EQ(refresh->call_id, request->call_id);
  EXPECT_GT(refresh->cseq_number, cseq);
  peer_.Answer(refresh, 401, Challenge("n2", ",stale=true"));
  request = peer_.Receive();
  EXPECT_EQ(Auth(request, "username") + Auth(request, "nonce"), "alicen2");
  peer_.Answer(request, 401, Challenge("n3"));  // the password has changed
  EXPECT_EQ(handler_.Next().status, 401);
  EXPECT_FALSE(peer_.Receive(100ms));

  // A server that asks for a new realm each time does not keep us sending.
  ASSERT_EQ(Register(id), 0);
  int sent = 0;
  for (; (request = peer_.Receive(300ms)) != nullptr && sent < 10; ++sent) {
    peer_.Answer(request, 401,
                 "WWW-Authenticate: Digest realm=" + std::to_string(sent) + ",nonce=n\r\n");
  }
  EXPECT_EQ(sent, 4);
  EXPECT_EQ(handler_.Next().status, 401);

  // Nobody's account: the challenge is the final answer.
  const long stranger = SetInfo(0, "sip:bob@example.com", peer_.uri());
  ASSERT_EQ(Register(stranger), 0);
  peer_.Answer(peer_.Receive(), 401, Challenge("n1"));
  EXPECT_EQ(handler_.Next().entry, stranger);
}

TEST_F(SivraTest, NoAnswerAndUnsent) {
  sipcarrier::Stop(0s);
  config_.t1 = 5ms;
  StartStack();
  const long silent = SetInfo(0, kAor, peer_.uri());
  ASSERT_EQ(Register(silent), 0);
  const Event timeout = handler_.Next();
  EXPECT_EQ(timeout.id, SIP_EVENT_REGISTER_TIMEOUT);
  EXPECT_EQ(timeout.entry, silent);
  const long unsent = SetInfo(0, kAor, "sip:127.0.0.1;transport=carrier-pigeon");
  ASSERT_EQ(Register(unsent), 0);
  const Event failed = handler_.Next();
  EXPECT_EQ(failed.id, SIP_EVENT_REGISTER_UNSENT);
  EXPECT_EQ(failed.entry, unsent);
  // Neither entry is stuck.
  while (peer_.Receive(50ms)) {
  }
  ASSERT_EQ(Register(silent), 0);
  peer_.Answer(peer_.Receive(), 200);
  EXPECT_EQ(handler_.Next().status, 200);
}

TEST_F(SivraTest, StopEndsWhatIsPending) {
  const long id = SetInfo(0, kAor, peer_.uri());
  const long released = SetInfo(0, kAor, peer_.uri());
  for (const long entry : {id, released}) {
    ASSERT_EQ(Register(entry), 0);
    ASSERT_EQ(Register(entry, 0), 0);
  }
  Release(released);
  MessagePtr late = Build(id);
  sipcarrier::Stop(50ms);
  EXPECT_EQ(sivra::EntryCount(), 1U);
  EXPECT_NE(Send(id, std::move(late)), 0);
  EXPECT_FALSE(Build(id));
  // The same entry goes on with the next run of the stack, its numbers rising.
  while (peer_.Receive(0ms)) {
  }
  StartStack();
  ASSERT_EQ(Register(id), 0);
  const MessagePtr request = peer_.Receive();
  ASSERT_TRUE(request);
  EXPECT_GT(request->cseq_number, 1U);
  peer_.Answer(request, 200);
  while (handler_.Next().status != 200) {
  }
}

// Bounded: threads send, change and release their entries while a registrar answers what it likes.
TEST_F(SivraTest, ManyThreads) {
  constexpr int kThreads = 3;
  constexpr int kRounds = 150;
  std::jthread registrar([this](const std::stop_token& stop) {
    for (int n = 0; !stop.stop_requested(); ++n) {
      if (const MessagePtr request = peer_.Receive(20ms)) {
        peer_.Answer(request, n % 3 == 0 ? 401 : 200, Challenge(std::to_string(n)));
      }
    }
  });
  std::vector<std::jthread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([this] {
      for (int round = 0; round < kRounds; ++round) {
        sivra_lock();
        const long id = sivra_register_set_info(0, kAor, kAor, peer_.uri());
        sivra_unlock();
        for (int expires = 3; expires >= 0; --expires) EXPECT_EQ(Register(id, expires), 0);
        Release(id);
      }
    });
  }
  threads.clear();
  const auto deadline = std::chrono::steady_clock::now() + 30s;
  while (sivra::EntryCount() != 0 && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(10ms);
  }
  EXPECT_EQ(sivra::EntryCount(), 0U);
}

}  // namespace
