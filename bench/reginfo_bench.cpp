// What a reginfo document costs: parse, full replace and partial merge of N contacts, each beside a
// plain parse of the same text by the XML library, measured turn by turn in the same loop so that a
// busy machine slows both alike.
//
//   time          of one run
//   ratio         median of the runs by median of the plain parses
//   allocs        of one run; plain_allocs of the XML library alone
//   memory_ratio  bytes of the table that holds the document by bytes of its text

#include <benchmark/benchmark.h>
#include <expat.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "failing_new.h"
#include "registrationpackage.h"

namespace {

using Clock = std::chrono::steady_clock;

// A document of one registration whose version can be counted up in place.
class Document {
 public:
  Document(const std::string& state, std::int64_t contacts) {
    text_ = "<?xml version=\"1.0\"?>\n<reginfo xmlns=\"urn:ietf:params:xml:ns:reginfo\" version=\"";
    version_at_ = text_.size();
    text_ += "000000000\" state=\"" + state +
             "\">\n<registration aor=\"sip:alice@example.com\" id=\"r1\" state=\"active\">\n";
    for (std::int64_t i = 0; i < contacts; ++i) {
      const std::string id = std::to_string(i);
      text_ += "<contact id=\"c" + id +
               "\" state=\"active\" event=\"registered\" expires=\"3600\">"
               "<uri>sip:alice@192.0.2.17:5060;line=" +
               id + "</uri></contact>\n";
    }
    text_ += "</registration>\n</reginfo>\n";
  }

  const std::string& Next() {
    char digits[10];
    std::snprintf(digits, sizeof digits, "%09u", ++version_ % 1'000'000'000U);
    text_.replace(version_at_, 9, digits);
    return text_;
  }

 private:
  std::string text_;
  std::size_t version_at_ = 0;
  unsigned version_ = 0;
};

std::uint64_t g_plain_allocations = 0;

void* PlainAllocate(std::size_t size) {
  ++g_plain_allocations;
  return std::malloc(size);
}
void* PlainReallocate(void* memory, std::size_t size) {
  ++g_plain_allocations;
  return std::realloc(memory, size);
}

void PlainParse(const std::string& text) {
  static constexpr XML_Memory_Handling_Suite kMemory{PlainAllocate, PlainReallocate, std::free};
  XML_Parser parser = XML_ParserCreate_MM(nullptr, &kMemory, nullptr);
  if (XML_Parse(parser, text.data(), static_cast<int>(text.size()), XML_TRUE) != XML_STATUS_OK) {
    std::abort();
  }
  XML_ParserFree(parser);
}

double Median(std::vector<double>& values) {
  const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
  std::nth_element(values.begin(), middle, values.end());
  return *middle;
}

// Runs `run` on the document's next version, and the plain parse beside it.
template <typename Run>
void Measure(benchmark::State& state, Document& document, const Run& run) {
  std::vector<double> plain;
  std::vector<double> own;
  std::uint64_t allocations = 0;
  g_plain_allocations = 0;
  for (auto _ : state) {
    const std::string& text = document.Next();
    const auto begin = Clock::now();
    PlainParse(text);
    const auto middle = Clock::now();
    const std::size_t before = failing_new::Allocations();
    run(text);
    const auto end = Clock::now();
    allocations += failing_new::Allocations() - before;
    plain.push_back(std::chrono::duration<double>(middle - begin).count());
    own.push_back(std::chrono::duration<double>(end - middle).count());
    state.SetIterationTime(own.back());
  }
  const auto runs = static_cast<double>(own.size());
  state.counters["ratio"] = Median(own) / Median(plain);
  state.counters["allocs"] = static_cast<double>(allocations) / runs;
  state.counters["plain_allocs"] = static_cast<double>(g_plain_allocations) / runs;
}

void Expect(bool holds) {
  if (!holds) std::abort();
}

void Parse(benchmark::State& state) {
  Document document("full", state.range(0));
  Measure(state, document, [](const std::string& text) {
    CRegInfo info;
    Expect(info.Parse(text.c_str()) == 1);
  });
}

void FullReplace(benchmark::State& state) {
  Document document("full", state.range(0));
  CRegistrationTable table;
  const long before = failing_new::AliveBytes();
  const std::string& first = document.Next();
  Expect(table.Update(first.c_str()) == 0);
  const long held = failing_new::AliveBytes() - before;
  Measure(state, document,
          [&](const std::string& text) { Expect(table.Update(text.c_str()) == 0); });
  Expect(table.GetRegistration(0)->GetContactCount() == state.range(0));
  state.counters["memory_ratio"] = static_cast<double>(held) / static_cast<double>(first.size());
}

void PartialMerge(benchmark::State& state) {
  Document document("partial", state.range(0));
  CRegistrationTable table;
  Expect(table.Update(document.Next().c_str()) == 1);
  Measure(state, document,
          [&](const std::string& text) { Expect(table.Update(text.c_str()) == 0); });
  Expect(table.GetRegistration(0)->GetContactCount() == state.range(0));
}

void Sizes(benchmark::internal::Benchmark* benchmark) {
  benchmark->RangeMultiplier(10)->Range(1, 10000)->UseManualTime()->Unit(benchmark::kMicrosecond);
  benchmark->MinTime(0.3);
}
BENCHMARK(Parse)->Apply(Sizes);
BENCHMARK(FullReplace)->Apply(Sizes);
BENCHMARK(PartialMerge)->Apply(Sizes);

}  // namespace

BENCHMARK_MAIN();
