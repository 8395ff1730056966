// The loopback registrar against a client that writes its datagrams by hand.
#include "registrar/registrar.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <openssl/evp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace {

using std::chrono::milliseconds;

constexpr char kAor[] = "sip:alice@example.com";

// A UDP client that is bound to 127.0.0.1 or ::1 and talks to one port there.
class Client {
 public:
  explicit Client(std::uint16_t port, bool v6 = false) : v6_(v6) {
    fd_ = socket(v6 ? AF_INET6 : AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_storage address{};
    const socklen_t size = Fill(address, 0);
    socklen_t length = sizeof address;
    bound_ = bind(fd_, reinterpret_cast<sockaddr*>(&address), size) == 0 &&
             getsockname(fd_, reinterpret_cast<sockaddr*>(&address), &length) == 0;
    sockaddr_in in{};
    std::memcpy(&in, &address, sizeof in);
    port_ = ntohs(in.sin_port);
    target_size_ = Fill(target_, port);
  }
  ~Client() { close(fd_); }
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;

  [[nodiscard]] bool bound() const { return bound_; }
  [[nodiscard]] std::string host() const { return v6_ ? "[::1]" : "127.0.0.1"; }
  [[nodiscard]] std::uint16_t port() const { return port_; }

  void Send(const std::string& text) const {
    ASSERT_EQ(sendto(fd_, text.data(), text.size(), 0, reinterpret_cast<const sockaddr*>(&target_),
                     target_size_),
              static_cast<ssize_t>(text.size()));
  }
  // Empty: nothing came in time.
  [[nodiscard]] std::string Receive(milliseconds limit = milliseconds(5000)) const {
    pollfd fd{fd_, POLLIN, 0};
    if (poll(&fd, 1, static_cast<int>(limit.count())) != 1) return {};
    std::string text(65535, '\0');
    const ssize_t size = recv(fd_, text.data(), text.size(), 0);
    text.resize(size < 0 ? 0 : static_cast<std::size_t>(size));
    return text;
  }
  [[nodiscard]] std::string Ask(const std::string& text) const {
    Send(text);
    return Receive();
  }

 private:
  socklen_t Fill(sockaddr_storage& address, std::uint16_t port) const {
    if (v6_) {
      sockaddr_in6 in{};
      in.sin6_family = AF_INET6;
      in.sin6_addr = in6addr_loopback;
      in.sin6_port = htons(port);
      std::memcpy(&address, &in, sizeof in);
      return sizeof in;
    }
    sockaddr_in in{};
    in.sin_family = AF_INET;
    in.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    in.sin_port = htons(port);
    std::memcpy(&address, &in, sizeof in);
    return sizeof in;
  }

  bool v6_;
  int fd_ = -1;
  bool bound_ = false;
  std::uint16_t port_ = 0;
  sockaddr_storage target_{};
  socklen_t target_size_ = 0;
};

// A REGISTER of alice; `rest` holds Contact and further header lines.
std::string Request(const Client& client, int cseq, const std::string& rest,
                    const std::string& call_id = "one", const std::string& via_params = ";rport") {
  static int branch = 0;
  const std::string place = client.host() + ":" + std::to_string(client.port());
  return "REGISTER sip:example.com SIP/2.0\r\nVia: SIP/2.0/UDP " + place + ";branch=z9hG4bK" +
         std::to_string(++branch) + via_params + "\r\nMax-Forwards: 70\r\nFrom: <" + kAor +
         ">;tag=f\r\nTo: <" + kAor + ">\r\nCall-ID: " + call_id +
         "\r\nCSeq: " + std::to_string(cseq) + " REGISTER\r\n" + rest + "Content-Length: 0\r\n\r\n";
}

int Status(const std::string& answer) {
  return answer.starts_with("SIP/2.0 ") ? std::atoi(answer.c_str() + 8) : 0;
}

bool Has(const std::string& answer, const std::string& text) {
  return answer.find(text) != std::string::npos;
}

struct Service {
  explicit Service(registrar::Options options = {}) : registrar(std::move(options)) {
    std::string error;
    EXPECT_TRUE(registrar.Start(error)) << error;
  }
  registrar::Registrar registrar;
};

TEST(RegistrarTest, BindingsFollowTheOrderOfRequests) {
  registrar::Options options;
  options.max_expires = 100;
  options.p_associated_uri = {"<sip:alice@example.com>", "<tel:+1555>"};
  Service service(options);
  const Client client(service.registrar.port());
  const std::string phone = "Contact: <sip:alice@127.0.0.1:7001>;expires=60;q=0.5\r\n";
  const std::string desk = "Contact: \"Desk\" <sip:alice@127.0.0.1:7002>\r\nExpires: 900\r\n";

  std::string answer = client.Ask(Request(client, 5, phone));
  EXPECT_EQ(Status(answer), 200) << answer;
  EXPECT_TRUE(Has(answer, "<sip:alice@127.0.0.1:7001>;q=0.5;expires=60")) << answer;
  EXPECT_TRUE(Has(answer, "P-Associated-URI: <tel:+1555>\r\n")) << answer;
  answer = client.Ask(Request(client, 1, desk, "two"));
  EXPECT_TRUE(Has(answer, ":7001>") && Has(answer, ":7002>;expires=100")) << answer;

  // The same Call-ID with a CSeq that does not rise changes nothing, not even beside a good
  // Contact.
  for (const int cseq : {5, 4}) {
    EXPECT_EQ(Status(client.Ask(Request(client, cseq,
                                        "Contact: <sip:alice@127.0.0.1:7003>;expires=60\r\n"
                                        "Contact: <sip:alice@127.0.0.1:7001>;expires=0\r\n"))),
              500);
  }
  EXPECT_EQ(Status(client.Ask(Request(client, 5, "Contact: *\r\nExpires: 0\r\n"))), 500);
  EXPECT_EQ(Status(client.Ask(Request(client, 6, "Contact: *\r\n"))), 400);
  EXPECT_EQ(service.registrar.Bindings("sip:%61lice@EXAMPLE.com;x=y").size(), 2U);

  // A query lists and changes nothing; removal takes the one binding, the star takes what is left.
  EXPECT_TRUE(Has(client.Ask(Request(client, 6, "")), ":7002>"));
  answer = client.Ask(Request(client, 6, "Contact: <sip:alice@127.0.0.1:7001>;expires=0\r\n"));
  EXPECT_TRUE(Status(answer) == 200 && !Has(answer, ":7001>") && Has(answer, ":7002>")) << answer;
  answer = client.Ask(Request(client, 7, "Contact: *\r\nExpires: 0\r\n"));
  EXPECT_TRUE(Status(answer) == 200 && !Has(answer, "Contact")) << answer;
  EXPECT_TRUE(service.registrar.Bindings().empty());
}

TEST(RegistrarTest, ShortWishesGet423AndBindingsExpire) {
  registrar::Options options;
  options.min_expires = 2;
  Service service(options);
  const Client client(service.registrar.port());
  const std::string contact = "Contact: <sip:alice@127.0.0.1:7001>";
  std::string answer = client.Ask(Request(client, 1, contact + ";expires=1\r\n"));
  EXPECT_TRUE(Status(answer) == 423 && Has(answer, "Min-Expires: 2\r\n")) << answer;
  EXPECT_TRUE(service.registrar.Bindings().empty());
  EXPECT_EQ(Status(client.Ask(Request(client, 2, contact + ";expires=0\r\n"))), 200);
  EXPECT_EQ(Status(client.Ask(Request(client, 3, contact + ";expires=2\r\n"))), 200);
  ASSERT_EQ(service.registrar.Bindings(kAor).size(), 1U);
  EXPECT_EQ(service.registrar.Bindings(kAor).front().expires, 2);
  std::this_thread::sleep_for(milliseconds(2100));
  EXPECT_TRUE(service.registrar.Bindings(kAor).empty());
  EXPECT_FALSE(Has(client.Ask(Request(client, 4, "")), "Contact"));
}

TEST(RegistrarTest, RetransmissionsGetTheSameAnswer) {
  Service service;
  const Client client(service.registrar.port());
  const std::string contact = "Contact: <sip:alice@127.0.0.1:7001>\r\n";
  const std::string request = Request(client, 1, contact);
  const std::string answer = client.Ask(request);
  EXPECT_EQ(Status(answer), 200);
  EXPECT_EQ(client.Ask(request), answer);  // the To tag included

  // While the answer waits a retransmission gets nothing; then both copies come, then what was
  // asked for.
  registrar::Script slow;
  slow.delay = milliseconds(300);
  slow.copies = 2;
  service.registrar.Add(slow);
  const std::string second = Request(client, 2, contact);
  const auto begin = std::chrono::steady_clock::now();
  client.Send(second);
  client.Send(second);
  const std::string late = client.Receive();
  EXPECT_GE(std::chrono::steady_clock::now() - begin, milliseconds(290));
  EXPECT_EQ(Status(late), 200);
  EXPECT_EQ(client.Receive(), late);
  EXPECT_EQ(client.Receive(milliseconds(150)), "");

  registrar::Script lost;
  lost.drop = true;
  service.registrar.Add(lost);
  const std::string third = Request(client, 3, contact);
  client.Send(third);
  client.Send(third);
  EXPECT_EQ(client.Receive(milliseconds(150)), "");
  EXPECT_EQ(service.registrar.Bindings().front().cseq, 2U);

  registrar::Script odd;
  odd.aor = kAor;
  odd.status = 503;
  odd.headers = {{"Retry-After", "7"}, {"Contact", "not a contact"}};
  service.registrar.Add(odd);
  const std::string refused = client.Ask(Request(client, 4, contact));
  EXPECT_TRUE(Status(refused) == 503 &&
              Has(refused, "Retry-After: 7\r\nContact: not a contact\r\n"))
      << refused;
  const registrar::Counters counters = service.registrar.GetCounters();
  EXPECT_EQ(counters.requests, 4U);
  EXPECT_EQ(counters.retransmissions, 3U);
}

TEST(RegistrarTest, AnswersGoWhereTheViaSays) {
  for (const bool v6 : {false, true}) {
    if (v6 && !Client(1, v6).bound()) continue;  // a machine without IPv6
    registrar::Options options;
    if (v6) options.address = "::1";
    Service service(options);
    const Client client(service.registrar.port(), v6);
    const std::string address = v6 ? "::1" : "127.0.0.1";
    std::string answer = client.Ask(Request(client, 1, ""));
    EXPECT_TRUE(Has(answer, "received=" + address) &&
                Has(answer, "rport=" + std::to_string(client.port())))
        << answer;
    // Without rport the port of the Via counts, not the one that the request came from.
    const Client other(service.registrar.port(), v6);
    other.Send(Request(client, 2, "", "one", ""));
    answer = client.Receive();
    EXPECT_TRUE(Status(answer) == 200 && !Has(answer, "rport")) << answer;
  }
}

TEST(RegistrarTest, GarbageIsCountedAndStrangersAreTurnedAway) {
  Service service;
  const Client client(service.registrar.port());
  client.Send("\r\n\r\n");
  client.Send("REGISTER sip:example.com SIP/2.0\r\nVia: nonsense\r\n\r\n");
  client.Send("SIP/2.0 200 OK\r\n\r\n");
  client.Send("");
  std::string other = Request(client, 1, "");
  for (std::size_t at; (at = other.find("REGISTER")) != std::string::npos;) {
    other.replace(at, 8, "MESSAGE");
  }
  const std::string answer = client.Ask(other);
  EXPECT_TRUE(Status(answer) == 405 && Has(answer, "Allow: REGISTER")) << answer;
  EXPECT_EQ(Status(client.Ask(Request(client, 1, "Require: gruu\r\n"))), 420);
  EXPECT_EQ(service.registrar.GetCounters().garbage, 4U);
}

std::string Hash(const char* algorithm, const std::string& text) {
  unsigned char bytes[EVP_MAX_MD_SIZE];
  unsigned int size = 0;
  EVP_Digest(text.data(), text.size(), bytes, &size, EVP_get_digestbyname(algorithm), nullptr);
  std::string hex;
  for (unsigned int i = 0; i < size; ++i) {
    char pair[3];
    std::snprintf(pair, sizeof pair, "%02x", bytes[i]);
    hex += pair;
  }
  return hex;
}

// What a client would say to a challenge of the realm "r".
struct Login {
  std::string name = "MD5";  // as in the challenge
  const char* hash = "MD5";  // as OpenSSL calls it
  std::string password = "secret";
  std::string uri = "sip:example.com";
  std::string cnonce = "c1";
  std::string session_cnonce = "c1";
  std::string nc = "00000001";  // empty: the form of RFC 2069

