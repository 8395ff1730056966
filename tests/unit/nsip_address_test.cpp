// Addresses (name-addr, addr-spec) and the parts of challenges.
#include <gtest/gtest.h>

#include <string>

#include "nsip/nsip.h"

namespace {

using namespace std::string_literals;

TEST(NsipAddress, DisplayNamesAreWrittenSoThatTheyReadTheSame) {
  // clang-format off
  static const char* const kRows[][3] = {  // text, display name, text as written
      {"Alice<sip:alice@example.com>", "Alice", "Alice <sip:alice@example.com>"},
      {"  The  Boss <sip:a@b> ", "The  Boss", R"("The  Boss" <sip:a@b>)"},
      {"The Boss <sip:a@b>", "The Boss", "The Boss <sip:a@b>"},
      {R"("A \"q\" B" <sip:a@b>;tag=1)", R"(A "q" B)", R"("A \"q\" B" <sip:a@b>;tag=1)"},
      {R"("\\"<sip:a@b>)", R"(\)", R"("\\" <sip:a@b>)"},
      {R"("Bob" <sip:a@b>)", "Bob", "Bob <sip:a@b>"},
      {R"(" x"<sip:a@b>)", " x", R"(" x" <sip:a@b>)"},
      {R"("" <sip:a@b>)", "", "<sip:a@b>"},
      {"A. M\xC3\xBCller<sip:x@y>", "A. M\xC3\xBCller", "\"A. M\xC3\xBCller\" <sip:x@y>"},
      {R"(M, A; B: \ > <sip:x@y>)", R"(M, A; B: \ >)", R"("M, A; B: \\ >" <sip:x@y>)"},
      {R"(J "The Rock" D <sip:x@y>)", R"(J "The Rock" D)", R"("J \"The Rock\" D" <sip:x@y>)"},
      {R"("<sip:no@no>, " <sip:x@y>)", "<sip:no@no>, ", R"("<sip:no@no>, " <sip:x@y>)"},
      {"<sip:a@b;lr>;lr", "", "<sip:a@b;lr>;lr"},
      {R"(sip:a@b ;tag = x ; q="<,;>")", "", R"(<sip:a@b>;tag=x;q="<,;>")"},  // without "<>" the header's
      {"tel:+1;isub=2", "", "<tel:+1>;isub=2"},
      {R"(<sip:a,b?@c?d=e>;+sip.instance="<urn:x>")", "", R"(<sip:a,b?@c?d=e>;+sip.instance="<urn:x>")"},
      {"<sip:a@b>;received=[::1]:5060;rport", "", "<sip:a@b>;received=[::1]:5060;rport"}};
  // clang-format on
  for (const auto& [text, name, written] : kRows) {
    for (const char* form : {text, written}) {
      nsip_from from;
      ASSERT_TRUE(nsip_from_parse(form, from)) << form;
      EXPECT_EQ(from.displayname, name) << form;
      EXPECT_EQ(nsip_from_text(from), written) << form;
    }
  }
}

TEST(NsipAddress, ParametersByName) {
  nsip_from from;
  ASSERT_TRUE(nsip_from_parse("<sip:a@b;x=1>;TAG=\"2\";flag", from));
  const nsip_generic_param* param = nullptr;
  ASSERT_EQ(nsip_generic_param_get_byname(from.params, "tag", &param), 0);
  EXPECT_EQ(param->value, "\"2\"");
  ASSERT_EQ(nsip_generic_param_get_byname(from.params, "Flag", &param), 0);
  EXPECT_FALSE(param->has_value);
  EXPECT_EQ(nsip_generic_param_get_byname(from.params, "x", &param), -1);
  EXPECT_EQ(param, nullptr);
  EXPECT_EQ(nsip_generic_param_get_byname(from.params, nullptr, nullptr), -1);
}

TEST(NsipAddress, Refused) {
  std::string crowd = "<sip:a@b>";
  for (int i = 0; i < 65; ++i) crowd += ";p" + std::to_string(i);
  // clang-format off
  const std::string texts[] = {
      "", " ", "*", "<>", "Alice", "Alice <>", "Alice <sip:a@b", "Alice sip:a@b", "< sip:a@b>", "<sip:a@b >",
      "\"Alice <sip:a@b>", "\"Alice\\\" <sip:a@b>", "\"Alice\" sip:a@b", "\"A\" B <sip:a@b>", "<sip:a@b> x",
      "<sip:a@b>;", "<sip:a@b>;;x", "<sip:a@b>;x=", "<sip:a@b>;x=\"open", "<sip:a@b>;x=a b", "<sip:a@b>;x=1;X=2",
      "<sip:a@b>,<sip:c@d>", "<<sip:a@b>>", "sip:a@b,c", "sip:a@b?x=y", "sip:a;b@c", crowd,
      // nothing injected
      "A\r\nVia: x <sip:a@b>", "\"A\nB\" <sip:a@b>", "A\0B <sip:a@b>"s, "<sip:a@b>\r\n", "<sip:a@b>;x=\"\\\r\"",
      "\"A\\\0\" <sip:a@b>"s, "\x01 <sip:a@b>"};
  // clang-format on
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

TEST(NsipAuthParams, ReadOrRefused) {
  std::string scheme;
  nsip_param_list params;
  const std::string text = R"( Digest realm="a \"b\", c" ,nonce = "",)"
                           "\talgorithm=SHA-512-256, stale=FALSE";
  ASSERT_TRUE(nsip_auth_params_parse(text, scheme, params));
  std::string read = scheme;
  for (const nsip_generic_param& param : params) {
    read += '|' + param.name + (param.has_value ? "=" : "") + param.value;
  }
  EXPECT_EQ(read, R"(Digest|realm=a "b", c|nonce=|algorithm=SHA-512-256|stale=FALSE)");
  // clang-format off
  const std::string texts[] = {
      "", "Digest", "Digest ", "Digest realm", "Digest realm=", "Digest =x", "Digest realm=\"x", "\"Digest\" a=b",
      "Digest realm=\"x\" nonce=\"y\"", "Digest realm=\"x\",", "Digest ,realm=\"x\"", "realm=\"x\"",
      "Digest realm=\"x\",Realm=\"y\"", "Digest realm=a b", "Digest realm=a/b",
      // nothing injected
      "Digest realm=\"x\r\n\"", "Digest realm=\"x\0\""s};
  // clang-format on
  for (const std::string& bad : texts) {
    scheme = "kept";
    EXPECT_FALSE(nsip_auth_params_parse(bad, scheme, params)) << bad;
    EXPECT_EQ(scheme, "kept");
  }
}

}  // namespace
