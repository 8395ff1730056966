// Header lists and the questions asked of a message.
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "nsip/nsip.h"

namespace {

int Add(nsip_list& list, const char* name, const char* value, int pos = 99) {
  auto header = std::make_unique<nsip_header>(nsip_header{name, value});
  const int size = nsip_list_add(&list, header.get(), pos);
  if (size >= 0) static_cast<void>(header.release());
  return size;
}

std::string Text(const nsip_list& list) {
  std::string text;
  for (int i = 0; nsip_list_eol(&list, i) == 0; ++i) {
    text += nsip_list_get(&list, i)->hname + nsip_list_get(&list, i)->hvalue;
  }
  return text;
}

TEST(NsipList, InsertRemoveCloneKeepOneOwner) {
  nsip_list list;
  EXPECT_TRUE(Add(list, "B", "2") == 1 && Add(list, "A", "1", 0) == 2 && Add(list, "C", "3", 2) == 3);
  EXPECT_EQ(Add(list, "x", "", 1), 4);
  EXPECT_EQ(Text(list), "A1xB2C3");
  nsip_header* taken = nsip_list_get(&list, 1);
  EXPECT_EQ(nsip_list_remove(&list, 1), 3);
  nsip_header* copy = nullptr;
  ASSERT_EQ(nsip_header_clone(taken, &copy), 0);
  nsip_header_free(taken);
  EXPECT_EQ(copy->hname, "x");
  nsip_header_free(copy);
  EXPECT_EQ(nsip_header_clone(nullptr, &copy), -1);
  EXPECT_EQ(copy, nullptr);

  // What is refused stays the caller's.
  EXPECT_TRUE(Add(list, "A b", "") == -1 && Add(list, "A", "x\r\nB: y") == -1 &&
              nsip_list_add(&list, nullptr, 0) == -1);
  EXPECT_TRUE(nsip_list_remove(&list, 3) == -1 && nsip_list_remove(nullptr, 0) == -1);
  EXPECT_TRUE(nsip_list_get(&list, 3) == nullptr && nsip_list_get(&list, -1) == nullptr);
  EXPECT_EQ(Text(list), "A1B2C3");
}

TEST(NsipMessage, SetHeaderReplacesTheFirstOrAppendsOrRefuses) {
  nsip_message msg;
  Add(msg.headers, "Subject", "one");
  Add(msg.headers, "s", "two");
  EXPECT_EQ(nsip_message_set_header(&msg, "SUBJECT", "three"), 0);
  EXPECT_EQ(nsip_message_set_header(&msg, "Expires", "60"), 0);
  // clang-format off
  const char* const names[] = {
      // with a field of their own, and no tokens
      "Via", "v", "From", "f", "To", "t", "call-id", "i", "CSeq", "Contact", "m", "Route", "Record-Route",
      "Max-Forwards", "Content-Length", "l", "", " ", "A:B", "A\r\nB"};
  // clang-format on
  for (const char* name : names) {
    EXPECT_EQ(nsip_message_set_header(&msg, name, "x"), -1) << name;
  }
  for (const char* value : {"a\r\nVia: x", "a\r", "\n", "\x7F"}) {
    EXPECT_EQ(nsip_message_set_header(&msg, "Subject", value), -1) << value;
  }
  EXPECT_EQ(nsip_message_set_header(nullptr, "Subject", "x"), -1);
  EXPECT_EQ(nsip_message_set_header(&msg, "Subject", nullptr), -1);
  EXPECT_EQ(Text(msg.headers), "SUBJECTthreestwoExpires60");
}

TEST(NsipMessage, HeaderByName) {
  nsip_message msg;
  Add(msg.headers, "Warning", "first");
  Add(msg.headers, "Supported", "path");
  Add(msg.headers, "warning", "second");
  const auto find = [&msg](const char* name, int from) {
    nsip_header* header = nullptr;
    const int at = nsip_message_header_get_byname(&msg, name, from, &header);
    return std::to_string(at) + (header == nullptr ? "" : header->hvalue);
  };
  EXPECT_EQ(find("warning", 0) + find("WARNING", 1) + find("K", -5), "0first2second1path");
  EXPECT_EQ(find("Warning", 3) + find("Warn", 0), "-1-1");
  EXPECT_EQ(nsip_message_header_get_byname(nullptr, "Warning", 0, nullptr), -1);
}

// The view follows the headers; an entry that cannot be read is null.
TEST(NsipMessage, AssociatedUris) {
  nsip_message msg;
  const auto entries = [&msg] {
    std::string text;
    nsip_from* entry = nullptr;
    for (int i = 0; nsip_message_get_p_associated_uri(&msg, i, &entry) >= 0; ++i) {
      text += (entry == nullptr ? "-" : nsip_from_text(*entry)) + "|";
    }
    return text;
  };
  Add(msg.headers, "P-Associated-URI", "\"a, b\" <sip:a,b@c>, <tel:+1>;x=\",\"");
  Add(msg.headers, "Subject", "<sip:no@no>");
  Add(msg.headers, "p-associated-uri", "junk,<sip:d@e>,,\"open <sip:f@g>, <sip:h@i>");
  Add(msg.headers, "P-Associated-URI", "");
  Add(msg.headers, "P-Associated-URI", "<sip:z@z>");
  EXPECT_EQ(entries(), "\"a, b\" <sip:a,b@c>|<tel:+1>;x=\",\"|-|<sip:d@e>|-|-|<sip:z@z>|");
  EXPECT_EQ(nsip_message_get_p_associated_uri(&msg, -1, nullptr), -1);
  EXPECT_EQ(nsip_message_get_p_associated_uri(nullptr, 0, nullptr), -1);
  msg.headers.items.clear();
  EXPECT_EQ(entries(), "");
  EXPECT_EQ(nsip_message_set_header(&msg, "P-Associated-URI", "sip:new@h"), 0);
  EXPECT_EQ(entries(), "<sip:new@h>|");
}

}  // namespace
