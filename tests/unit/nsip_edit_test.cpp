// Header lists and the questions asked of a message.
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "nsip/nsip.h"

namespace {

int Add(nsip_list& list, const char* name, const char* value, int pos) {
  auto header = std::make_unique<nsip_header>();
  header->hname = name;
  header->hvalue = value;
  const int size = nsip_list_add(&list, header.get(), pos);
  if (size >= 0) {
    static_cast<void>(header.release());
  }
  return size;
}

std::string Names(const nsip_list& list) {
  std::string names;
  for (int i = 0; nsip_list_eol(&list, i) == 0; ++i) {
    names += nsip_list_get(&list, i)->hname;
  }
  return names;
}

TEST(NsipList, InsertRemoveCloneKeepOneOwner) {
  nsip_list list;
  EXPECT_NE(nsip_list_eol(&list, 0), 0);
  EXPECT_EQ(Add(list, "B", "2", 99), 1);
  EXPECT_EQ(Add(list, "A", "1", 0), 2);
  EXPECT_EQ(Add(list, "C", "3", 2), 3);
  EXPECT_EQ(Add(list, "x", "", 1), 4);
  EXPECT_EQ(Names(list), "AxBC");

  nsip_header* taken = nsip_list_get(&list, 1);
  EXPECT_EQ(nsip_list_remove(&list, 1), 3);
  EXPECT_EQ(taken->hname, "x");
  nsip_header* copy = nullptr;
  ASSERT_EQ(nsip_header_clone(taken, &copy), 0);
  nsip_header_free(taken);
  EXPECT_EQ(copy->hname, "x");
  nsip_header_free(copy);
  EXPECT_EQ(Names(list), "ABC");

  EXPECT_EQ(nsip_list_get(&list, 3), nullptr);
  EXPECT_EQ(nsip_list_get(&list, -1), nullptr);
  EXPECT_NE(nsip_list_eol(&list, -1), 0);
  EXPECT_EQ(nsip_list_remove(&list, 3), -1);
  EXPECT_EQ(nsip_list_remove(nullptr, 0), -1);
  EXPECT_EQ(nsip_header_clone(nullptr, &copy), -1);
  EXPECT_EQ(copy, nullptr);
}

TEST(NsipList, RefusedHeadersStayTheCallers) {
  nsip_list list;
  EXPECT_EQ(Add(list, "A b", "", 0), -1);
  EXPECT_EQ(Add(list, "", "", 0), -1);
  EXPECT_EQ(Add(list, "A", "x\r\nB: y", 0), -1);
  EXPECT_EQ(nsip_list_add(&list, nullptr, 0), -1);
  EXPECT_TRUE(list.items.empty());
}

TEST(NsipMessage, SetHeaderReplacesTheFirst) {
  nsip_message msg;
  Add(msg.headers, "Subject", "one", 0);
  Add(msg.headers, "s", "two", 1);
  EXPECT_EQ(nsip_message_set_header(&msg, "SUBJECT", "three"), 0);
  EXPECT_EQ(nsip_message_set_header(&msg, "Expires", "60"), 0);
  ASSERT_EQ(msg.headers.items.size(), 3U);
  EXPECT_EQ(msg.headers.items[0]->hvalue, "three");
  EXPECT_EQ(msg.headers.items[1]->hvalue, "two");
  EXPECT_EQ(msg.headers.items[2]->hname, "Expires");
}

TEST(NsipMessage, SetHeaderRefuses) {
  nsip_message msg;
  const char* const names[] = {// with a field of their own
                               "Via", "v", "From", "f", "To", "t", "call-id", "i", "CSeq",
                               "Contact", "m", "Route", "Record-Route", "Max-Forwards",
                               "Content-Length", "l",
                               // no tokens
                               "", " ", "A:B", "A\r\nB"};
  for (const char* name : names) {
    EXPECT_EQ(nsip_message_set_header(&msg, name, "x"), -1) << name;
  }
  for (const char* value : {"a\r\nVia: x", "a\r", "\n", "\x7F"}) {
    EXPECT_EQ(nsip_message_set_header(&msg, "Subject", value), -1) << value;
  }
  EXPECT_EQ(nsip_message_set_header(nullptr, "Subject", "x"), -1);
  EXPECT_EQ(nsip_message_set_header(&msg, "Subject", nullptr), -1);
  EXPECT_TRUE(msg.headers.items.empty());
}

TEST(NsipMessage, HeaderByName) {
  nsip_message msg;
  Add(msg.headers, "Warning", "first", 0);
  Add(msg.headers, "Supported", "path", 1);
  Add(msg.headers, "warning", "second", 2);
  nsip_header* header = nullptr;
  EXPECT_EQ(nsip_message_header_get_byname(&msg, "warning", 0, &header), 0);
  EXPECT_EQ(header->hvalue, "first");
  EXPECT_EQ(nsip_message_header_get_byname(&msg, "WARNING", 1, &header), 2);
  EXPECT_EQ(header->hvalue, "second");
  EXPECT_EQ(nsip_message_header_get_byname(&msg, "K", -5, &header), 1);
  EXPECT_EQ(nsip_message_header_get_byname(&msg, "Warning", 3, &header), -1);
  EXPECT_EQ(header, nullptr);
  EXPECT_EQ(nsip_message_header_get_byname(&msg, "Warn", 0, nullptr), -1);
  EXPECT_EQ(nsip_message_header_get_byname(nullptr, "Warning", 0, &header), -1);
}

// Each entry as written: "-" for one that cannot be read.
std::vector<std::string> Associated(nsip_message& msg) {
  std::vector<std::string> entries;
  nsip_from* entry = nullptr;
  for (int i = 0; nsip_message_get_p_associated_uri(&msg, i, &entry) >= 0; ++i) {
    entries.push_back(entry == nullptr ? "-" : nsip_from_text(*entry));
  }
  return entries;
}

TEST(NsipMessage, AssociatedUris) {
  using Texts = std::vector<std::string>;
  nsip_message msg;
  EXPECT_EQ(Associated(msg), Texts());
  Add(msg.headers, "P-Associated-URI", "\"a, b\" <sip:a,b@c>, <tel:+1>;x=\",\"", 0);
  Add(msg.headers, "Subject", "<sip:no@no>", 1);
  Add(msg.headers, "p-associated-uri", "junk,<sip:d@e>,,\"open <sip:f@g>, <sip:h@i>", 2);
  Add(msg.headers, "P-Associated-URI", "", 3);
  Add(msg.headers, "P-Associated-URI", "<sip:z@z>", 4);
  const Texts expected = {
      "\"a, b\" <sip:a,b@c>", "<tel:+1>;x=\",\"", "-", "<sip:d@e>", "-", "-", "<sip:z@z>"};
  EXPECT_EQ(Associated(msg), expected);
  EXPECT_EQ(nsip_message_get_p_associated_uri(&msg, -1, nullptr), -1);
  EXPECT_EQ(nsip_message_get_p_associated_uri(nullptr, 0, nullptr), -1);

  // The view follows the headers.
  msg.headers.items.clear();
  EXPECT_EQ(nsip_message_set_header(&msg, "P-Associated-URI", "sip:new@h"), 0);
  EXPECT_EQ(Associated(msg), Texts{"<sip:new@h>"});
}

}  // namespace
