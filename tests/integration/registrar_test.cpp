// The loopback registrar against a client that writes its datagrams by hand.
#include "registrar_service.h"

namespace {

using namespace registrar_test;

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
  // The same Call-ID with a CSeq that does not rise changes nothing, not even beside a good Contact.
  for (const int cseq : {5, 4}) service.Register(cseq, tablet + "60\r\n" + gone, 500);
  service.Register(5, star, 500);
  service.Register(6, "Contact: *\r\n", 400);
  EXPECT_EQ(service.registrar.Bindings("sip:%61lice@EXAMPLE.com;x=y").size(), 2U);
  // A query lists and changes nothing; removal takes the one binding, the star takes what is left.
  service.Register(6, "", 200, {":7001>", ":7002>", "!:7003>"});
  service.Register(6, gone, 200, {"!:7001>", ":7002>"});
  service.Register(7, star, 200, {"!Contact"});
  // A short expiry is refused; what is granted expires.
  service.Register(8, tablet + "1\r\n", 423, {"Min-Expires: 2\r\n"});
  service.Register(9, tablet + "2\r\n", 200, {":7003>;expires=2"});
  service.registrar.Advance(2s);
  service.Register(10, "", 200, {"!Contact"});
}

TEST(RegistrarTest, RetransmissionsAndScriptedResponses) {
  Service service;
  const std::string first = service.Request(1, kPhone);
  const std::string response = service.Ask(first, 200);
  EXPECT_EQ(service.Ask(first, 200), response);  // the To tag included

  // While the response is delayed a retransmission gets nothing; then both copies come.
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
  script = {.aor = kAor, .status = 503, .reason = "", .headers = {{"Retry-After", "7"}, {"Contact", "none"}}};
  service.registrar.Add(script);
  service.Register(4, kPhone, 503, {"Retry-After: 7\r\nContact: none\r\n"});
  const auto counters = service.registrar.GetCounters();
  EXPECT_TRUE(counters.requests == 4 && counters.retransmissions == 3);
}

TEST(RegistrarTest, ResponsesGoWhereTheViaSaysAndStrangersAreTurnedAway) {
  Service service;
  for (const char* text : {"\r\n\r\n", "REGISTER sip:a SIP/2.0\r\nVia: b\r\n\r\n", ""}) service.client.Send(text);
  service.Register(1, "", 200, {"rport=" + std::to_string(service.client.port())});
  EXPECT_EQ(service.registrar.GetCounters().garbage, 3U);
  // Without rport the port of the Via counts, not the one that the request came from.
  Peer(AF_INET, service.registrar.port()).Send(service.Request(2, "", ""));
  EXPECT_TRUE(service.client.Receive().starts_with("SIP/2.0 200"));
  service.Ask(service.Request(1, "", ";rport", "MESSAGE"), 405, {"Allow: REGISTER"});
  service.Register(1, "Require: gruu\r\n", 420);
}

TEST(RegistrarTest, ListensOnLoopbackOnlyAndComesBackOnItsPort) {
  Service service;
  const auto expect_refusal = [](const std::string& why, const char* address, std::uint16_t port, const char* hash) {
    Options options;
    options.address = address;
    options.port = port;
    options.users = {{"alice", "secret"}};
    options.algorithms = {hash};
    std::string error;
    EXPECT_FALSE(registrar::Registrar(options).Start(error)) << why;
    EXPECT_TRUE(Has(error, why)) << error;
  };
  for (const char* far : {"0.0.0.0", "::", "192.0.2.1", "localhost", ""}) expect_refusal("loopback", far, 0, "MD5");
  expect_refusal("SHA-1", "127.0.0.1", 0, "SHA-1");
  expect_refusal("another port", "127.0.0.1", service.registrar.port(), "MD5");
  service.Register(1, kPhone, 200);
  service.registrar.Stop();
  service.Start();
  service.Register(2, "", 200, {":7001>"});
}

}  // namespace
