#include "services/subscription/reginfo_sequence.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <map>
#include <new>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "failing_new.h"
#include "registrationpackage.h"

namespace {

using subscription::ReginfoSequence;
using Verdict = ReginfoSequence::Verdict;
using Contacts = std::vector<std::string>;

constexpr char kAor[] = "sip:alice@example.com";
const std::string kOwn = "sip:alice@192.0.2.1:5060;line=7";

std::string Uri(const std::string& name) {
  static const std::map<std::string, std::string> kOurs = {
      {"", ""}, {"own", kOwn}, {"second", "sip:alice@192.0.2.1:5060;line=8"}, {"moved", "sip:alice@[2001:db8::4]"}};
  const auto ours = kOurs.find(name);
  return ours != kOurs.end() ? ours->second : "sip:" + name + "@192.0.2.9:5062;transport=tcp";
}

std::vector<std::string> Split(const std::string& text, char by) {
  std::istringstream in(text + by);
  std::vector<std::string> parts;
  for (std::string part; std::getline(in, part, by);) parts.push_back(part);
  return parts;
}

// A document in words, written out; every other text stays as it is.
std::string Document(const std::string& words) {
  std::istringstream in(words);
  std::string state, version, word, text, end;
  in >> state >> version;
  if (state != "full" && state != "partial") return words;
  text = "<reginfo xmlns=\"urn:ietf:params:xml:ns:reginfo\" version=\"" + version + "\" state=\"" + state + "\">";
  while (in >> word) {
    if (word.find('/') == std::string::npos) {
      const auto part = Split(word + ":alice", ':');
      text += end + "<registration aor=\"sip:" + part[2] + "@example.com\" id=\"" + part[0] + "\" state=\"" + part[1];
      text += "\">";
      end = "</registration>";
    } else {
      const auto part = Split(word, '/');
      text += "<contact id=\"" + part[0] + "\" state=\"" + part[1] + "\" event=\"" + part[2] + "\"><uri>";
      text += Uri(part[3]) + "</uri></contact>";
    }
  }
  return text + end + "</reginfo>";
}

std::string Told(const ReginfoSequence::Result& result) {
  static const std::map<Verdict, std::string> kWords = {
      {Verdict::kRepeated, "repeated"}, {Verdict::kHeldBack, "held"}, {Verdict::kUnreadable, "unreadable"}};
  EXPECT_EQ(result.full_wanted, !result.reason.empty());
  return (result.full_wanted ? "ask " : "") +
         (result.verdict == Verdict::kHandedOn ? result.document : kWords.at(result.verdict));
}

// The lines of the file that begin with one of these; behind the line's name.
std::vector<std::pair<std::string, std::string>> Cases(const std::string& kinds) {
  std::ifstream file(CASES);
  std::vector<std::pair<std::string, std::string>> cases;
  int number = 0;
  for (std::string line; std::getline(file, line);) {
    ++number;
    if (line.size() < 2 || kinds.find(line[0]) == std::string::npos) continue;
    cases.emplace_back("line " + std::to_string(number) + ": " + line, line.substr(2));
  }
  EXPECT_GT(cases.size(), 5U);
  return cases;
}

// Every document that is handed on also has to be one that the component's table takes.
TEST(ReginfoSequence, KeepsWhatRegistrarsOfManyMannersBreak) {
  std::string told;
  std::optional<ReginfoSequence> sequence;
  CRegistrationTable table;
  for (auto [line, words] : Cases("=<>")) {
    SCOPED_TRACE(line);
    const auto take = [&words = words](const std::string& word) {
      const bool found = words.rfind(word, 0) == 0;
      if (found) words.erase(0, word.size());
      return found;
    };
    const char kind = line[line.find(": ") + 2];
    if (kind == '=') {
      sequence.emplace(kAor);
      table = CRegistrationTable();
    } else if (kind == '<') {
      if (take("close ")) sequence->Close();
      const bool new_dialog = take("new ");
      Contacts mine = {kOwn};
      if (take("mine=")) {
        mine = Split(words.substr(0, words.find(' ')), ',');
        std::transform(mine.begin(), mine.end(), mine.begin(), Uri);
        words.erase(0, words.find(' ') + 1);
      }
      const auto result = sequence->Process(Document(words), new_dialog, mine);
      told = Told(result);
      EXPECT_TRUE(result.verdict != Verdict::kHandedOn || table.Update(result.document.c_str()) == 0);
    } else {
      EXPECT_EQ(told, take("ask ") ? "ask " + Document(words) : Document(words));
    }
  }
}

// What is not ours to change is not changed: spaces, comments, quotes, foreign names, the encoding. And ids that need
// escapes are written so that they stay the same, in quotes of either kind.
TEST(ReginfoSequence, LeavesTheRestOfADocumentAsItIs) {
  const std::string before =
      "\xEF\xBB\xBF<?xml version='1.0' encoding='utf-8'?>\r\n<!-- <contact id='o'/> -->\n"
      "<reginfo xmlns:x='urn:x' state = 'full' x:version='9'\n version\n=\t'7'  "
      "xmlns='urn:ietf:params:xml:ns:reginfo'>\n"
      "  <x:registration id='r' aor='a>b'><contact id='o'/></x:registration><?pi <contact> ?>\n"
      "  <registration id='r&amp;&apos;1' aor='sip:alice@EXAMPLE.com' state='active'>\n"
      "    <contact q='0.5' event='registered' state='active' id=\"a>\"><uri><![CDATA[sip:a@192.0.2.9]]></uri>"
      "<unknown-param name='+x'>\"&lt;\xC3\xA4&gt;\"</unknown-param></contact>\n"
      "    <contact event='created' id='\"&#39;&#9;' state='active'>  <x:uri/><uri>\n" +
      kOwn +
      " </uri><uri>sip:b@192.0.2.9</uri><display-name xml:lang='de'>\xC3\x84</display-name>\t</contact>\n"
      "  </registration><x:end/>\n</reginfo>\n<!-- end -->";
  const auto with = [](std::string text, const std::string& from, const std::string& to) {
    return text.replace(text.find(from), from.size(), to);
  };
  ReginfoSequence sequence(kAor);
  EXPECT_EQ(Told(sequence.Process(before, true, Contacts{kOwn})), with(before, "'7'", "'0'"));
  const std::string fresh_id = with(before, "id='\"&#39;&#9;'", "id='1'");
  EXPECT_EQ(Told(sequence.Process(with(fresh_id, "\"a>\"", "'\"&#39;&#9;'"), false, Contacts{kOwn})),
            with(with(with(fresh_id, "'7'", "'1'"), "'1' state", "'&quot;&apos;&#9;' state"), "\"a>\"",
                 "'&quot;&apos;&#9;~'"));
}

// The contact that is taken for ours ends up last.
TEST(ReginfoSequence, KnowsTheOwnContactHoweverItIsWritten) {
  for (const auto& [line, words] : Cases("~")) {
    const auto uri = Split(words, '|');
    const std::string contact = "<contact id='o' state='active' event='created'><uri>" + uri[0] + "</uri></contact>";
    const std::string body = "<reginfo version='1' state='full'><registration aor='tel:1' id='r' state='active'>" +
                             contact + "<contact id='x' state='active' event='created'><uri>" + uri[1] +
                             "</uri></contact></registration></reginfo>";
    const std::string out = Told(ReginfoSequence(kAor).Process(body, true, Contacts{kOwn}));
    EXPECT_NE(out.find(contact + "</registration>"), std::string::npos) << line << '\n' << out;
    EXPECT_EQ(Told(ReginfoSequence(kAor).Process(body, true, Contacts{"sip:carol@192.0.2.1", "", "<"})), "held");
  }
}

TEST(ReginfoSequence, SaysWhyADocumentIsUnreadable) {
  auto cases = Cases("!");
  cases.emplace_back("", "too long|" + std::string(65536, ' '));
  for (const auto& [line, words] : cases) {
    const auto part = Split(words, '|');
    const auto result = ReginfoSequence(kAor).Process(Document(part[1]), true, Contacts{kOwn});
    EXPECT_EQ(Told(result), "ask unreadable") << line;
    EXPECT_NE(result.reason.find(part[0]), std::string::npos) << line << '\n' << result.reason;
  }
}

// After each failure the sequence is what it was.
TEST(ReginfoSequence, EveryAllocationMayFailAndNothingLeaks) {
  const std::string first =
      Document("full 3 r1:active o/active/created/own an-id-that-is-no-short-one/active/created/ann");
  for (const std::string& body : {Document("full 4 r7:active o/active/created/ann x/active/refreshed/own"),
                                  Document("partial 5 r2:active:bob"), Document("full 6")}) {
    const Contacts mine = {kOwn};
    long limit = 0;
    for (bool done = false; !done && limit < 1000; ++limit) {
      ReginfoSequence sequence(kAor), twin(kAor);
      EXPECT_EQ(Told(sequence.Process(first, true, mine)), Told(twin.Process(first, true, mine)));
      const long alive = failing_new::Alive();
      failing_new::Limit(limit);
      try {
        static_cast<void>(ReginfoSequence(sequence).Process(body, true, mine));
        static_cast<void>(sequence.Process(body, true, mine));
        done = true;
      } catch (const std::bad_alloc&) {
      }
      failing_new::Limit(-1);
      if (done) break;
      ASSERT_EQ(failing_new::Alive(), alive) << limit;
      EXPECT_EQ(Told(sequence.Process(body, true, mine)), Told(twin.Process(body, true, mine))) << limit;
    }
    EXPECT_TRUE(limit > 20 && limit < 1000) << limit;
  }
}

}  // namespace
