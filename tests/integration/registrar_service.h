// A loopback registrar, and a client of it that writes its datagrams by hand.
#pragma once

#include "registrar/registrar.h"

#include "sipcarrier_peer.h"

namespace registrar_test {

using registrar::Options;
using sip_test::Peer;
using namespace std::chrono_literals;

using Parts = std::vector<std::string>;

inline constexpr char kAor[] = "sip:alice@example.com";
inline const std::string kPhone = "Contact: <sip:alice@127.0.0.1:7001>\r\n";

inline bool Has(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }

inline void ExpectParts(const std::string& text, const Parts& parts) {
  for (const std::string& part : parts) {
    EXPECT_NE(Has(text, part.substr(part[0] == '!')), part[0] == '!') << part << "\n" << text;
  }
}

// A registrar, and a client of it.
struct Service {
  explicit Service(Options options = {}) : registrar(std::move(options)), client(AF_INET, Start()) {}
  int Start() {
    std::string error;
    EXPECT_TRUE(registrar.Start(error)) << error;
    return registrar.port();
  }
  // A request of alice; `rest` holds Contact and further header lines.
  std::string Request(int cseq, const std::string& rest, const std::string& rport = ";rport",
                      const std::string& method = "REGISTER", const std::string& uri = "sip:example.com",
                      const std::string& to_tag = "") {
    return method + " " + uri + " SIP/2.0\r\nVia: SIP/2.0/UDP 127.0.0.1:" + std::to_string(client.port()) +
           ";branch=z9hG4bK" + std::to_string(++branch) + rport + "\r\nFrom: <" + kAor + ">;tag=f\r\nTo: <" + kAor +
           ">" + to_tag + "\r\nCall-ID: " + call_id + "\r\nCSeq: " + std::to_string(cseq) + " " + method + "\r\n" +
           rest + "\r\n";
  }
  // Sends it; the response must have the status and the parts, but none behind a "!".
  std::string Ask(const std::string& request, int status, const Parts& parts = {}) {
    client.Send(request);
    const std::string response = client.Receive();
    EXPECT_TRUE(response.starts_with("SIP/2.0 " + std::to_string(status))) << request << response;
    ExpectParts(response, parts);
    return response;
  }
  std::string Register(int cseq, const std::string& rest, int status, const Parts& parts = {}) {
    return Ask(Request(cseq, rest), status, parts);
  }

  registrar::Registrar registrar;
  Peer client;
  std::string call_id = "one";
  int branch = 0;
};

}  // namespace registrar_test
