// The registrar's own view, through the front door: what exchanges and notifications of the
// subscription service make of registrations, as tables of transcripts.

#include <gtest/gtest.h>

#include <fstream>
#include <regex>
#include <sstream>

#include "FrontDoor.h"
#include "RegisterProcess.h"
#include "Vorelkit/Vorelkit.h"

namespace {

using Lines = std::vector<std::string>;

std::string Joined(const Lines& lines) {
  std::string text;
  for (const std::string& line : lines) text += (text.empty() ? "" : "; ") + line;
  return text.empty() ? "nothing" : text;
}

// "VERSION STATE id/state/event ... @AOR id/state/event ...", of alice unless it says otherwise.
std::string Reginfo(std::istream& words) {
  std::string version, state, word;
  words >> version >> state;
  std::string text = "<reginfo version=\"" + version + "\" state=\"" + state + "\">";
  std::string end;
  const auto registration = [&](const std::string& aor) {
    text += end + "<registration aor=\"" + aor + "\" id=\"" + aor + "\" state=\"active\">";
    end = "</registration>";
  };
  while (words >> word) {
    if (word[0] == '@') {
      registration(word.substr(1));
      continue;
    }
    if (end.empty()) registration("sip:alice@example.com");
    text += std::regex_replace(word, std::regex("(.*)/(.*)/(.*)"), R"(<contact id="$1" state="$2" event="$3"/>)");
  }
  return text + end + "</reginfo>";
}

class Stage {
 public:
  // Takes a step; what the component did then, a line each.
  Lines Take(const std::string& step) {
    Do(step);
    if (!step.starts_with("unpumped")) door_.Pump();
    Lines lines;
    for (const std::string& entry : door_.Notifications()) lines.push_back(Readable(entry));
    for (; seen_ < door_.sip.sent.size(); ++seen_) {
      const fakes::SentRegister& sent = door_.sip.sent[seen_];
      lines.push_back("REGISTER " + names_[sent.stack_id] + " " + std::to_string(sent.expires));
    }
    return lines;
  }
  bool Knows(const std::string& name) { return !door_.Deregister(ids_.at(name)).document.empty(); }

 private:
  void Do(const std::string& step) {
    std::istringstream words(step);
    std::string verb, name, rest;
    words >> verb;
    if (verb == "unpumped") return Do(step.substr(9));
    if (verb == "during") {
      door_.bus.at_command = [this, step] { Do(step.substr(7)); };
      return;
    }
    words >> name;
    if (verb != "document") std::getline(words >> std::ws, rest);
    if (verb == "register") {
      ids_[name] = door_.Register(fakes::kAlice + ("<subscribe>true</subscribe>" + rest));
      names_[door_.LastStackId()] = name;
      stack_ids_[name] = door_.LastStackId();
    } else if (verb == "again") {
      door_.Register("<id>" + std::to_string(ids_.at(name)) + "</id>");
    } else if (verb == "respond") {
      door_.sip.Respond(stack_ids_.at(name), std::stoi(rest), rest.size() > 3 ? rest.substr(4) + "\r\n" : "");
    } else if (verb == "timeout") {
      door_.sip.Error(stack_ids_.at(name), SIP_EVENT_REGISTER_TIMEOUT);
    } else if (verb == "deregister") {
      door_.Deregister(ids_.at(name), rest);
    } else if (verb == "document") {
      Tell(0x1005,
           "<sub><id>" + name + "</id><event>reg</event><msgbody>" + CXML::Escape(Reginfo(words)) + "</msgbody></sub>");
    } else if (verb == "notify") {
      Tell(std::stoi(name, nullptr, 16), rest);
    } else if (verb == "service") {  // the result of the next subscribe
      door_.bus.answers.push_back(name == "refuses" ? "" : name);
    } else if (verb == "send") {  // the stack's result from now on
      door_.sip.send_result = std::stoi(name);
    } else if (verb == "refuse") {  // the library, every address from now on
      door_.sip.refuse_addresses = true;
    } else if (verb == "memory") {  // runs out at the NAMEth object from now
      vorelkit::FailAllocation(std::stoul(name));
    } else if (verb == "wait") {
      door_.Jump(std::chrono::seconds(std::stoi(name)));
    } else if (verb == "stop") {
      TOLVANE_XSCUninitialize();
    } else {
      ADD_FAILURE() << "no such step: " << step;
    }
  }

