#include "Vorelkit/Vorelkit.h"

#include <gtest/gtest.h>

#include <atomic>
#include <stdexcept>
#include <thread>
#include <vector>

namespace {

TEST(Text, Utf8IsReadStrictly) {
  const struct {
    const char* utf8;
    const wchar_t* wide;
  } cases[] = {
      {"", L""},
      {"aZ~", L"aZ~"},
      {"\xC3\xBC\xE2\x82\xAC\xF0\x9F\x98\x80", L"\u00FC\u20AC\U0001F600"},
      {"\xC2\x80\xDF\xBF\xE0\xA0\x80\xF0\x90\x80\x80\xF4\x8F\xBF\xBF",
       L"\u0080\u07FF\u0800\U00010000\U0010FFFF"},
      {"\xED\x9F\xBF\xEE\x80\x80", L"\uD7FF\uE000"},  // beside the surrogates
      {"\xED\xA0\x80|\xED\xBF\xBF", L"\uFFFD\uFFFD\uFFFD|\uFFFD\uFFFD\uFFFD"},  // surrogates
      {"\xC0\x80|\xC1\xBF", L"\uFFFD\uFFFD|\uFFFD\uFFFD"},                      // overlong
      {"\xE0\x9F\xBF", L"\uFFFD\uFFFD\uFFFD"},
      {"\xF0\x8F\xBF\xBF", L"\uFFFD\uFFFD\uFFFD\uFFFD"},
      {"\xF4\x90\x80\x80", L"\uFFFD\uFFFD\uFFFD\uFFFD"},  // above 10FFFF
      {"\xF8\xFF", L"\uFFFD\uFFFD"},
      {"\x80x\xE2\x82", L"\uFFFDx\uFFFD\uFFFD"},  // alone and cut off
      {"\xE2\x82\x41", L"\uFFFD\uFFFD\u0041"},
  };
  for (const auto& c : cases) EXPECT_EQ(VkStrBuilder::Utf8ToUnicodeW(c.utf8), c.wide) << c.utf8;
  EXPECT_EQ(VkStrBuilder::Utf8ToUnicodeW(std::string_view("a\0b", 3)), std::wstring(L"a\0b", 3));
}

// The pattern of `count` allocations: '+' for an object, '-' for null.
std::string Pattern(int count) {
  std::string pattern;
  for (int i = 0; i < count; ++i) {
    int* number = vktNew<int>(i);
    pattern += number != nullptr ? '+' : '-';
    vktDelete(number);
  }
  return pattern;
}

TEST(Alloc, TheChosenAllocationsFail) {
  EXPECT_EQ(Pattern(2), "++");
  vorelkit::FailAllocation(1);
  EXPECT_EQ(Pattern(3), "-++");
  vorelkit::FailAllocation(3, 2);
  EXPECT_EQ(Pattern(6), "++--++");
  vorelkit::FailAllocation(2, SIZE_MAX);
  EXPECT_EQ(Pattern(4), "+---");
  vorelkit::FailAllocation(0);
  EXPECT_EQ(Pattern(2), "++");
}

TEST(Alloc, AConstructorWithoutMemoryGivesNullAndOtherExceptionsPass) {
  struct NoMemory {
    NoMemory() { throw std::bad_alloc(); }
  };
  struct Broken {
    Broken() { throw std::runtime_error("broken"); }
  };
  EXPECT_EQ(vktNew<NoMemory>(), nullptr);
  EXPECT_THROW(static_cast<void>(vktNew<Broken>()), std::runtime_error);
  vktDelete<Broken>(nullptr);
}

TEST(Alloc, ExactlyTheChosenNumberFailsAcrossThreads) {
  constexpr int kThreads = 4;
  constexpr int kEach = 20'000;
  std::atomic<int> failed{0};
  vorelkit::FailAllocation(1000, 777);
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < kEach; ++i) {
        int* number = vktNew<int>(i);
        if (number == nullptr) ++failed;
        vktDelete(number);
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(failed, 777);
}

}  // namespace
