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

// The text of the root element; the document is read.
std::string RootData(std::string_view text) {
  CXML xml = Read(text);
  EXPECT_NE(xml.FindElem("r"), 0);
  return xml.GetData();
}

std::string Repeated(std::string_view text, int count) {
  std::string all;
  for (int i = 0; i < count; ++i) all += text;
  return all;
}

TEST(Read, AnEmptyDocumentHasNothing) {
  CXML xml;
  EXPECT_EQ(xml.FindElem("r"), 0);
  EXPECT_EQ(xml.FindChildElem("r"), 0);
  EXPECT_EQ(xml.IntoElem(), 0);
  EXPECT_EQ(xml.FindAttrib("a"), 0);
  EXPECT_EQ(xml.GetData() + xml.GetAttrib("a") + xml.GetChildSubDoc() + xml.GetDoc(), "");
  EXPECT_EQ(xml.LastError(), "");
}

TEST(Read, ElementsAreFoundInAnyOrderOfTheLevel) {
  CXML xml = Read("<reg><id>7</id><aor>sip:a@b</aor><id>8</id><deep><id>9</id></deep></reg>");
  EXPECT_EQ(xml.FindElem("id"), 0) << "the root level has only the root";
  ASSERT_NE(xml.FindElem("reg"), 0);
  EXPECT_EQ(xml.FindElem("reg"), 0);
  xml.IntoElem();
  EXPECT_NE(xml.FindElem("aor"), 0);
  EXPECT_EQ(xml.GetData(), "sip:a@b");
  EXPECT_NE(xml.FindElem("id"), 0) << "it goes on behind the main position";
  EXPECT_EQ(xml.GetData(), "8");
  EXPECT_EQ(xml.FindElem("id"), 0);
  EXPECT_EQ(xml.GetData(), "8") << "a search without a find moves nothing";
  xml.ResetMainPos();
  EXPECT_EQ(xml.GetData(), "");
  EXPECT_NE(xml.FindElem("id"), 0);
  EXPECT_EQ(xml.GetData(), "7");
  EXPECT_EQ(xml.FindElem("I"), 0);
  ASSERT_NE(xml.FindElem("deep"), 0);
  xml.IntoElem();
  ASSERT_NE(xml.FindElem("id"), 0);
  EXPECT_EQ(xml.GetData(), "9");
  xml.ResetPos();
  EXPECT_NE(xml.FindElem("reg"), 0);
}

TEST(Read, ChildrenAreWalkedFromTheMainElementOrTheRoot) {
  CXML xml = Read("<r><c>1</c><d><c>x</c></d><c>2</c></r>");
  const auto walk = [&xml] {
    std::string all;
    while (xml.FindChildElem("c") != 0) all += xml.GetChildSubDoc();
    return all;
  };
  EXPECT_EQ(walk(), "<c>1</c><c>2</c>");
  EXPECT_EQ(xml.FindChildElem("c"), 0);
  xml.ResetPos();
  EXPECT_EQ(xml.GetChildSubDoc(), "");
  EXPECT_EQ(walk(), "<c>1</c><c>2</c>") << "straight after ResetPos";
  EXPECT_NE(xml.FindElem("r"), 0);
  EXPECT_EQ(walk(), "<c>1</c><c>2</c>") << "a new main element starts its children";
  xml.IntoElem();
  EXPECT_EQ(walk(), "") << "no main element, no children";
  EXPECT_NE(xml.FindElem("d"), 0);
  EXPECT_EQ(walk(), "<c>x</c>");
}

TEST(Read, TextIsWhatStandsDirectlyInside) {
  EXPECT_EQ(RootData("<r/>"), "");
  EXPECT_EQ(RootData("<r>a<x>no</x>b<!-- no --><?no no?><x><y>no</y>no</x>c</r>"), "abc");
  EXPECT_EQ(RootData("<r>&lt;&amp;&gt;&quot;&apos;&#65;&#x20AC;</r>"), "<&>\"'A\xE2\x82\xAC");
  EXPECT_EQ(RootData("<r>1\r\n2\r3&#13;<![CDATA[<x>&amp;]]></r>"), "1\n2\n3\r<x>&amp;");
  EXPECT_EQ(RootData("<r>" + Repeated("<x>y</x>z", 3000) + "</r>"), std::string(3000, 'z'));
}

TEST(Read, Attributes) {
  CXML xml = Read("<r b='' xml:lang='en' a=\"1&quot;&lt;\t2\"><c a='no'/></r>");
  EXPECT_EQ(xml.FindAttrib("a"), 0) << "no main element yet";
  xml.FindElem("r");
  EXPECT_EQ(xml.GetAttrib("a"), "1\"< 2");
  EXPECT_EQ(xml.GetAttrib("xml:lang"), "en");
  EXPECT_NE(xml.FindAttrib("b"), 0);
  EXPECT_EQ(xml.GetAttrib("b"), "");
  EXPECT_EQ(xml.FindAttrib("c"), 0);
  EXPECT_EQ(xml.GetAttrib("c"), "");
  EXPECT_EQ(xml.FindAttrib(nullptr), 0);
}

