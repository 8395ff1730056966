// Digest: the arithmetic against published values, the choice of a challenge, and when to give up.
#include <gtest/gtest.h>

#include <fstream>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "sivra/authenticator.h"
#include "sivra/challenge.h"
#include "sivra/digest.h"

namespace sivra {
namespace {

constexpr std::string_view kNonce = "7ypf/xlj9XXwfDPEoM4URrv/xwf94BcCAzFZH4GiTo0v";
constexpr std::string_view kCnonce = "f2/wE4q74E6zIJEtWaHKaf5wv/H5QzzpXusqGemxURZJ";

std::string Response(std::string_view algorithm_name, std::string_view user, std::string_view realm,
                     std::string_view password, const DigestInput& input) {
  DigestAlgorithm algorithm;
  HashValue ha1;
  std::string response;
  EXPECT_TRUE(ParseDigestAlgorithm(algorithm_name, algorithm));
  EXPECT_TRUE(ComputeHa1(algorithm, user, realm, password, input.nonce, input.cnonce, ha1));
  EXPECT_TRUE(ComputeResponse(algorithm.hash, ha1, input, response));
  return response;
}

// RFC 7616 §3.9.1 gives the MD5 and SHA-256 values; the others are for the same input, computed
// with Python's hashlib.
TEST(Digest, PublishedValues) {
  const DigestInput input{"GET", "/dir/index.html", kNonce, "00000001", kCnonce, true};
  const std::vector<std::pair<const char*, const char*>> kValues = {
      {"MD5", "8ca523f5e9506fed4657c9700eebdbec"},
      {"md5-SESS", "e783283f46242139c486a698fec7211d"},
      {"SHA-256", "753927fa0e85d155564e2e272a28d1802ca10daf4496794697cf8db5856cb6c1"},
      {"SHA-256-sess", "2fd51b3a77ad75bad6afad6003e818d767133c46d9e2749e7f5232ae1ea3efd7"},
      {"SHA-512-256", "430d05014cecc49cab6fbe03176d41a1da86cbfe24a16580e22aaad928d960d0"},
      {"SHA-512-256-sess", "3f2a34f923c38b0fb26dce2fdfc2ce326c23cecf86fbb1444f3e51fbbc2cb92e"},
  };
  for (const auto& [algorithm, value] : kValues) {
    EXPECT_EQ(Response(algorithm, "Mufasa", "http-auth@example.org", "Circle of Life", input), value) << algorithm;
  }
  // RFC 2617 §3.5, without qop (§3.2.2.1).
  EXPECT_EQ(Response("MD5", "Mufasa", "testrealm@host.com", "Circle Of Life",
                     {"GET", "/dir/index.html", "dcd98b7102dd2f0e8b11d0f600bfb0c093", "", "", false}),
            "670fd8c2df070c60b045671b8b24ff02");
  // Not the value printed in RFC 7616 §3.9.2, which comes from SHA-512 cut short instead of
  // SHA-512/256.
  HashValue user;
  ASSERT_TRUE(HashJoined(Hash::kSha512Trunc256, {"J\u00e4s\u00f8n Doe", "api@example.org"}, user));
  EXPECT_EQ(user.Hex(), "793263caabb707a56211940d90411ea4a575adeccb7e360aeb624ed06ece9b0b");
}

struct Challenging : nsip_message {
  explicit Challenging(const std::vector<std::string>& lines) {
    for (const std::string& line : lines) {
      const std::size_t colon = line.find(": ");
      headers.items.push_back(
          std::make_unique<nsip_header>(nsip_header{line.substr(0, colon), line.substr(colon + 2)}));
    }
  }
};

// "realm:algorithm" of each challenge that is taken, "P:" in front of a proxy's.
std::string Chosen(const std::vector<std::string>& headers) {
  std::string text;
  for (const Challenge& challenge : ReadChallenges(Challenging(headers))) {
    text.append(challenge.proxy ? " P:" : " ").append(challenge.realm).append(":");
    text.append(DigestAlgorithmName(challenge.algorithm));
  }
  return text;
}

TEST(Challenge, Choice) {
  const std::string www = "WWW-Authenticate: ";
  const std::string a = www + "Digest realm=a,nonce=";
  EXPECT_EQ(Chosen({a + "1", a + "2,algorithm=SHA-256", a + "3,algorithm=SHA-256-sess", a + "4,algorithm=SHA-3"}),
            " a:SHA-256");
  EXPECT_EQ(Chosen({www + "Basic realm=\"x, Digest realm=y\", Digest realm=\"a, \\\"b c\", "
                          "nonce=\"1\", qop = \"auth-int , AUTH\", Negotiate, "
                          "digest nonce=2 , realm=b,algorithm=MD5-sess",
                    "Proxy-Authenticate: Digest realm=b,nonce=3,algorithm=SHA-512-256"}),
            " a, \"b c:MD5 b:MD5-sess P:b:SHA-512-256");
  EXPECT_EQ(Chosen({a + "1,qop=\"auth-int\"", a + "\"\"", www + "Digest realm=a", www + "\"", www + "Digest nonce=1",
                    a + std::string(kMaxChallengeText + 1, 'n')}),
            "");
  std::vector<std::string> flood(kMaxChallenges, www + "Basic realm=a");
  flood.push_back(a + "1");
  EXPECT_EQ(Chosen(flood), "");
  flood.erase(flood.begin());
  EXPECT_EQ(Chosen(flood), " a:MD5");
}

// An authenticator for alice, whose password is "secret" in every realm but "foreign".
class AuthenticatorTest : public ::testing::Test {
 protected:
  bool Challenge(const std::string& params, std::string name = "WWW-Authenticate") {
    if (params.empty()) return authenticator_.Answer(Challenging({}), Lookup);
    name += params.find("realm=") == std::string::npos ? ": Digest realm=\"r\\\"1\"," : ": Digest ";
    return authenticator_.Answer(Challenging({name + params}), Lookup);
  }
  static bool Lookup(std::string_view realm, sipcarrier::Credential& found) {
    found.user = user_;
    found.password = "secret";
    return realm != "foreign";
  }
  // "nonce/nc" of the credentials that a request gets, each one checked as a registrar would.
  std::string Authorize() {
    nsip_message request;
    request.sip_method = "REGISTER";
    request.req_uri = std::make_unique<nsip_uri>();
    EXPECT_TRUE(nsip_uri_parse("sip:example.com;lr", *request.req_uri));
    if (!authenticator_.Authorize(request)) return "refused";
    std::string text;
    for (const auto& header : request.headers.items) {
      std::string scheme;
      nsip_param_list params;
      EXPECT_TRUE(nsip_auth_params_parse(header->hvalue, scheme, params)) << header->hvalue;
      const auto get = [&params](const char* name) {
        const nsip_generic_param* param = nullptr;
        nsip_generic_param_get_byname(params, name, &param);
        return param == nullptr ? std::string() : param->value;
      };
      const std::string nonce = get("nonce");
      const std::string nc = get("nc");
      cnonce_ = get("cnonce");
      username_ = get("username");
      const std::string algorithm = get("algorithm").empty() ? "MD5" : get("algorithm");
      EXPECT_EQ(get("response"), Response(algorithm, "alice", "r\"1", "secret",
                                          {"REGISTER", "sip:example.com;lr", nonce, nc, cnonce_, !nc.empty()}))
          << header->hvalue;
      text.append(header->hname == "Authorization" ? " " : " P:").append(nonce);
      text.append("/").append(nc).append(get("opaque"));
    }
    return text;
  }

