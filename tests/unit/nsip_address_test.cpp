// Addresses (name-addr, addr-spec) and the parts of challenges.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "nsip/nsip.h"

namespace {

using namespace std::string_literals;

struct Address {
  std::string text;
  std::string name;     // expected display name
  std::string written;  // expected text
};

TEST(NsipAddress, DisplayNamesAreWrittenSoThatTheyReadTheSame) {
  const std::vector<Address> cases = {
      {"Alice<sip:alice@example.com>", "Alice", "Alice <sip:alice@example.com>"},
      {"  The  Boss <sip:a@b> ", "The  Boss", "\"The  Boss\" <sip:a@b>"},
      {"The Boss <sip:a@b>", "The Boss", "The Boss <sip:a@b>"},
      {"\"A \\\"q\\\" B\" <sip:a@b>;tag=1", "A \"q\" B", "\"A \\\"q\\\" B\" <sip:a@b>;tag=1"},
      {"\"\\\\\"<sip:a@b>", "\\", "\"\\\\\" <sip:a@b>"},
      {"\"Bob\" <sip:a@b>", "Bob", "Bob <sip:a@b>"},
      {"\" x\"<sip:a@b>", " x", "\" x\" <sip:a@b>"},
      {"\"\" <sip:a@b>", "", "<sip:a@b>"},
      {"A. M\xC3\xBCller<sip:x@y>", "A. M\xC3\xBCller", "\"A. M\xC3\xBCller\" <sip:x@y>"},
      {"M, A; B: \\ > <sip:x@y>", "M, A; B: \\ >", "\"M, A; B: \\\\ >\" <sip:x@y>"},
      {"J \"The Rock\" D <sip:x@y>", "J \"The Rock\" D", "\"J \\\"The Rock\\\" D\" <sip:x@y>"},
      {"\"<sip:no@no>, \" <sip:x@y>", "<sip:no@no>, ", "\"<sip:no@no>, \" <sip:x@y>"},
      {"<sip:a@b;lr>;lr", "", "<sip:a@b;lr>;lr"},
      {"sip:a@b", "", "<sip:a@b>"},
      {"sip:a@b ;tag = x ; q=\"<,;>\"", "", "<sip:a@b>;tag=x;q=\"<,;>\""},
      {"tel:+1;isub=2", "", "<tel:+1>;isub=2"},
      {"<sip:a,b?@c?d=e>;expires=60;+sip.instance=\"<urn:x>\"", "",
       "<sip:a,b?@c?d=e>;expires=60;+sip.instance=\"<urn:x>\""},
      {"<sip:a@b>;received=[::1]:5060;rport", "", "<sip:a@b>;received=[::1]:5060;rport"}};
  for (const Address& address : cases) {
    nsip_from from;
    ASSERT_TRUE(nsip_from_parse(address.text, from)) << address.text;
    EXPECT_EQ(from.displayname, address.name) << address.text;
    EXPECT_EQ(nsip_from_text(from), address.written) << address.text;
    nsip_from again;
    ASSERT_TRUE(nsip_from_parse(address.written, again)) << address.written;
    EXPECT_EQ(again.displayname, address.name);
    EXPECT_EQ(nsip_from_text(again), address.written);
  }
}

// Without "<>" a ';' belongs to the header, within them to the URI.
TEST(NsipAddress, ParametersGoWhereTheyBelong) {
  nsip_from bare;
  ASSERT_TRUE(nsip_from_parse("sip:a@b;tag=1", bare));
  EXPECT_TRUE(bare.url->params.empty());
  nsip_from bracketed;
  ASSERT_TRUE(nsip_from_parse("<sip:a@b;x=1>;TAG=\"2\";flag", bracketed));
  ASSERT_EQ(bracketed.url->params.size(), 1U);
  const nsip_generic_param* param = nullptr;
  ASSERT_EQ(nsip_generic_param_get_byname(bracketed.params, "tag", &param), 0);
  EXPECT_EQ(param->value, "\"2\"");
  ASSERT_EQ(nsip_generic_param_get_byname(bracketed.params, "Flag", &param), 0);
  EXPECT_FALSE(param->has_value);
  EXPECT_EQ(nsip_generic_param_get_byname(bracketed.params, "x", &param), -1);
  EXPECT_EQ(param, nullptr);
  EXPECT_EQ(nsip_generic_param_get_byname(bracketed.params, nullptr, nullptr), -1);
}

TEST(NsipAddress, Refused) {
  std::string crowd = "<sip:a@b>";
  for (int i = 0; i < 65; ++i) {
    crowd += ";p" + std::to_string(i);
  }
  const std::vector<std::string> texts = {
      "", " ", "*", "<>", "Alice", "Alice <>", "Alice <sip:a@b", "Alice sip:a@b", "< sip:a@b>",
      "<sip:a@b >", "\"Alice <sip:a@b>", "\"Alice\\\" <sip:a@b>", "\"Alice\" sip:a@b",
      "\"A\" B <sip:a@b>", "<sip:a@b> x", "<sip:a@b>;", "<sip:a@b>;;x",
      "<sip:a@b>;x=", "<sip:a@b>;x=\"open", "<sip:a@b>;x=a b", "<sip:a@b>;x=1;X=2",
      "<sip:a@b>,<sip:c@d>", "<<sip:a@b>>", "sip:a@b,c", "sip:a@b?x=y", "sip:a;b@c", crowd,
      // nothing injected
      "A\r\nVia: x <sip:a@b>", "\"A\nB\" <sip:a@b>", "A\0B <sip:a@b>"s, "<sip:a@b>\r\n",
      "<sip:a@b>;x=\"\\\r\"", "\"A\\\0\" <sip:a@b>"s, "\x01 <sip:a@b>"};
  for (const std::string& text : texts) {
    nsip_from from;
    EXPECT_FALSE(nsip_from_parse(text, from)) << text;
  }
}

TEST(NsipAddress, TextsForTheCaller) {
  nsip_from from;
  ASSERT_TRUE(nsip_from_parse("Al <sip:a@b>", from));
  char* text = nullptr;
  ASSERT_EQ(nsip_from_to_str(&from, &text), 0);
  EXPECT_STREQ(text, "Al <sip:a@b>");
  nsip_free(text);
  ASSERT_EQ(nsip_uri_to_str(from.url.get(), &text), 0);
  EXPECT_STREQ(text, "sip:a@b");
  nsip_free(text);
  from.params.push_back({"x", "1;lr", true});
  EXPECT_EQ(nsip_from_to_str(&from, &text), -1);
  EXPECT_EQ(nsip_uri_to_str(nullptr, &text), -1);
  EXPECT_EQ(text, nullptr);
  nsip_free(text);
}

TEST(NsipAuthParams, Read) {
  std::string scheme;
  nsip_param_list params;
  ASSERT_TRUE(nsip_auth_params_parse(
      " Digest realm=\"a \\\"b\\\", c\" ,nonce = \"\",\talgorithm=SHA-512-256, stale=FALSE", scheme,
      params));
  EXPECT_EQ(scheme, "Digest");
  ASSERT_EQ(params.size(), 4U);
  EXPECT_EQ(params[0].value, "a \"b\", c");
  EXPECT_EQ(params[1].value, "");
  EXPECT_TRUE(params[1].has_value);
  EXPECT_EQ(params[2].name, "algorithm");
  EXPECT_EQ(params[2].value, "SHA-512-256");
  EXPECT_EQ(params[3].value, "FALSE");
}

TEST(NsipAuthParams, Refused) {
  const std::vector<std::string> texts = {
      // not one or more name=value
      "", "Digest", "Digest ", "Digest realm", "Digest realm=", "Digest =x", "Digest realm=\"x",
      "Digest realm=\"x\" nonce=\"y\"", "Digest realm=\"x\",", "Digest ,realm=\"x\"",
      "Digest realm=\"x\",Realm=\"y\"", "Digest realm=a b", "Digest realm=a/b", "\"Digest\" a=b",
      "realm=\"x\"",
      // nothing injected
      "Digest realm=\"x\r\n\"", "Digest realm=\"x\0\""s};
  for (const std::string& text : texts) {
    std::string scheme = "kept";
    nsip_param_list params;
    EXPECT_FALSE(nsip_auth_params_parse(text, scheme, params)) << text;
    EXPECT_EQ(scheme, "kept");
  }
}

}  // namespace
