// The reginfo model: what is read, what is left out, and what a newer document changes.

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

#include "logging/LogOne.h"
#include "RegGlobal.h"
#include "RegInfoDump.h"
#include "Vorelkit/Vorelkit.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace {

std::string FileText(const std::filesystem::path& path) {
  std::ifstream file(path, std::ios::binary);
  EXPECT_TRUE(file.good()) << path;
  return {std::istreambuf_iterator<char>(file), {}};
}

std::unique_ptr<CElement> Make(const std::string& name) {
  if (name == "uri") return std::make_unique<CUri>();
  if (name == "display-name") return std::make_unique<CDisplayName>();
  if (name == "unknown-param") return std::make_unique<CUnknownParam>();
  if (name == "contact") return std::make_unique<CContact>();
  if (name == "registration") return std::make_unique<CRegistration>();
  return std::make_unique<CRegInfo>();
}

TEST(RegInfo, Cases) {
  std::ifstream cases(CASES);
  std::unique_ptr<CElement> element;
  CRegistrationTable table;
  int checked = 0;
  std::string seen;
  for (std::string line; std::getline(cases, line);) {
    if (line[0] == '#') continue;
    const std::string word = line.substr(0, line.find(' '));
    std::string document = word.size() < line.size() ? line.substr(word.size() + 1) : "";
    if (document[0] == '@') document = FileText(std::filesystem::path(CASES).replace_filename(document.substr(1)));
    if (line.empty()) {
      table = CRegistrationTable();
      seen = RegInfoDump::Registrations(table);
    } else if (line[0] == '=') {
      EXPECT_EQ(seen, line.substr(1));
      ++checked;
    } else if (line[0] == '!') {
      vorelkit::FailAllocation(std::stoul(line.substr(1)));
    } else if (line[0] == '+') {
      const auto newer = Make(word.substr(1));
      EXPECT_EQ(newer->Parse(document.c_str()), 1) << line;
      element->Update(newer.get());
      element->Update(nullptr);
      seen = RegInfoDump::Of(*element);
      EXPECT_EQ(RegInfoDump::Document(*element) == document, word != "+unknown-param");
    } else if (word.find_first_not_of("-0123456789") == std::string::npos) {
      EXPECT_EQ(table.Update(document.c_str()), std::stoi(word)) << line;
      seen = RegInfoDump::Registrations(table);
    } else {
      if (word != "again") element = Make(word);
      seen = element->Parse(document.c_str()) != 0 ? RegInfoDump::Of(*element) : "no";
      vorelkit::FailAllocation(0);
    }
  }
  EXPECT_GT(checked, 50);
  EXPECT_EQ(table.Update(nullptr), -1);
}

TEST(RegInfo, Accessors) {
  CRegInfo info;
  info.Parse(FileText(std::filesystem::path(CASES).replace_filename("reginfo_written.xml")).c_str());
  CRegistration* second = info.GetRegistration(1);
  CContact* contact = info.FindRegistration("r1")->FindContact("c1");
  EXPECT_EQ(contact->FindUnknownParam("+sip.instance"), contact->GetUnknownParam(0));
  EXPECT_TRUE(contact->FindUnknownParam("x") == nullptr && info.FindRegistration("c1") == nullptr);
  EXPECT_TRUE(info.GetRegistration(-1) == nullptr && info.GetRegistration(3) == nullptr);
  const CRegInfo& itself = info;
  info = itself;
  EXPECT_EQ(info.GetRegistration(1), second);
  info.AddRegistration(nullptr);
  info.AddRegistration(second->Clone());
  contact->AddUnknownParam(contact->GetUnknownParam(0)->Clone());
  second->AddContact(contact->Clone());
  EXPECT_EQ(info.GetRegistrationCount() * 100 + second->GetContactCount() * 10 + contact->GetUnknownParamCount(), 433);
  EXPECT_EQ(CElement().Clone(), nullptr);
}

TEST(RegInfo, AnUpdateOfAnotherClassIsLoggedInGbk) {
  const auto path = std::filesystem::temp_directory_path() / "tolvane-reginfo-test.log";
  std::filesystem::remove(path);
  ILogOne* log = LogOne_Open((L"file:" + path.wstring()).c_str());
  GetRegGlobal().m_pLog = log;
  CUri uri;
  CRegInfo info;
  info.Parse("<reginfo version='1' state='full'><registration aor='a' id='1' state='s'/></reginfo>");
  uri.Parse("<uri/>");
  info.Update(&uri);
  info.GetRegistration(0)->Update(&uri);
  GetRegGlobal().m_pLog = nullptr;
  LogOne_Close(&log);
  EXPECT_EQ(RegInfoDump::Of(info, true), "[<uri/>]  full 1 [<uri/>]1 a s {}");
  const std::string text = FileText(path);
  for (const std::string name : {"CRegInfo", "CRegistration"}) {
    const std::string record = " " + name +
                               "::Update()][Err]\r\nContent:\r\n\xB2\xCE\xCA\xFD\xC0\xE0\xD0\xCD\xB4\xED\xCE\xF3"
                               "\xA3\xAC\xB4\xD3"
                               "CElement*\xD7\xAA\xBB\xBB\xCE\xAA" +
                               name + "*\xCA\xA7\xB0\xDC\xA3\xA1\r\n";
    EXPECT_NE(text.find(record), std::string::npos) << text;
  }
  std::filesystem::remove(path);
}

// What fuzzing found worth keeping.
TEST(RegInfo, Corpus) {
  int files = 0;
  for (const auto& entry : std::filesystem::directory_iterator(CORPUS)) {
    const std::string text = FileText(entry.path());
    LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(text.data()), text.size());
    ++files;
  }
  EXPECT_GT(files, 5);
}

}  // namespace
