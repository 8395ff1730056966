// What the reginfo model takes of memory, and what it does when there is no memory.

#include <gtest/gtest.h>

#include <climits>
#include <functional>
#include <memory>
#include <set>
#include <string>

#include "failing_new.h"
#include "RegInfoDump.h"

namespace {

std::string Info(int version, const std::string& state, const std::string& body) {
  return "<reginfo version='" + std::to_string(version) + "' state='" + state + "'>" + body + "</reginfo>";
}
std::string Reg(int from, int to, const std::string& event = "registered", const std::string& id = "r1") {
  std::string text = "<registration aor='sip:alice@example.com' id='" + id + "' state='active'>";
  for (int i = from; i < to; ++i) {
    text += "<contact id=\"c" + std::to_string(i) + "\" state=\"active\" event=\"" + event +
            "\" expires=\"3600\"><uri>sip:alice@192.0.2.17:5060;line=" + std::to_string(i) + "</uri></contact>\n";
  }
  return text + "</registration>";
}

// Runs the test with each allocation failing in turn, alone or with all behind it, until none is left to fail. It
// passes what shall fail to its argument, which tells whether memory ran out, and gives that back.
using Starve = std::function<bool(const std::function<void()>&)>;
void Sweep(const std::function<bool(const Starve&)>& test) {
  for (const bool all : {false, true}) {
    long n = 1;
    for (bool starved = true; starved && n < 5000; ++n) {
      const long alive = failing_new::Alive();
      starved = test([&](const std::function<void()>& run) {
        failing_new::Fail(n, all ? LONG_MAX : n);
        failing_new::TakePart(true);
        run();
        failing_new::TakePart(false);
        return failing_new::Fail(0, 0) >= n;
      });
      ASSERT_EQ(failing_new::Alive(), alive) << n;
    }
    ASSERT_TRUE(n > 10 && n < 5000) << n;
  }
}

std::set<std::string> Contacts(const CRegistrationTable& table) {
  std::set<std::string> contacts;
  for (int i = 0; const CRegistration* reg = table.GetRegistration(i); ++i) {
    for (int j = 0; const CContact* contact = reg->GetContact(j); ++j) contacts.insert(RegInfoDump::Of(*contact));
  }
  return contacts;
}

// A document is refused, or its entries are taken over: each whole or not at all. So are a clone and an update of
// elements, which leave their source as it was.
TEST(RegInfoMemory, RunsOutWhileADocumentIsApplied) {
  for (const std::string state : {"full", "partial"}) {
    const std::string base = Info(1, "full", Reg(0, 20) + Reg(0, 2, "registered", "r2"));
    const std::string newer = Info(2, state, Reg(10, 40, "refreshed") + Reg(0, 3, "a reason not short", "r3"));
    CRegistrationTable fed;
    fed.Update(base.c_str());
    const std::string before = RegInfoDump::Registrations(fed, true);
    std::set<std::string> known = Contacts(fed);
    EXPECT_EQ(fed.Update(newer.c_str()), 0);
    const std::string after = RegInfoDump::Registrations(fed, true);
    known.merge(Contacts(fed));
    CRegInfo source;
    source.Parse(newer.c_str());
    const std::string whole = RegInfoDump::Of(source, true);
    Sweep([&](const Starve& starve) {
      CRegInfo own;
      std::unique_ptr<CRegInfo> clone;
      own.Parse(base.c_str());
      CRegistrationTable table;
      table.Update(base.c_str());
      int result = 7;
      const bool starved = starve([&] {
        result = table.Update(newer.c_str());
        clone.reset(source.Clone());
        own.Update(&source);
      });
      EXPECT_TRUE(starved || RegInfoDump::Of(*clone, true) == whole);
      EXPECT_TRUE(own.Parse(newer.c_str()) == 1 && RegInfoDump::Of(own, true) == whole);
      EXPECT_EQ(RegInfoDump::Of(source, true), whole);
      EXPECT_TRUE(result == 0 || (starved && result == -1)) << result;
      EXPECT_TRUE(starved || RegInfoDump::Registrations(table, true) == after);
      EXPECT_TRUE(result == 0 ? table.GetVersion() == "2" : RegInfoDump::Registrations(table, true) == before);
      for (const std::string& contact : Contacts(table)) EXPECT_TRUE(known.count(contact) == 1) << contact;
      EXPECT_EQ(table.Update(Info(3, "full", Reg(0, 5)).c_str()), 0);
      EXPECT_EQ(Contacts(table).size(), 5U);
      return starved;
    });
  }
}

double Ratio(long held, std::size_t text) { return static_cast<double>(held) / static_cast<double>(text); }

TEST(RegInfoMemory, IsAFewTimesTheText) {
  for (const std::string state : {"full", "partial"}) {
    CRegistrationTable table;
    const long before = failing_new::AliveBytes();
    for (int version = 1; version < 4; ++version) {
      const std::string text = Info(version, state, Reg(0, 1000));
      table.Update(text.c_str());
      EXPECT_LE(Ratio(failing_new::AliveBytes() - before - static_cast<long>(text.capacity()), text.size()), 7.0);
    }
  }
  CRegInfo info;  // a copy does not copy the document
  info.Parse(Info(1, "full", "<!--" + std::string(1'000'000, 'x') + "-->").c_str());
  const long before = failing_new::AliveBytes();
  const std::unique_ptr<CElement> clone(info.Clone());
  EXPECT_LT(failing_new::AliveBytes() - before, 10'000);
}

// Each document names fifty contacts, and one that the next does not name any more: none of them keeps its document.
TEST(RegInfoMemory, OldDocumentsAreNotKept) {
  CRegistrationTable table;
  const long before = failing_new::AliveBytes();
  constexpr int kDocuments = 400;
  for (int i = 1; i <= kDocuments; ++i) table.Update(Info(i, "partial", Reg(i, i + 50)).c_str());
  EXPECT_EQ(Contacts(table).size(), kDocuments + 49U);
  EXPECT_EQ(RegInfoDump::Document(*table.GetRegistration(0)), Reg(kDocuments, kDocuments + 50));
  EXPECT_LE(Ratio(failing_new::AliveBytes() - before, Reg(0, kDocuments + 50).size()), 16.0);
}

}  // namespace