  [[nodiscard]] std::string Header(const std::string& challenge) const {
    const std::size_t at = challenge.find("nonce=\"") + 7;
    const std::string nonce = challenge.substr(at, challenge.find('"', at) - at);
    std::string a1 = Hash(hash, "alice:r:" + password);
    if (name.ends_with("-sess")) a1 = Hash(hash, a1 + ":" + nonce + ":" + session_cnonce);
    const std::string a2 = Hash(hash, "REGISTER:" + uri);
    const std::string middle = nc.empty() ? "" : nc + ":" + cnonce + ":auth:";
    std::string text = "Authorization: Digest username=\"alice\", realm=\"r\", nonce=\"" + nonce +
                       "\", uri=\"" + uri + "\", algorithm=" + name +
                       ", opaque=\"5f1e\", response=\"" +
                       Hash(hash, a1 + ":" + nonce + ":" + middle + a2) + "\"";
    if (!nc.empty()) text += ", qop=auth, nc=" + nc + ", cnonce=\"" + cnonce + "\"";
    return text + "\r\n";
  }
};

registrar::Options Guarded(std::vector<std::string> algorithms) {
  registrar::Options options;
  options.users = {{"alice", "secret"}};
  options.realm = "r";
  options.algorithms = std::move(algorithms);
  return options;
}

constexpr char kContact[] = "Contact: <sip:alice@127.0.0.1:7001>\r\n";

TEST(RegistrarTest, DigestLetsInWhoKnowsThePassword) {
  const std::pair<const char*, const char*> algorithms[] = {
      {"MD5", "MD5"},      {"SHA-256", "SHA256"},      {"SHA-512-256", "SHA512-256"},
      {"MD5-sess", "MD5"}, {"SHA-256-sess", "SHA256"}, {"SHA-512-256-sess", "SHA512-256"}};
  for (const auto& [name, hash] : algorithms) {
    SCOPED_TRACE(name);
    Service service(Guarded({name}));
    const Client client(service.registrar.port());
    const std::string challenge = client.Ask(Request(client, 1, kContact));
    ASSERT_TRUE(Status(challenge) == 401 &&
                Has(challenge, std::string("algorithm=") + name + ", qop=\"auth\""))
        << challenge;
    Login login{name, hash};
    Login wrong = login;
    wrong.password = "guess";
    EXPECT_EQ(Status(client.Ask(Request(client, 2, kContact + wrong.Header(challenge)))), 401);
    EXPECT_TRUE(service.registrar.Bindings().empty());
    EXPECT_EQ(Status(client.Ask(Request(client, 3, kContact + login.Header(challenge)))), 200);
    // In advance, with a count that rises; the session key keeps the first cnonce.
    login.nc = "00000003";
    login.cnonce = "c2";
    EXPECT_EQ(Status(client.Ask(Request(client, 4, kContact + login.Header(challenge)))), 200);
    EXPECT_EQ(Status(client.Ask(Request(client, 5, kContact + login.Header(challenge)))), 401);
  }
}

TEST(RegistrarTest, DigestChecksUriNonceAndForm) {
  registrar::Options options = Guarded({"SHA-256", "MD5"});
  options.nonce_uses = 1;
  options.challenge_with_407 = false;
  Service service(options);
  const Client client(service.registrar.port());
  const std::string challenge = client.Ask(Request(client, 1, kContact));
  EXPECT_LT(challenge.find("SHA-256"), challenge.find("MD5"));
  Login elsewhere;
  elsewhere.uri = "sip:example.org";
  std::string answer = client.Ask(Request(client, 2, kContact + elsewhere.Header(challenge)));
  EXPECT_TRUE(Status(answer) == 401 && !Has(answer, "stale")) << answer;
  Login old_form;
  old_form.nc.clear();
  EXPECT_EQ(Status(client.Ask(Request(client, 3, kContact + old_form.Header(challenge)))), 401);

  Login login;
  EXPECT_EQ(Status(client.Ask(Request(client, 4, kContact + login.Header(challenge)))), 200);
  login.nc = "00000002";
  answer = client.Ask(Request(client, 5, kContact + login.Header(challenge)));
  EXPECT_TRUE(Status(answer) == 401 && Has(answer, "stale=true")) << answer;
  answer = client.Ask(Request(client, 6, kContact + Login{}.Header("nonce=\"made-up\"")));
  EXPECT_TRUE(Status(answer) == 401 && Has(answer, "stale=true")) << answer;

  registrar::Options bare = Guarded({"MD5"});
  bare.qop.clear();
  bare.challenge_with_407 = true;
  Service plain(bare);
  const Client guest(plain.registrar.port());
  const std::string proxy = guest.Ask(Request(guest, 1, kContact));
  EXPECT_TRUE(Status(proxy) == 407 && Has(proxy, "Proxy-Authenticate: ") && !Has(proxy, "qop"));
  EXPECT_EQ(Status(guest.Ask(
                Request(guest, 2, std::string(kContact) + "Proxy-" + old_form.Header(proxy)))),
            200);
}

TEST(RegistrarTest, ListensOnLoopbackOnlyAndComesBackOnItsPort) {
  std::string error;
  for (const char* address : {"0.0.0.0", "::", "192.0.2.1", "localhost", ""}) {
    registrar::Options options;
    options.address = address;
    registrar::Registrar far(options);
    EXPECT_FALSE(far.Start(error)) << address;
    EXPECT_TRUE(Has(error, "loopback")) << error;
  }
  Service service;
  registrar::Options same;
  same.port = service.registrar.port();
  registrar::Registrar second(same);
  EXPECT_FALSE(second.Start(error));
  EXPECT_TRUE(Has(error, "choose another port")) << error;

  const Client client(service.registrar.port());
  EXPECT_EQ(Status(client.Ask(Request(client, 1, kContact))), 200);
  service.registrar.Stop();
  ASSERT_TRUE(service.registrar.Start(error)) << error;
  EXPECT_TRUE(Has(client.Ask(Request(client, 2, "")), ":7001>"));
  registrar::Registrar odd(Guarded({"SHA-1"}));
  EXPECT_FALSE(odd.Start(error));
  EXPECT_TRUE(Has(error, "SHA-1")) << error;
}

}  // namespace