  void Tell(int id, const std::string& text) {
    CXML document;
    document.SetDoc(text);
    EXPECT_EQ(door_.bus.Notify(id, document), 0);
  }

  // <a>b</a> as a=b, without the root; registrations by their names.
  std::string Readable(std::string text) const {
    if (text[0] == '1') {
      for (const auto& [name, id] : ids_) {
        text = std::regex_replace(text, std::regex("<id>" + std::to_string(id) + "</id>"), "<id>" + name + "</id>");
      }
    }
    text = std::regex_replace(text, std::regex("<([a-z-]+)>([^<]*)</[a-z-]+>"), "$1=$2 ");
    return std::regex_replace(text, std::regex(" *</[a-z]+>$|<[^>]*>"), "");
  }

  fakes::FrontDoor door_;
  std::map<std::string, int> ids_;
  std::map<std::string, long> stack_ids_;
  std::map<long, std::string> names_;
  std::size_t seen_ = 0;
};

// The cases of a file, without its comments: lines of one case follow its title.
std::vector<Lines> Cases(const std::string& name) {
  std::ifstream file(std::string(CASES) + "/" + name);
  EXPECT_TRUE(file.is_open()) << name;
  std::vector<Lines> cases;
  for (std::string line; std::getline(file, line);) {
    if (line.empty() || line[0] == '#') continue;
    if (line.starts_with("== ")) cases.emplace_back();
    cases.back().push_back(line);
  }
  EXPECT_FALSE(cases.empty());
  return cases;
}

// Lines behind "> " are what the component does at the step above; nothing else may happen.
void Play(const Lines& transcript) {
  SCOPED_TRACE(transcript.front());
  Stage stage;
  for (std::size_t at = 1; at < transcript.size();) {
    const std::string& step = transcript[at++];
    Lines expected;
    for (; at < transcript.size() && transcript[at].starts_with("> "); ++at) {
      expected.push_back(transcript[at].substr(2));
    }
    EXPECT_EQ(Joined(stage.Take(step)), Joined(expected)) << step;
  }
}

// First of all tests here, since it is about a process that has not subscribed yet.
TEST(ComponentSub, ADesubscribeBeforeTheFirstSubscribeReachesNobody) {
  Play({"==", "register a", "> REGISTER a 600", "deregister a", "> REGISTER a 0", "respond a 200",
        "> 1001 id=a result=0 uri="});
}

TEST(ComponentSub, Transcripts) {
  for (const Lines& transcript : Cases("component_sub_cases.txt")) Play(transcript);
}

// Each contact in each state: what happens at once, and what in the period after it.
TEST(ComponentSub, EveryStateMeetsEveryContact) {
  for (const Lines& state : Cases("component_sub_states.txt")) {
    Lines steps;
    for (const std::string& line : state) {
      if (line.starts_with("== ")) continue;
      const auto bar = line.find(" | ");
      if (bar == std::string::npos) {
        steps.push_back(line);
        continue;
      }
      SCOPED_TRACE(state.front() + ", " + line);
      Stage stage;
      for (const std::string& step : steps) stage.Take(step);
      const std::string contact = line.substr(0, line.find(' '));
      if (line.find("unsent") < bar) stage.Take("send -5");
      std::string happened = Joined(stage.Take("document 1 1 partial c1/" + contact));
      stage.Take("send 0");
      const Lines later = stage.Take("wait 301");
      happened += " | " + (stage.Knows("a") ? Joined(later)
                           : later.empty()  ? "gone"
                                            : "gone, and yet " + Joined(later));
      EXPECT_EQ(happened, line.substr(line.find_first_not_of(' ', bar + 2)));
    }
  }
}

}  // namespace
