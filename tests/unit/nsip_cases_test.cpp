// URIs, addresses, challenges and the lines of messages: what is read, what is refused, and which URIs are the same.
#include <gtest/gtest.h>

#include <fstream>
#include <functional>
#include <map>
#include <set>
#include <sstream>
#include <string>

#include "nsip/nsip.h"

namespace {

using namespace std::string_literals;

nsip_uri Uri(const std::string& text) {
  nsip_uri uri;
  EXPECT_TRUE(nsip_uri_parse(text, uri)) << text;
  return uri;
}

// With the bytes that the file has by number.
std::string Decoded(const std::string& text) {
  std::string bytes;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const auto end = text[i] == '{' ? text.find('}', i) : i;
    if (end == i || (end != i + 1 && end != i + 3)) {
      bytes += text[i];
      continue;
    }
    if (end == i + 3) bytes += static_cast<char>(std::stoi(text.substr(i + 1, 2), nullptr, 16));
    i = end;
  }
  return bytes;
}

bool IsMessage(const std::string& start_line, const std::string& header) {
  std::string why;
  const auto message = nsip_message_parse(start_line +
                                              "\r\nVia: SIP/2.0/UDP h;branch=z9hG4bK1\r\nFrom: <sip:a@b>;tag=1\r\n"
                                              "To: <sip:a@b>\r\nCall-ID: c@d\r\nCSeq: 7 REGISTER\r\n" +
                                              header + "\r\n",
                                          why);
  EXPECT_EQ(message == nullptr, !why.empty()) << start_line << header;
  return message != nullptr;
}

bool IsAddress(const std::string& text) {
  const auto name = text.find(" | ");
  const auto written = text.find(" | ", name + 3);
  for (const std::string& form : {text.substr(0, name), text.substr(written + 3)}) {
    nsip_from from;
    EXPECT_TRUE(nsip_from_parse(form, from));
    EXPECT_EQ(from.displayname, text.substr(name + 3, written - name - 3));
    EXPECT_EQ(nsip_from_text(from), text.substr(written + 3));
  }
  return true;
}

bool IsWrittenAs(const std::string& text) {
  const auto written = text.find(" | ");
  for (const std::string& form : {text.substr(0, written), text.substr(written + 3)}) {
    std::string out;
    const auto message = nsip_message_parse(form, out);
    EXPECT_TRUE(message && nsip_message_to_str(*message, out) == 0) << out;
    EXPECT_EQ(out, text.substr(written + 3));
  }
  return true;
}

bool AreAll(const std::string& line, bool equal) {
  std::istringstream texts(line);
  std::string first;
  texts >> first;
  for (std::string other; texts >> other;) {
    EXPECT_EQ(nsip_uri_equal(Uri(first), Uri(other)), equal) << other;
    EXPECT_EQ(nsip_uri_equal(Uri(other), Uri(first)), equal) << other;
    if (equal) {
      EXPECT_EQ(nsip_aor_key(Uri(other)), nsip_aor_key(Uri(first))) << other;
    }
  }
  return true;
}

// The first word is the key of the others, or no two have the same. The key of a key is the key.
bool HaveOneKey(const std::string& line, bool one) {
  std::istringstream texts(line);
  std::set<std::string> keys;
  std::size_t count = 0;
  for (std::string text; texts >> text; ++count) {
    const std::string key = nsip_aor_key(Uri(text));
    keys.insert(key);
    if (one && count == 0) {
      EXPECT_EQ(key, text);
    }
    EXPECT_EQ(nsip_aor_key(Uri(key)), key);
  }
  EXPECT_EQ(keys.size(), one ? 1U : count) << line;
  return true;
}

TEST(Nsip, Cases) {
  const std::map<std::string, std::function<bool(const std::string&)>> checks = {
      {"uri", [](const auto& text) { return nsip_uri_text(Uri(text)) == text; }},
      {"uri!",
       [](const auto& text) {
         nsip_uri uri;
         uri.host = "kept";
         return !nsip_uri_parse(text, uri) && uri.host == "kept";
       }},
      {"equal", [](const auto& text) { return AreAll(text, true); }},
      {"differ", [](const auto& text) { return AreAll(text, false); }},
      {"aor", [](const auto& line) { return HaveOneKey(line, true); }},
      {"aors", [](const auto& line) { return HaveOneKey(line, false); }},
      {"address", IsAddress},
      {"message", IsWrittenAs},
      {"address!",
       [](const auto& text) {
         nsip_from from;
         return !nsip_from_parse(text, from);
       }},
      {"auth!",
       [](const auto& text) {
         std::string scheme = "kept";
         nsip_param_list params;
         return !nsip_auth_params_parse(text, scheme, params) && scheme == "kept";
       }},
      {"start!", [](const auto& text) { return !IsMessage(text, ""); }},
      {"header!", [](const auto& text) { return !IsMessage("SIP/2.0 200 OK", text + "\r\n"); }},
  };
  ASSERT_TRUE(IsMessage("REGISTER sip:b SIP/2.0", "X: y\r\n") && IsMessage("SIP/2.0 200 OK", ""));
  std::ifstream file(CASES);
  int count = 0;
  for (std::string line; std::getline(file, line);) {
    if (line.empty() || line[0] == '#') continue;
    const auto end = line.find(' ');
    EXPECT_TRUE(checks.at(line.substr(0, end))(Decoded(line.substr(end + 1)))) << line;
    ++count;
  }
  EXPECT_GT(count, 200);
}

