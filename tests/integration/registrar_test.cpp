// The loopback registrar against a client that writes its datagrams by hand.
#include "registrar/registrar.h"

#include <openssl/evp.h>

#include "sipcarrier_peer.h"

namespace {

using registrar::Options;
using sip_test::Peer;
using namespace std::chrono_literals;

using Parts = std::vector<std::string>;

constexpr char kAor[] = "sip:alice@example.com";
const std::string kPhone = "Contact: <sip:alice@127.0.0.1:7001>\r\n";

bool Has(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

// A registrar, and a client of it.
struct Service {
  explicit Service(Options options = {})
      : registrar(std::move(options)), client(AF_INET, Start()) {}
  int Start() {
    std::string error;
    EXPECT_TRUE(registrar.Start(error)) << error;
    return registrar.port();
  }
  // A REGISTER of alice; `rest` holds Contact and further header lines.
  std::string Request(int cseq, const std::string& rest, const std::string& rport = ";rport") {
    return "REGISTER sip:example.com SIP/2.0\r\nVia: SIP/2.0/UDP 127.0.0.1:" +
           std::to_string(client.port()) + ";branch=z9hG4bK" + std::to_string(++branch) + rport +
           "\r\nFrom: <" + kAor + ">;tag=f\r\nTo: <" + kAor + ">\r\nCall-ID: " + call_id +
           "\r\nCSeq: " + std::to_string(cseq) + " REGISTER\r\n" + rest + "\r\n";
  }
  // Sends it; the answer must have the status and the parts, but none behind a "!".
  std::string Ask(const std::string& request, int status, const Parts& parts = {}) {
    client.Send(request);
    const std::string answer = client.Receive();
    EXPECT_TRUE(answer.starts_with("SIP/2.0 " + std::to_string(status))) << request << answer;
    for (const std::string& part : parts) {
      EXPECT_NE(Has(answer, part.substr(part[0] == '!')), part[0] == '!') << part << answer;
    }
    return answer;
  }
  std::string Register(int cseq, const std::string& rest, int status, const Parts& parts = {}) {
    return Ask(Request(cseq, rest), status, parts);
  }

  registrar::Registrar registrar;
  Peer client;
  std::string call_id = "one";
  int branch = 0;
};

TEST(RegistrarTest, BindingsFollowTheOrderOfRequestsAndExpire) {
  Options options;
  options.min_expires = 2;
  options.max_expires = 100;
  options.p_associated_uri = {"<sip:alice@example.com>", "<tel:+1555>"};
  Service service(options);
  const std::string gone = "Contact: <sip:alice@127.0.0.1:7001>;expires=0\r\n";
  const std::string tablet = "Contact: <sip:alice@127.0.0.1:7003>;expires=";
  const std::string star = "Contact: *\r\nExpires: 0\r\n";
  const std::string desk = "Contact: \"Desk\" <sip:alice@127.0.0.1:7002>\r\nExpires: 900\r\n";
  service.Register(5, kPhone, 200, {":7001>;expires=100", "P-Associated-URI: <tel:+1555>\r\n"});
  service.call_id = "two";
  service.Register(1, desk, 200, {":7001>", ":7002>;expires=100"});
  service.call_id = "one";
  // The same Call-ID with a CSeq that does not rise changes nothing, not even beside a good
  // Contact.
  for (const int cseq : {5, 4}) {
    service.Register(cseq, tablet + "60\r\n" + gone, 500);
  }
  service.Register(5, star, 500);
  service.Register(6, "Contact: *\r\n", 400);
  EXPECT_EQ(service.registrar.Bindings("sip:%61lice@EXAMPLE.com;x=y").size(), 2U);
  // A query lists and changes nothing; removal takes the one binding, the star takes what is left.
  service.Register(6, "", 200, {":7001>", ":7002>", "!:7003>"});
  service.Register(6, gone, 200, {"!:7001>", ":7002>"});
  service.Register(7, star, 200, {"!Contact"});
  // Short wishes are refused; what is granted ends.
  service.Register(8, tablet + "1\r\n", 423, {"Min-Expires: 2\r\n"});
  service.Register(9, tablet + "2\r\n", 200, {":7003>;expires=2"});
  std::this_thread::sleep_for(2100ms);
  service.Register(10, "", 200, {"!Contact"});
}

TEST(RegistrarTest, RetransmissionsAndScriptedAnswers) {
  Service service;
  const std::string first = service.Request(1, kPhone);
  const std::string answer = service.Ask(first, 200);
  EXPECT_EQ(service.Ask(first, 200), answer);  // the To tag included

  // While the answer waits a retransmission gets nothing; then both copies come.
  registrar::Script script;
  script.delay = 500ms;
  script.copies = 2;
  service.registrar.Add(script);
  const std::string second = service.Request(2, kPhone);
  const auto began = sip_test::Clock::now();
  service.client.Send(second);
  const std::string late = service.Ask(second, 200);
  EXPECT_GE(sip_test::Clock::now() - began, 490ms);
  EXPECT_EQ(service.client.Receive(), late);

  script = {};
  script.drop = true;
  service.registrar.Add(script);
  const std::string third = service.Request(3, kPhone);
  for (int i = 0; i < 2; ++i) service.client.Send(third);
  EXPECT_EQ(service.client.Receive(150ms), "");
  EXPECT_EQ(service.registrar.Bindings().front().cseq, 2U);

  script = {};
  script.aor = kAor;
  script.status = 503;
  script.headers = {{"Retry-After", "7"}, {"Contact", "none"}};
  service.registrar.Add(script);
  service.Register(4, kPhone, 503, {"Retry-After: 7\r\nContact: none\r\n"});
  EXPECT_EQ(service.registrar.GetCounters().requests, 4U);
  EXPECT_EQ(service.registrar.GetCounters().retransmissions, 3U);
}

TEST(RegistrarTest, AnswersGoWhereTheViaSaysAndStrangersAreTurnedAway) {
  Service service;
  for (const char* garbage : {"\r\n\r\n", "REGISTER sip:a SIP/2.0\r\nVia: b\r\n\r\n", ""}) {
    service.client.Send(garbage);
  }
  service.Register(1, "", 200, {"rport=" + std::to_string(service.client.port())});
  EXPECT_EQ(service.registrar.GetCounters().garbage, 3U);
  // Without rport the port of the Via counts, not the one that the request came from.
  Peer(AF_INET, service.registrar.port()).Send(service.Request(2, "", ""));
  EXPECT_TRUE(service.client.Receive().starts_with("SIP/2.0 200"));
  std::string other = service.Request(1, "");
  other.replace(other.rfind("REGISTER"), 8, "MESSAGE").replace(0, 8, "MESSAGE");
  service.Ask(other, 405, {"Allow: REGISTER"});
  service.Register(1, "Require: gruu\r\n", 420);
}

std::string Hash(const char* algorithm, const std::string& text) {
  unsigned char bytes[EVP_MAX_MD_SIZE];
  unsigned int size = 0;
  EVP_Digest(text.data(), text.size(), bytes, &size, EVP_get_digestbyname(algorithm), nullptr);
  std::string hex;
  for (unsigned int i = 0; i < 2 * size; ++i) {
    hex += "0123456789abcdef"[(bytes[i / 2] >> (i % 2 == 0 ? 4 : 0)) & 15];
  }
  return hex;
}

// What a client would say to a challenge of the realm "r".
struct Login {
  std::string name = "MD5";  // as in the challenge
  const char* hash = "MD5";  // as OpenSSL calls it
  std::string password = "secret";
  std::string uri = "sip:example.com";
  std::string nc = "00000001";  // empty: the form of RFC 2069

  [[nodiscard]] std::string Lines(const std::string& challenge) const {
    const std::size_t at = challenge.find("nonce=\"") + 7;
    const std::string nonce = challenge.substr(at, challenge.find('"', at) - at);
    std::string a1 = Hash(hash, "alice:r:" + password);
    if (name.ends_with("-sess")) a1 = Hash(hash, a1 + ":" + nonce + ":c1");
    a1 += ":" + nonce + ":" + (nc.empty() ? "" : nc + ":c1:auth:");
    return "Authorization: Digest username=\"alice\", realm=\"r\", nonce=\"" + nonce +
           "\", uri=\"" + uri + "\", opaque=\"5f1e\", algorithm=" + name + ", response=\"" +
           Hash(hash, a1 + Hash(hash, "REGISTER:" + uri)) + "\"" +
           (nc.empty() ? "" : ", qop=auth, cnonce=\"c1\", nc=" + nc) + "\r\n" + kPhone;
  }
};

Options Guarded(const std::vector<std::string>& algorithms) {
  Options options;
  options.users = {{"alice", "secret"}};
  options.realm = "r";
  options.algorithms = algorithms;
  return options;
}

TEST(RegistrarTest, DigestLetsInWhoKnowsThePassword) {
  const std::pair<std::string, const char*> algorithms[] = {
      {"MD5", "MD5"},      {"SHA-256", "SHA256"},      {"SHA-512-256", "SHA512-256"},
      {"MD5-sess", "MD5"}, {"SHA-256-sess", "SHA256"}, {"SHA-512-256-sess", "SHA512-256"}};
  for (const auto& [name, hash] : algorithms) {
    Service service(Guarded({name}));
    const std::string challenge = service.Register(1, kPhone, 401, {"algorithm=" + name + ","});
    Login login{.name = name, .hash = hash, .password = "guess"};
    service.Register(2, login.Lines(challenge), 401);
    EXPECT_TRUE(service.registrar.Bindings().empty());
    login.password = "secret";
    service.Register(3, login.Lines(challenge), 200);
    login.nc = "00000003";  // in advance, with a count that rises
    service.Register(4, login.Lines(challenge), 200);
    service.Register(5, login.Lines(challenge), 401);
  }
}

TEST(RegistrarTest, DigestChecksUriNonceAndForm) {
  Options options = Guarded({"SHA-256", "MD5"});
  options.nonce_uses = 1;
  Service service(options);
  const std::string challenge = service.Register(1, kPhone, 401);
  EXPECT_LT(challenge.find("SHA-256"), challenge.find("MD5"));
  service.Register(2, Login{.uri = "sip:example.org"}.Lines(challenge), 401, {"!stale"});
  service.Register(3, Login{.nc = ""}.Lines(challenge), 401);
  service.Register(4, Login{}.Lines(challenge), 200);
  service.Register(5, Login{.nc = "00000002"}.Lines(challenge), 401, {"stale=true"});
  service.Register(6, Login{}.Lines("nonce=\"made-up\""), 401, {"stale=true"});

  options = Guarded({"MD5"});
  options.qop.clear();
  options.challenge_with_407 = true;
  Service plain(options);
  const std::string proxy = plain.Register(1, kPhone, 407, {"Proxy-Authenticate: ", "!qop"});
  plain.Register(2, "Proxy-" + Login{.nc = ""}.Lines(proxy), 200);
}

TEST(RegistrarTest, ListensOnLoopbackOnlyAndComesBackOnItsPort) {
  const auto expect_refusal = [](const std::string& why, const Options& options) {
    std::string error;
    EXPECT_FALSE(registrar::Registrar(options).Start(error)) << why;
    EXPECT_TRUE(Has(error, why)) << error;
  };
  Options options;
  for (const char* far : {"0.0.0.0", "::", "192.0.2.1", "localhost", ""}) {
    options.address = far;
    expect_refusal("loopback", options);
  }
  expect_refusal("SHA-1", Guarded({"SHA-1"}));
  Service service;
  options = {};
  options.port = service.registrar.port();
  expect_refusal("another port", options);
  service.Register(1, kPhone, 200);
  service.registrar.Stop();
  service.Start();
  service.Register(2, "", 200, {":7001>"});
}

}  // namespace
