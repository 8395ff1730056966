#include <gtest/gtest.h>

#include <new>
#include <string>

#include "Domletlib/Domletlib.h"
#include "failing_new.h"

namespace {

std::string Document(int elements) {
  std::string text = "<r a='1'>";
  for (int i = 0; i < elements; ++i) text += "<item key='value'>a text that is no short one</item>";
  return text + "</r>";
}

// After each failure the object is what it was.
TEST(Memory, EveryAllocationMayFailAndNothingLeaks) {
  const std::string before = Document(1);
  // Attribute values beyond the parser's own buffers make it grow them.
  for (const std::string& text :
       {Document(30), "<r a='" + std::string(9000, 'x') + "&amp;'/>", std::string("<r><not well formed at all></r>"),
        std::string("a value, no short one <&>")}) {
    long limit = 0;
    for (bool done = false; !done && limit < 1000; ++limit) {
      const long alive = failing_new::Alive();
      {
        CXML xml;
        xml.SetDoc(before);
        xml.FindElem("r");
        const CXML copy = xml;
        failing_new::Limit(limit);
        try {
          text[0] == '<' ? xml.SetDoc(text) : xml.AddChildElem("x", text.c_str(), 0);
          done = true;
        } catch (const std::bad_alloc&) {
        }
        failing_new::Limit(-1);
        EXPECT_EQ(copy.GetDoc(), before);
        EXPECT_TRUE(done || (xml.GetDoc() == before && xml.AddChildElem("a", 1, 0) != 0)) << limit;
      }
      CXML::TrimThread();
      ASSERT_EQ(failing_new::Alive(), alive) << limit;
    }
    EXPECT_TRUE(limit > 3 && limit < 1000) << limit;
  }
}

}  // namespace