  static inline std::string user_ = "alice";
  Authenticator authenticator_;
  std::string cnonce_, username_;
};

TEST_F(AuthenticatorTest, WhichChallengesGetCredentialsAndHowOftenANonceIsUsed) {
  std::ifstream file(CASES);
  std::string before;
  int steps = 0;
  for (std::string line; std::getline(file, line);) {
    if (line.empty() || line[0] == '#') continue;
    SCOPED_TRACE(line);
    const auto arrow = line.find(" ->");
    const std::string word = line.substr(0, line.find(' '));
    if (arrow == std::string::npos) {
      EXPECT_EQ(cnonce_ == before, word == "same");
      continue;
    }
    const std::string text = arrow > word.size() ? line.substr(word.size() + 1, arrow - word.size() - 1) : "";
    before = cnonce_;
    bool authorised = true;
    if (word == "new") authenticator_ = Authenticator();
    if (word == "start") authenticator_.Start();
    if (word == "info") authenticator_.LearnNextNonce(Challenging({"Authentication-Info: " + text}));
    if (word == "www") authorised = Challenge(text);
    if (word == "proxy") authorised = Challenge(text, "Proxy-Authenticate");
    EXPECT_EQ(authorised ? Authorize() : " no", line.substr(arrow + 3));
    ++steps;
  }
  EXPECT_GT(steps, 20);
}

TEST_F(AuthenticatorTest, Usernames) {
  ASSERT_TRUE(Challenge("nonce=n1,userhash=true,algorithm=SHA-256"));
  EXPECT_EQ(Authorize(), " n1/");
  HashValue hashed;
  ASSERT_TRUE(HashJoined(Hash::kSha256, {"alice", "r\"1"}, hashed));
  EXPECT_EQ(username_, hashed.Hex());
  user_ = "ali\r\nce";  // configured by mistake: must not become a header line of its own
  authenticator_.Start();
  ASSERT_TRUE(Challenge("nonce=n2"));
  EXPECT_EQ(Authorize(), "refused");
  user_ = "alice";
}

}  // namespace
}  // namespace sivra
