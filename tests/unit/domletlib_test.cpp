#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <string_view>
#include <thread>

#include "Domletlib/Domletlib.h"

namespace {

CXML Read(std::string_view text) {
  CXML xml;
  EXPECT_NE(xml.SetDoc(text), 0) << text << ": " << xml.LastError();
  return xml;
}

// What the steps show, each followed by a bar: "c" is the main element's next child of that name,
// "/c" the level's next element and its text, "=" the main element's text again; ">", "^" and "."
// go into the element, to the level's start and to the top.
std::string Walk(CXML& xml, const std::string& steps) {
  std::istringstream words(steps);
  std::string seen;
  for (std::string word; words >> word;) {
    if (word == ">") xml.IntoElem();
    if (word == "^") xml.ResetMainPos();
    if (word == ".") xml.ResetPos();
    if (word == "=") seen += xml.GetData() + '|';
    if (word[0] == '/') seen += (xml.FindElem(&word[1]) != 0 ? xml.GetData() : "none") + '|';
    if (word[0] < 'a') continue;
    seen += (xml.FindChildElem(word.c_str()) != 0 ? xml.GetChildSubDoc() : "none") + '|';
  }
  return seen;
}

// The same as a part of a larger document.
CXML Part(const std::string& text) {
  CXML whole = Read("<w>&#9;<r a='no'>&amp;</r>" + text + "<r>no</r></w>");
  EXPECT_TRUE(whole.FindChildElem("r") != 0 && whole.FindChildElem("r") != 0);
  return whole.GetChildDoc();
}

std::string Repeated(std::string_view text, int count) {
  std::string all;
  for (int i = 0; i < count; ++i) all += text;
  return all;
}

TEST(Read, Positions) {
  const std::string levels = "<r>t<i>7</i><a>x</a><i>8</i><d>e<i>9</i></d></r>";
  const std::string children = "<r><c>1</c><d><c>x</c></d><c>2</c></r>";
  const std::string all = "<c>1</c>|<c>2</c>|none|";
  // clang-format off
  const struct { std::string text, steps, seen; } cases[] = {
      {"", "/r r > = ^ /r", "none|none||none|"},
      {levels, "/i /r /r", "none|t|none|"},  // the root level has only the root
      {levels, "/r > /a /i /i =", "t|x|8|none|8|"},  // a search without a find moves nothing
      {levels, "/r > /a ^ = /i /I /d > /i . /r", "t|x||7|none|e|9|t|"},
      {children, "c c c . c c c /r c c c", all + all + "|" + all},  // a new main element: from the start
      {children, "/r > c /d c", "|none||<c>x</c>|"}};  // no main element, no children
  // clang-format on
  for (const auto& c : cases) {
    for (CXML xml : {c.text.empty() ? CXML() : Read(c.text), c.text.empty() ? CXML().GetChildDoc() : Part(c.text)}) {
      EXPECT_EQ(xml.GetChildSubDoc() + xml.GetAttrib("a"), "");
      EXPECT_EQ(Walk(xml, c.steps), c.seen) << c.steps;
      EXPECT_EQ(xml.GetDoc(), c.text);
    }
  }
}

TEST(Read, TextAndAttributes) {
  const std::pair<std::string, std::string> cases[] = {
      {"", ""},
      {"a<x>no</x>b<!-- no --><?no no?><x><y>no</y>no</x>c", "abc"},
      {"&lt;&amp;&gt;&quot;&apos;&#65;&#x20AC;", "<&>\"'A\xE2\x82\xAC"},
      {"1\r\n2\r3&#13;<![CDATA[<x>&amp;]]>", "1\n2\n3\r<x>&amp;"},
      {Repeated("<x>y</x>z", 3000), std::string(3000, 'z')}};
  for (const auto& [inside, text] : cases) {
    const std::string document = "<r b = '' c='&apos;\"' x:a\n=\"1&quot;&lt;\t2\" d='\t>'>" + inside + "</r>";
    for (CXML xml : {Read(document), Part(document)}) {
      EXPECT_EQ(Walk(xml, "/r"), text + "|");
      EXPECT_EQ(xml.GetAttrib("x:a") + xml.GetAttrib("b") + xml.GetAttrib("a") + xml.GetAttrib("c"), "1\"< 2'\"");
      EXPECT_EQ(xml.GetAttribName(2) + xml.GetAttrib("d") + xml.GetAttribName(4), "x:a >");
      EXPECT_TRUE(xml.FindAttrib("b") != 0 && xml.FindAttrib("a") == 0);
    }
  }
}

TEST(Read, ASubDocumentIsTheExactTextAndADocument) {
  const std::string children[] = {
      // the prefix is declared above
      "<c/>", "<c  a = 'x' />", "<c\n></c \n>", "<c><!-- </c> --><![CDATA[</c>]]>&amp;\r\n<c/></c>",
      "<c p:a='1'><p:x>\xE2\x82\xAC</p:x></c>"};
  for (const std::string head : {"", "\xEF\xBB\xBF", "<?xml version='1.0' encoding='utf-8'?>\n"}) {
    std::string text = head + "<r xmlns:p='urn:p'>\xC3\xBC";
    for (const std::string& child : children) text += child + "\n";
    CXML xml = Read(text += "</r>\n");
    EXPECT_EQ(xml.GetDoc(), text);
    for (const std::string& child : children) EXPECT_EQ(Walk(xml, "c"), Read(child).GetDoc() + "|");
  }
}

TEST(Read, WhatIsRefusedLeavesAnEmptyDocumentAndAReason) {
  const std::string room(CXML::kMaxBytes - 7, ' ');
  // clang-format off
  const std::pair<std::string, std::string> cases[] = {  // the beginning of the reason
      {"", "line 1, column 1: "}, {"<r>\n  <a></b></r>", "line 2, column 8: "}, {"<r/><r/>", "line 1, column 5: "},
      {"<r a='1' a='2'/>", "line 1, column "}, {"<r>&nbsp;</r>", "line 1, column 4: "},
      {"<r>\xC0\x80</r>", "line 1, column 4: "}, {"\n<!DOCTYPE r><r/>", "line 2, column 12: a document type"},
      {"<!DOCTYPE r [<!ENTITY a 'b'>]><r>&a;</r>", "line 1, column 13: a document type"},
      {"<?xml version='1.0' encoding='ISO-8859-1'?><r>\xFC</r>", "line 1, column 1: an encoding"},
      {"<?xml version='1.0' encoding='x-none'?><r/>", "line 1, column 1: an encoding"},
      {"<?xml version='1.0' encoding='us-ascii'?><r>\xC3\xBC</r>", "line 1, column "},
      {{"<r>\n\n<a\0/></r>", 14}, "line 3, column 3: a NUL"}, {{"\xFF\xFE<\0r\0/\0>\0", 10}, "line 1, column 4: a NUL"},
      {Repeated("<a>", 65) + Repeated("</a>", 65), "line 1, column 193: elements are nested"},
      {"<r>" + room + " </r>", "line 1, column 1: the document is"}};
  // clang-format on
  for (const auto& [text, reason] : cases) {
    CXML xml = Read("<r><a/></r>");
    EXPECT_EQ(xml.SetDoc(text), 0) << reason;
    EXPECT_EQ(xml.LastError().substr(0, reason.size()), reason);
    EXPECT_EQ(xml.GetDoc() + Walk(xml, "/r a"), "none|none|");
    EXPECT_TRUE(xml.SetDoc("<r/>") != 0 && xml.LastError().empty());
  }
  EXPECT_EQ(CXML().SetDoc(static_cast<const char*>(nullptr)), 0);
  Read(Repeated("<a>", 64) + Repeated("</a>", 64));  // the limits themselves are accepted
  Read("<r>" + room + "</r>");
}

TEST(Read, LinesInAnyOrder) {
  CXML xml = Read("<r>\n<a/><b/>\n\n<c/></r>");
  Walk(xml, "/r >");
  const int lines[] = {2, 2, 4};
  for (int i : {2, 0, 1, 2, 2, 1}) {
    Walk(xml, "^ /" + std::string(1, static_cast<char>('a' + i)));
    EXPECT_EQ(xml.GetLine(), lines[i]) << i;
  }
}

TEST(Copy, KeepsThePositionsAndIsIndependent) {
  for (int round = 0; round < 200; ++round) {
    CXML first = Read("<r><a>1</a></r>");
    first.FindElem("r");
    std::thread other([copy = first]() mutable {  // lets go of the text that the other one writes
      copy.AddChildElem("b", 2, 0);
      EXPECT_EQ(Walk(copy, "a b") + copy.GetDoc(), "<a>1</a>|<b>2</b>|<r><a>1</a><b>2</b></r>");
    });
    first.AddChildElem("c", 3, 0);
    EXPECT_EQ(first.GetDoc(), "<r><a>1</a><c>3</c></r>");
    other.join();
    CXML second = first;
    first = CXML();
    EXPECT_EQ(Walk(second, "c"), "<c>3</c>|");
  }
}

TEST(Write, IsReadLikeAParsedDocument) {
  CXML xml;
  EXPECT_EQ(xml.AddChildElem("id", 1, 0), 0);  // there is no main element
  EXPECT_EQ(xml.AddElem("r", nullptr, 0), 1);
  EXPECT_EQ(xml.AddElem("r", nullptr, 0), 0);  // there is a root
  EXPECT_EQ(xml.AddChildElem("id", -2147483647 - 1, 0), 1);
  EXPECT_EQ(xml.AddChildElem("_n-1.b:c", nullptr, 0), 1);
  for (const char* name : {"", "1a", "-a", "a b", "a>", "a/", "\xC3\xBC", ":a"}) {
    EXPECT_EQ(xml.AddChildElem(name, "", 0), 0) << name;
  }
  EXPECT_EQ(xml.GetDoc(), "<r><id>-2147483648</id><_n-1.b:c></_n-1.b:c></r>");
  EXPECT_EQ(Walk(xml, ". id /r"), "<id>-2147483648</id>||");
}

// Writing to a part makes it a document of its own, which goes on where the part was; so does letting the whole go.
TEST(Write, IntoAPartOfADocument) {
  CXML whole = Read("<w><x/><x/><r x='&lt;'>&amp;<a>&gt;</a><b y='&lt;'/></r><b/></w>");
  Walk(whole, "/w r");
  CXML part = whole.GetChildDoc();
  for (CXML xml : {part, part}) {
    EXPECT_EQ(Walk(xml, "/r a"), "&|<a>&gt;</a>|");
    xml.AddChildElem("b", "<", 0);
    EXPECT_EQ(xml.GetAttrib("x") + xml.GetData() + xml.GetChildSubDoc(), "<&<a>&gt;</a>");
    EXPECT_EQ(Walk(xml, "b b b > /a /b"), "<b y='&lt;'/>|<b>&lt;</b>|none|>||");
    EXPECT_EQ(xml.GetAttrib("y") + xml.GetDoc(), "<<r x='&lt;'>&amp;<a>&gt;</a><b y='&lt;'/><b>&lt;</b></r>");
    whole.AddChildElem("c", "", 0);
  }
  EXPECT_EQ(Walk(whole, ". b c c c") + part.GetDoc(),
            "<b/>|<c></c>|<c></c>|none|<r x='&lt;'>&amp;<a>&gt;</a><b y='&lt;'/></r>");
}

TEST(Write, NoValueMakesTheDocumentUnreadable) {
  const std::string bad = "\xEF\xBF\xBD";
  const std::string good = "a<b>&amp;\"'</v>]]> \t1\r\n2\r \n\xC3\xBC\xF0\x9F\x98\x80\x7F";
  const std::pair<std::string, std::string> cases[] = {
      {good, good},
      {"\x01|\x1F|\xEF\xBF\xBE|\xEF\xBF\xBF", bad + "|" + bad + "|" + bad + "|" + bad},
      {"\xC0\xAF|\xED\xA0\x80", bad + bad + "|" + bad + bad + bad}};
  for (const auto& [value, seen] : cases) {
    CXML xml;
    xml.AddElem("v", value.c_str(), 0);
    CXML reader = Read(xml.GetDoc());
    EXPECT_EQ(Walk(reader, "/v"), seen + "|");
    EXPECT_EQ(xml.GetData(), seen);
  }
}

// What is written goes to the right place, whatever stands around it, and what stands behind is
// found.
TEST(Write, IntoTheMiddleOfAParsedDocument) {
  CXML xml = Read("<!-- h --><r> <a x='1' /><!-- m --><b>t</b ><c><d/>&lt;d/><f/></c>\n</r><!-- t -->");
  Walk(xml, "/r");
  xml.AddChildElem("e", 5, 0);
  xml.IntoElem();
  for (const char* name : {"^ /a", "^ /a", "^ /b", "^ /c > /d"}) {
    Walk(xml, name);
    EXPECT_EQ(xml.AddChildElem("n", 1, 0), 1);
  }
  EXPECT_EQ(xml.GetDoc(),
            "<!-- h --><r> <a x='1' ><n>1</n><n>1</n></a><!-- m --><b>t<n>1</n></b ><c><d><n>1</n></d>&lt;d/><f/></c>\n"
            "<e>5</e></r><!-- t -->");
  CXML reader = Read(xml.GetDoc());
  EXPECT_EQ(Walk(xml, ". a b c e /r > /c"), Walk(reader, "a b c e /r > /c"));
  Walk(xml, ". c");
  CXML part = xml.GetChildDoc();
  Walk(part, "/c");
  part.AddChildElem("n", 2, 0);
  EXPECT_EQ(Walk(part, "> /d n") + part.GetDoc(), "|<n>1</n>|<c><d><n>1</n></d>&lt;d/><f/><n>2</n></c>");
}

TEST(Write, TheLimitsOfReadingHold) {
  CXML xml;
  xml.AddElem("a", nullptr, 0);
  int depth = 1;
  for (; depth < 100 && xml.AddChildElem("a", nullptr, 0) != 0; ++depth) Walk(xml, "> /a");
  EXPECT_EQ(depth, CXML::kMaxDepth);
  Read(xml.GetDoc());
  const std::string value(CXML::kMaxBytes / 2, '<');  // four times as long when escaped
  xml = CXML();
  EXPECT_EQ(xml.AddElem("v", value.c_str(), 0), 0);
  EXPECT_EQ(xml.GetDoc(), "");
}

}  // namespace
