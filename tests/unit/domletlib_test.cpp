#include <gtest/gtest.h>

#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "Domletlib/Domletlib.h"

namespace {

CXML Read(std::string_view text) {
  CXML xml;
  EXPECT_NE(xml.SetDoc(text), 0) << text << ": " << xml.LastError();
  return xml;
}

// The main element's next child of this name, or the level's next element ("/name"), and its text.
std::string Next(CXML& xml, const std::string& name) {
  if (name[0] != '/') return xml.FindChildElem(name.c_str()) != 0 ? xml.GetChildSubDoc() : "none";
  return xml.FindElem(name.c_str() + 1) != 0 ? xml.GetData() : "none";
}

std::string Repeated(std::string_view text, int count) {
  std::string all;
  for (int i = 0; i < count; ++i) all += text;
  return all;
}

TEST(Read, PositionsOnLevels) {
  CXML xml;
  EXPECT_EQ(xml.FindElem("r") + xml.FindChildElem("r") + xml.IntoElem() + xml.FindAttrib("a"), 0);
  EXPECT_EQ(xml.GetData() + xml.GetAttrib("a") + xml.GetChildSubDoc() + xml.GetDoc(), "");
  xml = Read("<r>t<i>7</i><a>x</a><i>8</i><d>e<i>9</i></d></r>");
  EXPECT_EQ(Next(xml, "/i"), "none");  // the root level has only the root
  EXPECT_EQ(Next(xml, "/r"), "t");
  EXPECT_EQ(Next(xml, "/r"), "none");
  xml.IntoElem();
  EXPECT_EQ(Next(xml, "/a"), "x");
  EXPECT_EQ(Next(xml, "/i"), "8");  // goes on behind the main position
  EXPECT_EQ(Next(xml, "/i"), "none");
  EXPECT_EQ(xml.GetData(), "8");  // a search without a find moves nothing
  xml.ResetMainPos();
  EXPECT_EQ(xml.GetData(), "");
  EXPECT_EQ(Next(xml, "/i"), "7");
  EXPECT_EQ(Next(xml, "/I"), "none");
  EXPECT_EQ(Next(xml, "/d"), "e");
  xml.IntoElem();
  EXPECT_EQ(Next(xml, "/i"), "9");
  xml.ResetPos();
  EXPECT_EQ(Next(xml, "/r"), "t");
}

TEST(Read, ChildrenOfTheMainElementOrTheRoot) {
  CXML xml = Read("<r><c>1</c><d><c>x</c></d><c>2</c></r>");
  const auto walk = [&xml] {
    std::string all;
    for (int i = 0; i < 3; ++i) all += Next(xml, "c");
    return all;
  };
  EXPECT_EQ(walk(), "<c>1</c><c>2</c>none");
  xml.ResetPos();
  EXPECT_EQ(xml.GetChildSubDoc(), "");
  EXPECT_EQ(walk(), "<c>1</c><c>2</c>none");  // straight after ResetPos
  xml.FindElem("r");
  EXPECT_EQ(walk(), "<c>1</c><c>2</c>none");  // a new main element starts its children
  xml.IntoElem();
  EXPECT_EQ(Next(xml, "c"), "none");  // no main element, no children
  xml.FindElem("d");
  EXPECT_EQ(Next(xml, "c"), "<c>x</c>");
}

TEST(Read, TextAndAttributes) {
  const struct {
    std::string inside;
    std::string text;
  } cases[] = {{"", ""},
               {"a<x>no</x>b<!-- no --><?no no?><x><y>no</y>no</x>c", "abc"},
               {"&lt;&amp;&gt;&quot;&apos;&#65;&#x20AC;", "<&>\"'A\xE2\x82\xAC"},
               {"1\r\n2\r3&#13;<![CDATA[<x>&amp;]]>", "1\n2\n3\r<x>&amp;"},
               {Repeated("<x>y</x>z", 3000), std::string(3000, 'z')}};
  for (const auto& c : cases) {
    CXML xml = Read("<r b='' x:a=\"1&quot;&lt;\t2\">" + c.inside + "</r>");
    EXPECT_EQ(Next(xml, "/r"), c.text);
    EXPECT_EQ(xml.GetAttrib("x:a"), "1\"< 2");
    EXPECT_TRUE(xml.FindAttrib("b") != 0 && xml.FindAttrib("a") == 0);
    EXPECT_EQ(xml.GetAttrib("b") + xml.GetAttrib("a"), "");
  }
}

TEST(Read, ASubDocumentIsTheExactTextAndADocument) {
  const std::vector<std::string> children = {
      "<c/>", "<c  a = 'x' />", "<c\n></c \n>", "<c><!-- </c> --><![CDATA[</c>]]>&amp;\r\n<c/></c>",
      "<c p:a='1'><p:x>\xE2\x82\xAC</p:x></c>"};  // the prefix is declared above
  for (const std::string head : {"", "\xEF\xBB\xBF", "<?xml version='1.0' encoding='utf-8'?>\n"}) {
    std::string text = head + "<r xmlns:p='urn:p'>\xC3\xBC";
    for (const std::string& child : children) text += child + "\n";
    CXML xml = Read(text += "</r>\n");
    EXPECT_EQ(xml.GetDoc(), text);
    for (const std::string& child : children) {
      EXPECT_EQ(Next(xml, "c"), child);
      Read(child);
    }
  }
}

TEST(Read, WhatIsRefusedLeavesAnEmptyDocumentAndAReason) {
  const struct {
    std::string text;
    std::string reason;  // the beginning of it
  } cases[] = {
      {"", "line 1, column 1: "},
      {"<r>\n  <a></b></r>", "line 2, column 8: "},
      {"<r/><r/>", "line 1, column 5: "},
      {"<r a='1' a='2'/>", "line 1, column "},
      {"<r>&nbsp;</r>", "line 1, column 4: "},
      {"<r>\xC0\x80</r>", "line 1, column 4: "},
      {"\n<!DOCTYPE r><r/>", "line 2, column 12: a document type"},
      {"<!DOCTYPE r [<!ENTITY a 'b'>]><r>&a;</r>", "line 1, column 13: a document type"},
      {"<?xml version='1.0' encoding='ISO-8859-1'?><r>\xFC</r>", "line 1, column 1: an encoding"},
      {"<?xml version='1.0' encoding='x-none'?><r/>", "line 1, column 1: an encoding"},
      {"<?xml version='1.0' encoding='us-ascii'?><r>\xC3\xBC</r>", "line 1, column "},
      {std::string("<r>\n\n<a\0/></r>", 14), "line 3, column 3: a NUL"},
      {std::string("\xFF\xFE<\0r\0/\0>\0", 10), "line 1, column 4: a NUL"},
      {Repeated("<a>", 65) + Repeated("</a>", 65), "line 1, column 193: elements are nested"},
      {"<r>" + std::string(CXML::kMaxBytes - 6, ' ') + "</r>",
       "line 1, column 1: the document is"}};
  for (const auto& c : cases) {
    CXML xml = Read("<r><a/></r>");
    EXPECT_EQ(xml.SetDoc(c.text), 0) << c.text.substr(0, 60);
    EXPECT_EQ(xml.LastError().substr(0, c.reason.size()), c.reason) << c.text.substr(0, 60);
    EXPECT_EQ(xml.GetDoc() + Next(xml, "/r") + Next(xml, "a"), "nonenone");
    EXPECT_NE(xml.SetDoc("<r/>"), 0);
    EXPECT_EQ(xml.LastError(), "");
  }
  EXPECT_EQ(CXML().SetDoc(static_cast<const char*>(nullptr)), 0);
  Read(Repeated("<a>", 64) + Repeated("</a>", 64));  // the limits themselves are accepted
  Read("<r>" + std::string(CXML::kMaxBytes - 7, ' ') + "</r>");
}

TEST(Copy, KeepsThePositionsAndIsIndependent) {
  for (int round = 0; round < 200; ++round) {
    CXML first = Read("<r><a>1</a></r>");
    first.FindElem("r");
    std::thread other([copy = first]() mutable {  // lets go of the text that the other one writes
      EXPECT_EQ(Next(copy, "a"), "<a>1</a>");
      copy.AddChildElem("b", 2, 0);
      EXPECT_EQ(copy.GetDoc(), "<r><a>1</a><b>2</b></r>");
    });
    EXPECT_NE(first.AddChildElem("c", 3, 0), 0);
    EXPECT_EQ(first.GetDoc(), "<r><a>1</a><c>3</c></r>");
    other.join();
    CXML second = first;
    first = CXML();
    EXPECT_EQ(Next(second, "c"), "<c>3</c>");
  }
}

TEST(Write, IsReadLikeAParsedDocument) {
  CXML xml;
  EXPECT_EQ(xml.AddChildElem("id", 1, 0), 0);  // there is no main element
  EXPECT_EQ(xml.AddElem("r", nullptr, 0), 1);
  EXPECT_EQ(xml.AddChildElem("ret", "0", 0), 1);
  EXPECT_EQ(xml.AddChildElem("id", -2147483647 - 1, 0), 1);
  EXPECT_EQ(xml.AddChildElem("_n-1.b:c", nullptr, 0), 1);
  EXPECT_EQ(xml.AddElem("r", nullptr, 0), 0);  // there is a root
  for (const char* name : {"", "1a", "-a", "a b", "a>", "a/", "\xC3\xBC", ":a"}) {
    EXPECT_EQ(xml.AddChildElem(name, "", 0), 0) << name;
  }
  EXPECT_EQ(xml.GetDoc(), "<r><ret>0</ret><id>-2147483648</id><_n-1.b:c></_n-1.b:c></r>");
  xml.ResetPos();
  EXPECT_EQ(Next(xml, "id"), "<id>-2147483648</id>");
  EXPECT_EQ(Next(xml, "/r"), "");
  for (int i = 0; i < 100'000; ++i) ASSERT_EQ(xml.AddChildElem("many", i, 0), 1);
  for (int i = 0; i < 99'999; ++i) xml.FindChildElem("many");
  EXPECT_EQ(Next(xml, "many"), "<many>99999</many>");
}

TEST(Write, NoValueMakesTheDocumentUnreadable) {
  const std::string bad = "\xEF\xBF\xBD";
  const struct {
    std::string value;
    std::string seen;
  } cases[] = {{"a<b>&amp;\"'</v>]]> \t1\r\n2\r \n\xC3\xBC\xF0\x9F\x98\x80\x7F", ""},
               {"\x01|\x1F", bad + "|" + bad},
               {"\xEF\xBF\xBE|\xEF\xBF\xBF", bad + "|" + bad},
               {"\xC0\xAF|\xED\xA0\x80", bad + bad + "|" + bad + bad + bad}};
  for (const auto& c : cases) {
    CXML xml;
    xml.AddElem("v", c.value.c_str(), 0);
    CXML reader = Read(xml.GetDoc());
    EXPECT_EQ(Next(reader, "/v"), c.seen.empty() ? c.value : c.seen);
    EXPECT_EQ(xml.GetData(), reader.GetData());
  }
}

// What is written goes to the right place, whatever stands around it, and what stands behind is
// found.
TEST(Write, IntoTheMiddleOfAParsedDocument) {
  CXML xml = Read("<!-- h --><r> <a x='1' /><!-- m --><b>t</b ><c><d/></c>\n</r><!-- t -->");
  xml.FindElem("r");
  xml.AddChildElem("e", 5, 0);
  xml.IntoElem();
  for (const char* name : {"a", "a", "b"}) {
    xml.ResetMainPos();
    xml.FindElem(name);
    EXPECT_EQ(xml.AddChildElem("n", 1, 0), 1);
  }
  EXPECT_EQ(xml.GetData(), "t");
  EXPECT_EQ(xml.GetDoc(),
            "<!-- h --><r> <a x='1' ><n>1</n><n>1</n></a><!-- m --><b>t<n>1</n></b ><c><d/></c>\n"
            "<e>5</e></r><!-- t -->");
  CXML reader = Read(xml.GetDoc());
  for (const char* name : {"a", "b", "c", "e"}) {
    xml.ResetPos();
    EXPECT_EQ(Next(xml, name), Next(reader, name));
  }
}

TEST(Write, TheLimitsOfReadingHold) {
  CXML xml;
  xml.AddElem("a", nullptr, 0);
  int depth = 1;
  for (; depth < 100 && xml.AddChildElem("a", nullptr, 0) != 0; ++depth) {
    xml.IntoElem();
    xml.FindElem("a");
  }
  EXPECT_EQ(depth, CXML::kMaxDepth);
  Read(xml.GetDoc());
  xml = Read("<r/>");
  xml.FindElem("r");
  const std::string value(CXML::kMaxBytes / 2, '<');  // four times as long when escaped
  EXPECT_EQ(xml.AddChildElem("v", value.c_str(), 0), 0);
  EXPECT_EQ(xml.GetDoc(), "<r/>");
}

}  // namespace
