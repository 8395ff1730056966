#include "Vorelkit/Vorelkit.h"

#include <gtest/gtest.h>

#include <stdexcept>

namespace {

TEST(Text, Utf8IsReadStrictly) {
  const auto bad = [](std::size_t count) { return std::wstring(count, L'\uFFFD'); };
  const std::pair<const char*, std::wstring> cases[] = {
      {"aZ~\xC3\xBC\xE2\x82\xAC\xF0\x9F\x98\x80", L"aZ~\u00FC\u20AC\U0001F600"},
      {"\xC2\x80\xDF\xBF\xE0\xA0\x80\xF0\x90\x80\x80", L"\u0080\u07FF\u0800\U00010000"},
      {"\xED\x9F\xBF\xEE\x80\x80\xF4\x8F\xBF\xBF", L"\uD7FF\uE000\U0010FFFF"},
      {"\xED\xA0\x80\xED\xBF\xBF", bad(6)},                       // surrogates
      {"\xC0\x80\xC1\xBF\xE0\x9F\xBF\xF0\x8F\xBF\xBF", bad(11)},  // overlong
      {"\xF4\x90\x80\x80\xF8\xFF", bad(6)},                       // above 10FFFF
      {"\x80\xE2\x82x\xE2\x82", bad(3) + L"x" + bad(2)}};         // alone and cut off
  for (const auto& [utf8, wide] : cases) EXPECT_EQ(VkStrBuilder::Utf8ToUnicodeW(utf8), wide);
}

TEST(Alloc, TheChosenAllocationsFailAndNoMore) {
  std::string pattern;
  for (const std::size_t nth : {1, 3, 0}) {
    vorelkit::FailAllocation(nth, 2);
    for (int i = 0; i < 5; ++i) pattern += vorelkit::AllocationShallFail() ? '-' : '+';
  }
  EXPECT_EQ(pattern, "--+++++--++++++");
}

TEST(Alloc, WithoutMemoryANewGivesNullAndOtherExceptionsPass) {
  struct Throws {
    explicit Throws(const std::bad_alloc& e) { throw e; }
    explicit Throws(const std::runtime_error& e) { throw e; }
  };
  vorelkit::FailAllocation(1);
  EXPECT_EQ(vktNew<int>(1), nullptr);
  EXPECT_EQ(vktNew<Throws>(std::bad_alloc()), nullptr);
  EXPECT_THROW(static_cast<void>(vktNew<Throws>(std::runtime_error(""))), std::runtime_error);
}

}  // namespace
