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
  const std::string texts[] = {Document(30), "<r a='" + std::string(9000, 'x') + "&amp;'/>",
                               "<r><not well formed at all></r>",
                               "a value that is no short one <&>"};
  for (const std::string& text : texts) {
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
          static_cast<void>(text[0] == '<' ? xml.SetDoc(text)
                                           : xml.AddChildElem("x", text.c_str(), 0));
          done = true;
        } catch (const std::bad_alloc&) {
        }
        failing_new::Limit(-1);
        EXPECT_EQ(copy.GetDoc(), before);
        EXPECT_TRUE(done || (xml.GetDoc() == before && xml.FindChildElem("item") != 0)) << limit;
        EXPECT_TRUE(done || xml.AddChildElem("again", 1, 0) != 0) << limit;
      }
      ASSERT_EQ(failing_new::Alive(), alive) << limit;
    }
    EXPECT_TRUE(limit > 3 && limit < 1000) << limit << " allocations";
  }
}

TEST(Memory, AllocationsDoNotGrowWithTheDocument) {
  const auto allocations = [](int elements) {
    const std::string text = Document(elements);
    const std::size_t before = failing_new::Allocations();
    CXML xml;
    EXPECT_NE(xml.SetDoc(text), 0);
    const CXML copy = xml;
    return failing_new::Allocations() - before;
  };
  EXPECT_LE(allocations(4000), allocations(10) + 8);
}

}  // namespace