TEST(Nsip, PartsOfAUri) {
  EXPECT_EQ(Uri("sip:alice").host, "alice");
  const nsip_uri uri = Uri("SIPS:al%40ice;x=1?:s3cr&t@[2001:db8::1]:5071;lr;transport=TCP?Subject=a%20b&to=");
  EXPECT_EQ(uri.scheme + ' ' + uri.user + ' ' + uri.password + ' ' + uri.host + ' ' + std::to_string(uri.port),
            "sips al%40ice;x=1? s3cr&t [2001:db8::1] 5071");
  ASSERT_EQ(uri.params.size(), 2U);
  EXPECT_FALSE(uri.params[0].has_value);
  EXPECT_EQ(uri.params[1].value + ' ' + uri.headers, "TCP Subject=a%20b&to=");
}

// A field filled by hand must not turn into another part of the URI.
TEST(Nsip, HandFilledPartsAreChecked) {
  // clang-format off
  void (*const changes[])(nsip_uri&) = {
      [](nsip_uri& uri) { uri.user = "a@evil"; }, [](nsip_uri& uri) { uri.host = "b;lr"; },
      [](nsip_uri& uri) { uri.host = ""; }, [](nsip_uri& uri) { uri.port = 70000; },
      [](nsip_uri& uri) { uri.port = -1; }, [](nsip_uri& uri) { uri.params.push_back({"x", "1;y=2", true}); },
      [](nsip_uri& uri) { uri.headers = "a=b\r\nVia: x"; }, [](nsip_uri& uri) { uri.scheme = ""; },
      [](nsip_uri& uri) { uri.user = "", uri.password = "p"; }};
  // clang-format on
  for (const auto& change : changes) {
    nsip_uri uri = Uri("sip:a@b");
    change(uri);
    char none = 0;
    char* text = &none;
    EXPECT_EQ(nsip_uri_to_str(&uri, &text), -1) << &change - changes;
    EXPECT_EQ(text, nullptr);
  }
}

TEST(Nsip, ParametersByNameAndTextsForTheCaller) {
  nsip_from from;
  ASSERT_TRUE(nsip_from_parse("Al <sip:a@b;x=1>;TAG=\"2\";flag", from));
  const nsip_generic_param* param = nullptr;
  ASSERT_EQ(nsip_generic_param_get_byname(from.params, "tag", &param), 0);
  EXPECT_EQ(param->value, "\"2\"");
  ASSERT_EQ(nsip_generic_param_get_byname(from.params, "Flag", &param), 0);
  EXPECT_FALSE(param->has_value);
  EXPECT_EQ(nsip_generic_param_get_byname(from.params, "x", &param), -1);
  EXPECT_EQ(param, nullptr);
  EXPECT_EQ(nsip_generic_param_get_byname(from.params, nullptr, nullptr), -1);
  char* text = nullptr;
  ASSERT_EQ(nsip_from_to_str(&from, &text), 0);
  EXPECT_STREQ(text, "Al <sip:a@b;x=1>;TAG=\"2\";flag");
  nsip_free(text);
  ASSERT_EQ(nsip_uri_to_str(from.url.get(), &text), 0);
  EXPECT_STREQ(text, "sip:a@b;x=1");
  nsip_free(text);
  from.params.push_back({"x", "1;lr", true});
  EXPECT_EQ(nsip_from_to_str(&from, &text), -1);
  EXPECT_EQ(text, nullptr);
  EXPECT_EQ(nsip_uri_to_str(nullptr, &text), -1);

  std::string read;
  nsip_param_list params;
  ASSERT_TRUE(nsip_auth_params_parse(
      " Digest realm=\"a \\\"b\\\", c\" ,nonce = \"\",\talgorithm=SHA-512-256, stale=FALSE", read, params));
  for (const auto& one : params) read += '|' + one.name + (one.has_value ? "=" : "") + one.value;
  EXPECT_EQ(read, R"(Digest|realm=a "b", c|nonce=|algorithm=SHA-512-256|stale=FALSE)");
}

}  // namespace
