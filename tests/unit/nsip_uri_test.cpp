// URIs: what is read, what is refused, and which ones are the same.
#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <utility>

#include "nsip/nsip.h"

namespace {

using namespace std::string_literals;

nsip_uri Uri(const std::string& text) {
  nsip_uri uri;
  EXPECT_TRUE(nsip_uri_parse(text, uri)) << text;
  return uri;
}

TEST(NsipUri, ReadAndWrittenIsTheSame) {
  // clang-format off
  const char* const texts[] = {
      // hosts and users
      "sip:alice", "sip:alice@example.com", "sip:+1-212-555;isub=7@gw.example.com;user=phone", "sip:a@192.0.2.1:5060",
      "sip:a@host_1.example.com.", "sip:a@3com.example", "sip:a:b@[::ffff:192.0.2.1];maddr=[::1]",
      "sips:%00%41@h?a=b&c=%0D%0A",
      // other schemes
      "tel:+358-555-1234567;phone-context=+358", "urn:service:sos", "http://[::1]/a?b=c"};
  // clang-format on
  for (const char* text : texts) EXPECT_EQ(nsip_uri_text(Uri(text)), text);
  EXPECT_EQ(Uri("sip:alice").host, "alice");
  const nsip_uri uri = Uri("SIPS:al%40ice;x=1?:s3cr&t@[2001:db8::1]:5071;lr;transport=TCP?Subject=a%20b&to=");
  EXPECT_EQ(uri.scheme + ' ' + uri.user + ' ' + uri.password + ' ' + uri.host,
            "sips al%40ice;x=1? s3cr&t [2001:db8::1]");
  EXPECT_EQ(uri.port, 5071);
  ASSERT_EQ(uri.params.size(), 2U);
  EXPECT_FALSE(uri.params[0].has_value);
  EXPECT_EQ(uri.params[1].value, "TCP");
  EXPECT_EQ(uri.headers, "Subject=a%20b&to=");
}

TEST(NsipUri, Refused) {
  // clang-format off
  const std::string texts[] = {
      "", "sip", "sip:", ":a", "1sip:a@b", "si p:a@b", "sip:@b", "sip::p@b", "sip:a@", "sip:a@b@c",
      // hosts
      "sip:a@-b", "sip:a@b-", "sip:a@b..c", "sip:a@.b", "sip:a@.", "sip:a@256.1.1.1", "sip:a@1.2.3", "sip:a@[::1",
      "sip:a@::1", "sip:a@[]", "sip:a@[::g]", "sip:a@[::1%25eth0]", "sip:a@[::1]x", "sip:a@b c",
      "sip:a@" + std::string(64, 'x'),
      // ports
      "sip:a@b:", "sip:a@b:0", "sip:a@b:65536", "sip:a@b:+1", "sip:a@b:50x", "sip:a@b:18446744073709556676",
      // parameters and headers
      "sip:a@b;", "sip:a@b;;x", "sip:a@b;=1", "sip:a@b;x=", "sip:a@b;x=\"q\"", "sip:a@b;x;X=1", "sip:a@b?",
      "sip:a@b?x", "sip:a@b?=x", "sip:a@b?x=1&", "sip:a@b?x=1;lr",
      // escapes and what must be escaped
      "sip:a%@b", "sip:a%4@b", "sip:a%4g@b", "sip:a b@c", "sip:a#@c", "sip:a\"@c", "sip:a<b@c", "sip:\xC3\xA9@c",
      "tel:", "tel:1 2", "tel:%zz", "tel:<1>",
      // controls
      "sip:a@b\r\n", "sip:a\n@b", "sip:a\0@b"s, "sip:a@b\0"s, "sip:a@1.2.3.4\0"s, "tel:1\0"s};
  // clang-format on
  for (const std::string& text : texts) {
    nsip_uri uri;
    uri.host = "kept";
    EXPECT_FALSE(nsip_uri_parse(text, uri)) << text;
    EXPECT_EQ(uri.host, "kept") << text;
  }
}

// A field filled by hand must not turn into another part of the URI.
TEST(NsipUri, HandFilledPartsAreChecked) {
  nsip_uri bad[9];
  for (nsip_uri& uri : bad) uri = Uri("sip:a@b");
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
    char none = 0;
    char* text = &none;
    EXPECT_EQ(nsip_uri_to_str(&uri, &text), -1) << &uri - bad;
    EXPECT_EQ(text, nullptr);
  }
}

TEST(NsipUri, EqualOrNot) {
  // clang-format off
  const std::pair<bool, const char*> rows[] = {  // the first URI against each of the others
      {true, "sip:bob@example.com SIP:bob@EXAMPLE.com sip:%62o%62@example.com"},
      {true, "sip:a%3bb@h sip:a%3Bb@h"},
      {true, "sip:a@h;transport=udp sip:a@h;Transport=UD%50"},
      {true, "sip:a@h;x=1 sip:a@h sip:a@h;y=2 sip:a@h;LR;X=1"},
      {true, "sip:a@h?b=1&c=2 sip:a@h?C=2&B=1"},
      {true, "sip:a@[2001:db8::1] sip:a@[2001:DB8:0:0::1]"},
      {true, "tel:+1 TEL:+1"},
      {false, "sip:bob@h sips:bob@h sip:Bob@h sip:h sip:bob@h:5060 sip:bob@h2"},
      {false, "sip:a:p@h sip:a:P@h sip:a@h"},
      {false, "sip:a@h sip:a@h;transport=udp sip:a@h;user=ip sip:a@h;ttl=1"},
      {false, "sip:a@h sip:a@h;method=REGISTER sip:a@h;m%61ddr=h sip:a@h?subject=x"},
      {false, "sip:a@h;x=1 sip:a@h;x=2 sip:a@h;x"},
      {false, "sip:a@h?b=1 sip:a@h?b=1&b=1"},
      {false, "sip:a%3Bb@h sip:a;b@h sip:a%253Bb@h"},
      {false, "sip:a@[::1] sip:a@[::2]"},
      {false, "tel:+1 tel:+2"}};
  // clang-format on
  for (const auto& [equal, line] : rows) {
    std::istringstream texts(line);
    std::string first;
    texts >> first;
    for (std::string other; texts >> other;) {
      EXPECT_EQ(nsip_uri_equal(Uri(first), Uri(other)), equal) << first << ' ' << other;
      EXPECT_EQ(nsip_uri_equal(Uri(other), Uri(first)), equal) << other << ' ' << first;
    }
  }
}

}  // namespace
