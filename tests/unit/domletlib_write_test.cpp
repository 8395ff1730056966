#include <gtest/gtest.h>

#include <climits>
#include <string>

#include "Domletlib/Domletlib.h"

namespace {

// The value of the only child <v> after writing it, by the writer and by a reader of its text.
std::string Written(const char* value) {
  CXML xml;
  xml.AddElem("r", nullptr, 0);
  EXPECT_NE(xml.AddChildElem("v", value, 0), 0);
  CXML reader;
  EXPECT_NE(reader.SetDoc(xml.GetDoc()), 0) << xml.GetDoc() << ": " << reader.LastError();
  std::string seen;
  for (CXML* each : {&xml, &reader}) {
    each->ResetPos();
    each->FindElem("r");
    each->IntoElem();
    EXPECT_NE(each->FindElem("v"), 0);
    if (each == &reader) {
      EXPECT_EQ(each->GetData(), seen) << xml.GetDoc();
    }
    seen = each->GetData();
  }
  return seen;
}

TEST(Write, AnAnswerIsWrittenAndReadLikeAParsedOne) {
  CXML xml;
  EXPECT_EQ(xml.AddChildElem("id", 1, 0), 0) << "there is no main element";
  EXPECT_NE(xml.AddElem("reg", nullptr, 0), 0);
  EXPECT_EQ(xml.GetDoc(), "<reg/>");
  EXPECT_NE(xml.AddChildElem("ret", "0", 0), 0);
  EXPECT_NE(xml.AddChildElem("id", INT_MIN, 0), 0);
  EXPECT_NE(xml.AddChildElem("none", nullptr, 0), 0);
  EXPECT_EQ(xml.AddElem("reg", nullptr, 0), 0) << "there is a root";
  EXPECT_EQ(xml.GetDoc(), "<reg><ret>0</ret><id>-2147483648</id><none/></reg>");
  xml.ResetPos();
  EXPECT_NE(xml.FindChildElem("id"), 0);
  EXPECT_EQ(xml.GetChildSubDoc(), "<id>-2147483648</id>");
  EXPECT_NE(xml.FindElem("reg"), 0);
  xml.IntoElem();
  EXPECT_NE(xml.FindElem("none"), 0);
  EXPECT_EQ(xml.GetData(), "");
}

TEST(Write, NoValueMakesTheDocumentUnreadable) {
  EXPECT_EQ(Written("a<b>&amp;\"'</v>]]>"), "a<b>&amp;\"'</v>]]>");
  EXPECT_EQ(Written(" \t1\r\n2\r \n"), " \t1\r\n2\r \n");
  EXPECT_EQ(Written("\xC3\xBC\xF0\x9F\x98\x80\x7F"), "\xC3\xBC\xF0\x9F\x98\x80\x7F");
  EXPECT_EQ(Written("\x01|\x1F"), "\xEF\xBF\xBD|\xEF\xBF\xBD");
  EXPECT_EQ(Written("\xEF\xBF\xBE|\xEF\xBF\xBF"), "\xEF\xBF\xBD|\xEF\xBF\xBD");
  EXPECT_EQ(Written("\xC0\xAF|\xED\xA0\x80"),
            "\xEF\xBF\xBD\xEF\xBF\xBD|\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD");
}

TEST(Write, NamesThatAreNoneAreRefused) {
  CXML xml;
  for (const char* name : {"", "1a", "-a", "a b", "a>", "a/", "a\n", "\xC3\xBC", ":a"}) {
    EXPECT_EQ(xml.AddElem(name, "", 0), 0) << name;
  }
  EXPECT_EQ(xml.AddElem(nullptr, "", 0), 0);
  EXPECT_EQ(xml.GetDoc(), "");
  EXPECT_NE(xml.AddElem("_a-1.b:c", "x", 0), 0);
  EXPECT_EQ(xml.GetDoc(), "<_a-1.b:c>x</_a-1.b:c>");
}

// Elements are put into the text at the right place whatever stands around, and what stands behind
// is still found where it is now.
TEST(Write, IntoTheMiddleOfAParsedDocument) {
  CXML xml;
  ASSERT_NE(xml.SetDoc("<!-- h --><r> <a x='1' /><!-- m --><b>t</b ><c><d/></c>\n</r><!-- t -->"),
            0);
  xml.FindElem("r");
  EXPECT_NE(xml.AddChildElem("e", "5", 0), 0);
  xml.IntoElem();
  xml.FindElem("a");
  EXPECT_NE(xml.AddChildElem("n", "1", 0), 0);
  EXPECT_NE(xml.AddChildElem("n", "2", 0), 0);
  EXPECT_EQ(xml.GetAttrib("x"), "1");
  xml.FindElem("b");
  EXPECT_NE(xml.AddChildElem("n", "3", 0), 0);
  EXPECT_EQ(xml.GetData(), "t");
  const std::string expected =
      "<!-- h --><r> <a x='1' ><n>1</n><n>2</n></a><!-- m --><b>t<n>3</n></b ><c><d/></c>\n"
      "<e>5</e></r><!-- t -->";
  EXPECT_EQ(xml.GetDoc(), expected);
  CXML reader;
  ASSERT_NE(reader.SetDoc(expected), 0);
  for (const char* name : {"a", "b", "c", "e"}) {
    xml.ResetPos();
    reader.ResetPos();
    ASSERT_NE(xml.FindChildElem(name), 0);
    ASSERT_NE(reader.FindChildElem(name), 0);
    EXPECT_EQ(xml.GetChildSubDoc(), reader.GetChildSubDoc());
  }
}

TEST(Write, TheLimitsOfReadingHoldForWriting) {
  CXML deep;
  deep.AddElem("a", nullptr, 0);
  for (int depth = 2; depth <= CXML::kMaxDepth; ++depth) {
    ASSERT_NE(deep.AddChildElem("a", nullptr, 0), 0);
    deep.IntoElem();
    ASSERT_NE(deep.FindElem("a"), 0);
  }
  EXPECT_EQ(deep.AddChildElem("a", nullptr, 0), 0);
  CXML reader;
  EXPECT_NE(reader.SetDoc(deep.GetDoc()), 0) << reader.LastError();

  CXML wide;
  wide.AddElem("r", nullptr, 0);
  const std::string value(CXML::kMaxBytes / 2, '<');  // four times as long when escaped
  EXPECT_EQ(wide.AddChildElem("v", value.c_str(), 0), 0);
  EXPECT_EQ(wide.GetDoc(), "<r/>");
}

TEST(Write, ManyChildrenStayCheap) {
  CXML xml;
  xml.AddElem("r", nullptr, 0);
  for (int i = 0; i < 100'000; ++i) ASSERT_NE(xml.AddChildElem("i", i, 0), 0);
  int count = 0;
  while (xml.FindChildElem("i") != 0) ++count;
  EXPECT_EQ(count, 100'000);
  EXPECT_EQ(xml.GetChildSubDoc(), "<i>99999</i>");
}

}  // namespace
