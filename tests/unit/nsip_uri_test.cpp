// URIs: what is read, what is refused, and which ones are the same.
#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

#include "nsip/nsip.h"

namespace {

using namespace std::string_literals;

nsip_uri Uri(const std::string& text) {
  nsip_uri uri;
  EXPECT_TRUE(nsip_uri_parse(text, uri)) << text;
  return uri;
}

TEST(NsipUri, PartsOfAFullUri) {
  const nsip_uri uri =
      Uri("SIPS:al%40ice;x=1?:s3cr&t@[2001:db8::1]:5071;lr;transport=TCP?Subject=a%20b&to=");
  EXPECT_EQ(uri.scheme, "sips");
  EXPECT_EQ(uri.user, "al%40ice;x=1?");
  EXPECT_EQ(uri.password, "s3cr&t");
  EXPECT_EQ(uri.host, "[2001:db8::1]");
  EXPECT_EQ(uri.port, 5071);
  ASSERT_EQ(uri.params.size(), 2U);
  EXPECT_EQ(uri.params[0].name, "lr");
  EXPECT_FALSE(uri.params[0].has_value);
  EXPECT_EQ(uri.params[1].value, "TCP");
  EXPECT_EQ(uri.headers, "Subject=a%20b&to=");
}

TEST(NsipUri, ReadAndWrittenIsTheSame) {
  const std::vector<std::string> texts = {
      // hosts and users
      "sip:alice", "sip:alice@example.com", "sip:+1-212-555;isub=7@gw.example.com;user=phone",
      "sip:a@192.0.2.1:5060", "sip:a@host_1.example.com.", "sip:a@3com.example",
      "sip:a:b@[::ffff:192.0.2.1];maddr=[::1]", "sips:%00%41@h?a=b&c=%0D%0A",
      // other schemes
      "tel:+358-555-1234567;phone-context=+358", "urn:service:sos", "http://[::1]/a?b=c"};
  for (const std::string& text : texts) {
    EXPECT_EQ(nsip_uri_text(Uri(text)), text);
  }
  const nsip_uri host_only = Uri("sip:alice");
  EXPECT_EQ(host_only.host, "alice");
  EXPECT_EQ(host_only.user, "");
}

TEST(NsipUri, Refused) {
  const std::vector<std::string> texts = {
      "", "sip", "sip:", ":a", "1sip:a@b", "si p:a@b", "sip:@b", "sip::p@b", "sip:a@", "sip:a@b@c",
      // hosts
      "sip:a@-b", "sip:a@b-", "sip:a@b..c", "sip:a@.b", "sip:a@.", "sip:a@256.1.1.1", "sip:a@1.2.3",
      "sip:a@[::1", "sip:a@::1", "sip:a@[]", "sip:a@[::g]", "sip:a@[::1%25eth0]", "sip:a@[::1]x",
      "sip:a@b c", "sip:a@" + std::string(64, 'x'),
      // ports
      "sip:a@b:", "sip:a@b:0", "sip:a@b:65536", "sip:a@b:+1", "sip:a@b:50x",
      "sip:a@b:18446744073709556676",
      // parameters and headers
      "sip:a@b;", "sip:a@b;;x", "sip:a@b;=1", "sip:a@b;x=", "sip:a@b;x=\"q\"", "sip:a@b;x;X=1",
      "sip:a@b?", "sip:a@b?x", "sip:a@b?=x", "sip:a@b?x=1&", "sip:a@b?x=1;lr",
      // escapes and what must be escaped
      "sip:a%@b", "sip:a%4@b", "sip:a%4g@b", "sip:a b@c", "sip:a#@c", "sip:a\"@c", "sip:a<b@c",
      "sip:\xC3\xA9@c", "tel:", "tel:1 2", "tel:%zz", "tel:<1>",
      // controls
      "sip:a@b\r\n", "sip:a\n@b", "sip:a\0@b"s, "sip:a@b\0"s, "sip:a@1.2.3.4\0"s, "tel:1\0"s};
  for (const std::string& text : texts) {
    nsip_uri uri;
    uri.host = "kept";
    EXPECT_FALSE(nsip_uri_parse(text, uri)) << text;
    EXPECT_EQ(uri.host, "kept") << text;
  }
}

// A field filled by hand must not turn into another part of the URI.
TEST(NsipUri, HandFilledPartsAreChecked) {
  const nsip_uri good = Uri("sip:a@b");
  std::vector<nsip_uri> bad(9, good);
  bad[0].user = "a@evil";
  bad[1].host = "b;lr";
  bad[2].host = "";
  bad[3].port = 70000;
  bad[4].port = -1;
  bad[5].params.push_back({"x", "1;y=2", true});
  bad[6].headers = "a=b\r\nVia: x";
  bad[7].scheme = "";
  bad[8].user = "";
  bad[8].password = "p";
  for (const nsip_uri& uri : bad) {
    EXPECT_EQ(nsip_uri_text(uri), "");
    char* text = nullptr;
    EXPECT_EQ(nsip_uri_to_str(&uri, &text), -1);
    EXPECT_EQ(text, nullptr);
  }
}

// The first URI of the line against each of the others, both ways.
void ExpectEqual(const std::string& line, bool equal) {
  std::istringstream texts(line);
  std::string first;
  std::string other;
  texts >> first;
  while (texts >> other) {
    EXPECT_EQ(nsip_uri_equal(Uri(first), Uri(other)), equal) << first << ' ' << other;
    EXPECT_EQ(nsip_uri_equal(Uri(other), Uri(first)), equal) << other << ' ' << first;
  }
}

TEST(NsipUri, Equal) {
  ExpectEqual("sip:bob@example.com SIP:bob@EXAMPLE.com sip:%62o%62@example.com", true);
  ExpectEqual("sip:a%3bb@h sip:a%3Bb@h", true);
  ExpectEqual("sip:a@h;transport=udp sip:a@h;Transport=UD%50", true);
  ExpectEqual("sip:a@h;x=1 sip:a@h sip:a@h;y=2 sip:a@h;LR;X=1", true);
  ExpectEqual("sip:a@h?b=1&c=2 sip:a@h?C=2&B=1", true);
  ExpectEqual("sip:a@[2001:db8::1] sip:a@[2001:DB8:0:0::1]", true);
  ExpectEqual("tel:+1 TEL:+1", true);
}

TEST(NsipUri, NotEqual) {
  ExpectEqual("sip:bob@h sips:bob@h sip:Bob@h sip:h sip:bob@h:5060 sip:bob@h2", false);
  ExpectEqual("sip:a:p@h sip:a:P@h sip:a@h", false);
  ExpectEqual("sip:a@h sip:a@h;transport=udp sip:a@h;user=ip sip:a@h;ttl=1", false);
  ExpectEqual("sip:a@h sip:a@h;method=REGISTER sip:a@h;m%61ddr=h sip:a@h?subject=x", false);
  ExpectEqual("sip:a@h;x=1 sip:a@h;x=2 sip:a@h;x", false);
  ExpectEqual("sip:a@h?b=1 sip:a@h?b=1&b=1", false);
  ExpectEqual("sip:a%3Bb@h sip:a;b@h", false);
  ExpectEqual("sip:a%253Bb@h sip:a%3Bb@h", false);
  ExpectEqual("sip:a@[::1] sip:a@[::2]", false);
  ExpectEqual("tel:+1 tel:+2", false);
}

}  // namespace