TEST(Read, ASubDocumentIsTheExactTextAndADocument) {
  const std::vector<std::string> children = {
      "<c/>",
      "<c  a = 'x' />",
      "<c\n></c \n>",
      "<c><!-- </c> --><![CDATA[</c>]]>&amp;\r\n<c/></c>",
      "<c p:a='1'><p:x>\xE2\x82\xAC</p:x></c>",  // the prefix is declared above
  };
  for (const std::string head :
       {"", "\xEF\xBB\xBF", "<?xml version='1.0' encoding='utf-8'?>\n<!-- -->"}) {
    std::string text = head + "<r xmlns:p='urn:p'>\xC3\xBC";
    for (const std::string& child : children) text += child + "\n";
    text += "</r>\n";
    CXML xml = Read(text);
    EXPECT_EQ(xml.GetDoc(), text);
    for (const std::string& child : children) {
      ASSERT_NE(xml.FindChildElem("c"), 0);
      ASSERT_EQ(xml.GetChildSubDoc(), child);
      CXML sub = Read(child);
      EXPECT_NE(sub.FindElem("c"), 0);
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
      {"<r", "line 1, column "},
      {"<r a='1' a='2'/>", "line 1, column "},
      {"<r>&nbsp;</r>", "line 1, column 4: "},
      {"<r>\xC0\x80</r>", "line 1, column 4: "},
      {"<r>\x01</r>", "line 1, column 4: "},
      {"<r>&#0;</r>", "line 1, column 4: "},
      {"\n<!DOCTYPE r><r/>", "line 2, column 12: a document type"},
      {"<!DOCTYPE r [<!ENTITY a 'b'>]><r>&a;</r>", "line 1, column 13: a document type"},
      {"<?xml version='1.0' encoding='ISO-8859-1'?><r>\xFC</r>", "line 1, column 1: an encoding"},
      {"<?xml version='1.0' encoding='x-none'?><r/>", "line 1, column 1: an encoding"},
      {"<?xml version='1.0' encoding='us-ascii'?><r>\xC3\xBC</r>", "line 1, column "},
      {std::string("<r>\n\n<a\0/></r>", 14), "line 3, column 3: a NUL"},
      {std::string("\xFF\xFE<\0r\0/\0>\0", 10), "line 1, column 4: a NUL"},
      {Repeated("<a>", 65) + Repeated("</a>", 65), "line 1, column 193: elements are nested"},
      {"<r>" + std::string(CXML::kMaxBytes, ' ') + "</r>", "line 1, column 1: the document is"},
  };
  for (const auto& c : cases) {
    CXML xml = Read("<old/>");
    const std::string shown = c.text.substr(0, 60);
    EXPECT_EQ(xml.SetDoc(c.text), 0) << shown;
    EXPECT_EQ(xml.LastError().substr(0, c.reason.size()), c.reason) << shown;
    EXPECT_GT(xml.LastError().size(), sizeof "line 1, column 1: ") << shown;
    EXPECT_EQ(xml.GetDoc(), "") << shown;
    EXPECT_EQ(xml.FindElem("old") + xml.FindElem("r") + xml.FindChildElem("a"), 0) << shown;
  }
  CXML xml;
  EXPECT_EQ(xml.SetDoc(static_cast<const char*>(nullptr)), 0);
  EXPECT_NE(xml.SetDoc("<r/>"), 0);
  EXPECT_EQ(xml.LastError(), "");
}

TEST(Read, TheLimitsThemselvesAreAccepted) {
  CXML xml = Read(Repeated("<a>", CXML::kMaxDepth) + Repeated("</a>", CXML::kMaxDepth));
  for (int i = 0; i < CXML::kMaxDepth; ++i) {
    ASSERT_NE(xml.FindElem("a"), 0) << i;
    xml.IntoElem();
  }
  const std::string frame = "<r></r>";
  Read("<r>" + std::string(CXML::kMaxBytes - frame.size(), ' ') + "</r>");
  CXML many = Read("<r>" + Repeated("<a b='c'/>", 20'000) + "</r>");
  int count = 0;
  while (many.FindChildElem("a") != 0) ++count;
  EXPECT_EQ(count, 20'000);
}

TEST(Copy, KeepsDocumentAndPositionsAndIsIndependent) {
  CXML first = Read("<r><a>1</a><a>2</a></r>");
  first.FindElem("r");
  CXML second = first;
  EXPECT_NE(second.FindChildElem("a"), 0);
  EXPECT_NE(second.AddChildElem("b", "3", 0), 0);
  EXPECT_EQ(first.GetDoc(), "<r><a>1</a><a>2</a></r>");
  EXPECT_EQ(second.GetDoc(), "<r><a>1</a><a>2</a><b>3</b></r>");
  EXPECT_EQ(first.GetChildSubDoc(), "");
  EXPECT_NE(first.SetDoc("<x/>"), 0);
  EXPECT_EQ(second.GetChildSubDoc(), "<a>1</a>");
  second = *&second;
  EXPECT_EQ(second.GetChildSubDoc(), "<a>1</a>");
  CXML third = std::move(second);
  EXPECT_EQ(third.GetChildSubDoc(), "<a>1</a>");
  first = third;
  EXPECT_EQ(first.GetDoc(), third.GetDoc());
}

TEST(Copy, CopiesOfOneDocumentMayBeWrittenOnTwoThreads) {
  for (int round = 0; round < 200; ++round) {
    CXML mine = Read("<r><a>1</a></r>");
    mine.FindElem("r");
    std::thread other([copy = mine]() mutable {
      EXPECT_EQ(copy.FindChildElem("a"), 1);
      EXPECT_EQ(copy.GetChildSubDoc(), "<a>1</a>");
      if (copy.GetDoc().size() % 2 == 0) copy.AddChildElem("b", 2, 0);
    });
    EXPECT_NE(mine.AddChildElem("c", 3, 0), 0);
    EXPECT_EQ(mine.GetDoc(), "<r><a>1</a><c>3</c></r>");
    other.join();
  }
}

}  // namespace
