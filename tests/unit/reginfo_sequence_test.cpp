#include "services/subscription/reginfo_sequence.h"

#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
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

constexpr char kAor[] = "sip:alice@example.com";

// The file's cases speak of contacts by names; what has a colon stands for itself.
std::string Uri(const std::string& name) {
  static const std::map<std::string, std::string> kOurs = {{"", ""},
                                                           {"own", "sip:alice@192.0.2.1:5060;line=7"},
                                                           {"second", "sip:alice@192.0.2.1:5060;line=8"},
                                                           {"moved", "sip:alice@[2001:db8::4]"}};
  const auto ours = kOurs.find(name);
  if (ours != kOurs.end()) return ours->second;
  return name.find(':') != std::string::npos ? name : "sip:" + name + "@192.0.2.9:5062;transport=tcp";
}

std::vector<std::string> Split(const std::string& text, char by) {
  std::istringstream in(text + by);
  std::vector<std::string> parts;
  for (std::string part; std::getline(in, part, by);) parts.push_back(part);
  return parts;
}

// A document in words, written out; every other text stays as it is.
std::string Document(const std::string& words) {
  const auto word = Split(words, ' ');
  if (word[0] != "full" && word[0] != "partial") return words;
  std::string text = "<reginfo version=\"" + word[1] + "\" state=\"" + word[0] + "\">", end;
  for (std::size_t i = 2; i < word.size(); ++i) {
    if (const auto part = Split(word[i], '/'); part.size() == 4) {
      text += "<contact id=\"" + part[0] + "\" state=\"" + part[1] + "\" event=\"" + part[2] + "\"><uri>";
      text += Uri(part[3]) + "</uri></contact>";
    } else {
      const auto of = Split(word[i] + ":alice", ':');
      text += end + "<registration aor=\"sip:" + of[2] + "@example.com\" id=\"" + of[0] + "\" state=\"" + of[1] + "\">";
      end = "</registration>";
    }
  }
  return text + end + "</reginfo>";
}

std::string Told(const ReginfoSequence::Result& result) {
  constexpr const char* kWords[] = {"", "repeated", "held", "unreadable: "};
  const bool unreadable = result.verdict == ReginfoSequence::Verdict::kUnreadable;
  EXPECT_EQ(result.full_wanted, !result.reason.empty());
  return (result.full_wanted && !unreadable ? "ask " : "") +
         (kWords[static_cast<int>(result.verdict)] + result.document) + (unreadable ? result.reason : "");
}

// Every document that is handed on also has to be one that the component's table takes.
TEST(ReginfoSequence, KeepsWhatRegistrarsOfManyMannersBreak) {
  std::ifstream file(CASES);
  std::string told;
  std::optional<ReginfoSequence> sequence;
  CRegistrationTable table;
  int number = 0;
  for (std::string line; std::getline(file, line);) {
    SCOPED_TRACE("line " + std::to_string(++number) + ": " + line);
    std::string words = line.size() < 2 ? "" : line.substr(2);
    const auto take = [&words](const std::string& word) {
      return words.rfind(word, 0) == 0 && (words.erase(0, word.size()), true);
    };
    if (line[0] == '=') {
      sequence.emplace(kAor);
      table = CRegistrationTable();
    } else if (line[0] == '<') {
      if (take("close ")) sequence->Close();
      const bool new_dialog = take("new ");
      std::vector<std::string> mine = {Uri("own")};
      if (take("mine=")) {
        mine = Split(words.substr(0, words.find(' ')), ',');
        for (std::string& contact : mine) contact = Uri(contact);
        words.erase(0, words.find(' ') + 1);
      }
      const auto result = sequence->Process(Document(words), new_dialog, mine);
      told = Told(result);
      EXPECT_TRUE(result.document.empty() || table.Update(result.document.c_str()) == 0);
    } else if (line[0] == '>') {
      EXPECT_EQ(told, take("ask ") ? "ask " + Document(words) : Document(words));
    }
  }
  EXPECT_GT(number, 200);
  EXPECT_EQ(Told(ReginfoSequence(kAor).Process(std::string(65536, ' '), true, {})),
            "unreadable: the document is too long");
}

// What is not ours to change is not changed: spaces, comments, quotes, foreign names, the encoding. And ids that need
// escapes are written so that they stay the same, in quotes of either kind.
TEST(ReginfoSequence, LeavesTheRestOfADocumentAsItIs) {
  std::ifstream file(VERBATIM);
  const std::string text = "\xEF\xBB\xBF" + std::string(std::istreambuf_iterator<char>(file), {});
  const auto with = [](std::string changed, const std::string& from, const std::string& to) {
    return changed.replace(changed.find(from), from.size(), to);
  };
  const std::vector<std::string> own = {Uri("own")};
  ReginfoSequence sequence(kAor);
  EXPECT_EQ(Told(sequence.Process(text, true, own)), with(text, "'7'", "'0'"));
  const std::string fresh = with(text, "'\"&#39;&#9;'", "'1'");
  EXPECT_EQ(
      Told(sequence.Process(with(fresh, "\"a>\"", "'\"&#39;&#9;'"), false, own)),
      with(with(with(fresh, "'7'", "'1'"), "'1' state", "'&quot;&apos;&#9;' state"), "\"a>\"", "'&quot;&apos;&#9;~'"));
}

// After each failure the sequence is what it was.
TEST(ReginfoSequence, EveryAllocationMayFailAndNothingLeaks) {
  const std::vector<std::string> own = {Uri("own")};
  ReginfoSequence before(kAor);
  EXPECT_NE(
      Told(before.Process(Document("full 3 r:active o/active/created/own a-long-id-of-hers/active/x/ann"), true, own)),
      "");
  for (const char* words :
       {"full 4 r7:active o/active/created/ann x/active/refreshed/own", "partial 5 r2:active:bob", "full 6"}) {
    const std::string body = Document(words), expected = Told(ReginfoSequence(before).Process(body, true, own));
    long limit = 0;
    for (bool done = false; !done && limit < 1000; ++limit) {
      ReginfoSequence sequence(before);
      CXML::TrimThread();
      const long alive = failing_new::Alive();
      failing_new::Limit(limit);
      try {
        static_cast<void>(sequence.Process(body, true, own));
        done = true;
      } catch (const std::bad_alloc&) {
      }
      failing_new::Limit(-1);
      if (done) break;
      CXML::TrimThread();
      ASSERT_EQ(failing_new::Alive(), alive) << limit;
      EXPECT_EQ(Told(sequence.Process(body, true, own)), expected) << limit;
    }
    EXPECT_TRUE(limit > 20 && limit < 1000) << limit;
  }
}

}  // namespace
