#include <array>
#include <string>

#include "kdcore_support.h"

namespace kdtest {
namespace {

TEST(Text, NumbersSaturateAt32Bits) {
  const struct {
    const char* text;
    KDint value;
    KDint error;
  } cases[] = {
      {"2147483647", 2147483647, 0},
      {"-2147483648", -2147483647 - 1, 0},
      {"2147483648", 2147483647, KD_ERANGE},
      {"-99999999999", -2147483647 - 1, KD_ERANGE},
      {"99999999999999999999999", 2147483647, KD_ERANGE},
      {" 12abc", 12, 0},
      {"abc", 0, 0},
  };
  for (const auto& c : cases) {
    kdSetError(0);
    EXPECT_EQ(kdStrtol(c.text, nullptr, 10), c.value) << c.text;
    EXPECT_EQ(kdGetError(), c.error) << c.text;
  }
  const char* text = "ff;";
  char* end = nullptr;
  EXPECT_EQ(kdStrtol(text, &end, 16), 255);
  EXPECT_EQ(end, text + 2);
}

TEST(Text, ACopyFitsOrLeavesAnEmptyText) {
  std::array<char, 4> buf{'x', 'x', 'x', 'x'};
  EXPECT_EQ(kdStrcpy_s(buf.data(), buf.size(), "abc"), 0);
  EXPECT_STREQ(buf.data(), "abc");
  EXPECT_EQ(kdStrcpy_s(buf.data(), buf.size(), "abcd"), -1);
  EXPECT_EQ(kdGetError(), KD_ERANGE);
  EXPECT_STREQ(buf.data(), "");
  EXPECT_EQ(kdStrcpy_s(buf.data(), 0, ""), -1);
  EXPECT_EQ(kdStrcpy_s(nullptr, 4, "a"), -1);
  EXPECT_EQ(kdGetError(), KD_EINVAL);
}

TEST(Text, Formatting) {
  std::array<char, 32> buf{};
  EXPECT_EQ(kdSprintfKHR(buf.data(), "%d/%s", -5, "x"), 4);
  EXPECT_STREQ(buf.data(), "-5/x");
}

}  // namespace
}  // namespace kdtest
