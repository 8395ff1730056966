#include <gtest/gtest.h>

#include <functional>
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

// Runs the work with ever more memory until it succeeds; after each failure the object is what it
// was.
void Sweep(const std::string& before, const std::function<void(CXML&)>& work) {
  long limit = 0;
  for (bool done = false; !done; ++limit) {
    ASSERT_LT(limit, 1000);
    const long alive = failing_new::Alive();
    {
      CXML xml;
      ASSERT_NE(xml.SetDoc(before), 0);
      xml.FindElem("r");
      CXML copy = xml;
      failing_new::Limit(limit);
      try {
        work(xml);
        done = true;
      } catch (const std::bad_alloc&) {
        done = false;
      }
      failing_new::Limit(-1);
      EXPECT_EQ(copy.GetDoc(), before);
      if (!done) {
        EXPECT_EQ(xml.GetDoc(), before) << limit;
        EXPECT_NE(xml.FindChildElem("item"), 0) << limit;
        EXPECT_NE(xml.AddChildElem("again", "1", 0), 0) << limit;
      }
    }
    ASSERT_EQ(failing_new::Alive(), alive) << limit;
  }
  EXPECT_GT(limit, 3) << "hardly an allocation failed";
}

TEST(Memory, EveryAllocationMayFailAndNothingLeaks) {
  const std::string before = Document(1);
  const std::string other = Document(30);
  // Attribute values beyond the parser's own buffers make it grow them.
  const std::string big = "<r a='" + std::string(9000, 'x') + "&amp;'/>";
  Sweep(before, [&](CXML& xml) { EXPECT_NE(xml.SetDoc(other), 0); });
  Sweep(before, [&](CXML& xml) { EXPECT_NE(xml.SetDoc(big), 0); });
  Sweep(before, [&](CXML& xml) { EXPECT_EQ(xml.SetDoc("<r><not well formed at all></r>"), 0); });
  Sweep(before, [&](CXML& xml) {
    EXPECT_NE(xml.AddChildElem("child", "a value that is longer than a small string <&>", 0), 0);
  });
}

TEST(Memory, AllocationsDoNotGrowWithTheDocument) {
  const auto allocations = [](int elements) {
    const std::string text = Document(elements);
    CXML xml;
    const std::size_t before = failing_new::Allocations();
    EXPECT_NE(xml.SetDoc(text), 0);
    CXML copy = xml;
    return failing_new::Allocations() - before;
  };
  allocations(1);
  EXPECT_LE(allocations(4000), allocations(10) + 8);
}

}  // namespace
