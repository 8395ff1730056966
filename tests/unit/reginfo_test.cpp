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

namespace {

using fakes::Dump;

template <typename T>
std::string Parsed(const std::string& text) {
  T element;
  return element.Parse(text.c_str()) != 0 ? Dump(element) : "no";
}

const std::string kWritten =  // as registrars write it
    "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
    "<reginfo xmlns=\"urn:ietf:params:xml:ns:reginfo\" xmlns:gr='urn:ietf:params:xml:ns:gruuinfo'\n"
    "   xmlns:xsi=\"http://www.w3.org/2001/XMLSchema-instance\" version=\"0\" state='full' >\n"
    "  <!-- two of one user --><ext:note xmlns:ext='urn:x'><contact id='no' state='s' event='e'/></ext:note>\n"
    "  <registration aor=\"sip:a@x.org\" id=\"r1\" state=\"active\" ext:a='1' xmlns:ext='urn:x'>\n"
    "    <contact id=\"c1\" state=\"active\" event=\"registered\" duration-registered=\"7\" expires=\"3600\" "
    "q=\"0.8\"\n"
    "        callid=\"1@x\" cseq=\"4\" retry-after=''><uri>sip:a@[::1]:5060;x=&lt;&#65;&amp;&gt;</uri>"
    "<display-name xml:lang=\"en\"><![CDATA[A <b>]]></display-name><unknown-param name='+sip.instance'>\"&lt;urn&gt;\""
    "</unknown-param><gr:pub-gruu uri='sip:a@x.org;gr=1'/><unknown-param/></contact></registration>\n"
    "  <registration aor=\"tel:+1\" id=\"r2\" state=\"active\"><contact id='c1' state='active' event='created'/>"
    "<contact id='c2' state='terminated' event='expired'><uri/><uri>second</uri></contact></registration>\n"
    "  <registration aor='sip:n@x.org' id='r3' state='init'/>\n</reginfo>\n";

TEST(RegInfo, Parse) {
  // clang-format off
  const struct { std::string (*parse)(const std::string&); std::string text, seen; } cases[] = {
      {Parsed<CUri>, "<uri> sip:a&amp;b </uri>", " sip:a&b "}, {Parsed<CUri>, "<uri/>", ""},
      {Parsed<CUri>, "<u><uri>x</uri></u>", "no"}, {Parsed<CUri>, "<uri", "no"}, {Parsed<CUri>, "", "no"},
      {Parsed<CDisplayName>, "<display-name xml:lang='de'>A</display-name>", "A/de"},
      {Parsed<CDisplayName>, "<display-name lang='de'>A</display-name>", "A/"}, {Parsed<CDisplayName>, "<uri/>", "no"},
      {Parsed<CUnknownParam>, "<unknown-param name='n'>v</unknown-param>", "n=v"},
      {Parsed<CUnknownParam>, "<unknown-param>v</unknown-param>", "=v"}, {Parsed<CUnknownParam>, "<name/>", "no"},
      {Parsed<CContact>, "<contact id='c' state='s' event='e'>d<uri>u</uri>e</contact>", "c s e data=de <u>"},
      {Parsed<CContact>, "<contact state='s' event='e'/>", "no"}, {Parsed<CContact>, "<contact id='' state='s' event='e'/>", "no"},
      {Parsed<CContact>, "<contact id='c' event='e'/>", "no"}, {Parsed<CContact>, "<contact id='c' state='s'/>", "no"},
      {Parsed<CContact>, "<p:contact id='c' state='s' event='e'/>", "no"},
      {Parsed<CContact>, "<contact id='c' state='s' event='e'><x><uri>u</uri></x></contact>", "c s e"},
      {Parsed<CRegistration>, "<registration aor='a' id='r' state='s'> </registration>", "r a s {}"},
      {Parsed<CRegistration>, "<registration aor='a' id='r' state='s'><contact id='c'/><contact id='d' state='s' event='e'/>"
       "<contact state='s' event='e'/></registration>", "r a s {d s e; }"},
      {Parsed<CRegistration>, "<registration id='r' state='s'/>", "no"}, {Parsed<CRegistration>, "<registration aor='a' state='s'/>", "no"},
      {Parsed<CRegistration>, "<registration aor='a' id='r'/>", "no"}, {Parsed<CRegistration>, "<contact id='c' state='s' event='e'/>", "no"},
      {Parsed<CRegInfo>, "<reginfo version='1' state='odd'/>", "  odd 1 "}, {Parsed<CRegInfo>, "<reginfo state='full'/>", "no"},
      {Parsed<CRegInfo>, "<reginfo version='1'/>", "no"}, {Parsed<CRegInfo>, "<r><reginfo version='1' state='full'/></r>", "no"},
      {Parsed<CRegInfo>, "<reginfo version='1' state='full'><registration id='r' state='s'/><registration aor='b' id='r' state='s'/>"
       "<registration aor='c' id='r' state='s'/></reginfo>", "  full 1 r b s {}r c s {}"},
      {Parsed<CRegInfo>, kWritten, "urn:ietf:params:xml:ns:reginfo http://www.w3.org/2001/XMLSchema-instance full 0 "
       "r1 sip:a@x.org active {c1 active registered expires=3600 duration=7 q=0.8 callid=1@x cseq=4 <sip:a@[::1]:5060;x=<A&>> A <b>/en +sip.instance=\"<urn>\" =; }"
       "r2 tel:+1 active {c1 active created; c2 terminated expired <>; }r3 sip:n@x.org init {}"}};
  // clang-format on
  for (const auto& c : cases) {
    EXPECT_EQ(c.parse(c.text), c.seen) << c.text;
  }
}

// A second Parse replaces what stands in the document; a contact keeps the uri that the new one does not have.
TEST(RegInfo, AnObjectMayParseAgain) {
  CContact contact;
  contact.Parse("<contact id='1' state='s' event='e' q='1'><uri>u</uri><unknown-param name='p'/></contact>");
  contact.Parse("<contact id='2' state='s' event='e'/>");
  EXPECT_EQ(Dump(contact), "2 s e <u>");
  EXPECT_EQ(contact.Parse("<contact id='3'/>"), 0);
  EXPECT_EQ(Dump(contact), "3  e <u>");  // what was read stays
  CRegInfo info;
  info.Parse(kWritten.c_str());
  EXPECT_EQ(info.Parse("<r"), 0);
  EXPECT_TRUE(info.GetRegistrationCount() == 0 && info.GetVersion() == "0");
}

TEST(RegInfo, AccessorsAndCopies) {
  CRegInfo info;
  EXPECT_EQ(Dump(info), "   -1 ");
  info.Parse(kWritten.c_str());
  CContact* contact = info.FindRegistration("r1")->FindContact("c1");
  CRegistration* second = info.GetRegistration(1);
  EXPECT_TRUE(contact->FindUnknownParam("+sip.instance") == contact->GetUnknownParam(0));
  EXPECT_TRUE(contact->FindUnknownParam("x") == nullptr && info.FindRegistration("c1") == nullptr);
  EXPECT_TRUE(contact->GetUnknownParam(-1) == nullptr && contact->GetUnknownParam(2) == nullptr);
  EXPECT_TRUE(second->GetContact(-1) == nullptr && second->GetContact(second->GetContactCount()) == nullptr);
  EXPECT_TRUE(info.GetRegistration(-1) == nullptr && info.GetRegistration(info.GetRegistrationCount()) == nullptr);

  const std::string whole = Dump(info, true);
  const CRegInfo& itself = info;
  info = itself;
  EXPECT_EQ(info.GetRegistration(1), second);
  const std::unique_ptr<CElement> clone(info.Clone());
  CRegInfo assigned;
  assigned.Parse("<reginfo version='9' state='x'><registration aor='a' id='r' state='s'/></reginfo>");
  assigned = info;
  info.AddRegistration(nullptr);
  second->AddContact(nullptr);
  contact->AddUnknownParam(nullptr);
  EXPECT_EQ(Dump(info, true), whole);
  contact->AddUnknownParam(contact->GetUnknownParam(0)->Clone());
  second->AddContact(contact->Clone());
  info.AddRegistration(second->Clone());
  EXPECT_EQ(info.GetRegistrationCount() * 100 + second->GetContactCount() * 10 + contact->GetUnknownParamCount(), 433);
  info.ClearRegistrations();
  EXPECT_EQ(Dump(assigned, true), whole);  // a copy is a copy of the children too
  EXPECT_EQ(Dump(dynamic_cast<CRegInfo&>(*clone), true), whole);
  EXPECT_EQ(CElement().Clone(), nullptr);
}

std::string Info(const std::string& version, const std::string& state, const std::string& body) {
  return "<reginfo version='" + version + "' state='" + state + "'>" + body + "</reginfo>";
}
// "id state" of contacts, in a registration of this id and state.
std::string Reg(const std::string& id, const std::string& state, const std::vector<std::string>& contacts = {},
                const std::string& aor = "a") {
  std::string text = "<registration aor='" + aor + "' id='" + id + "' state='" + state + "'>";
  for (const std::string& contact : contacts) {
    const auto blank = contact.find(' ');
    text += "<contact event='e' id='" + contact.substr(0, blank) + "' state='" + contact.substr(blank + 1) + "'/>";
  }
  return text + "</registration>";
}

TEST(RegInfo, TheTableMerges) {
  const std::string base = Reg("1", "active", {"x s", "y s"}) + Reg("2", "terminated", {"x s"});
  const std::string seen = "1 a active {x s e; y s e; }2 a terminated {x s e; }";
  // clang-format off
  const struct { std::string documents[3]; std::vector<int> results; std::string table; } cases[] = {
      {{"<r/>", "", "<reginfo"}, {-1, -1, -1}, "-1 "},
      {{Info("0", "full", base)}, {0}, "0 " + seen}, {{Info("0", "partial", base)}, {0}, "0 " + seen},
      {{Info("5", "partial", base)}, {1}, "5 " + seen}, {{Info("5", "full", base)}, {0}, "5 " + seen},
      {{Info("-2", "full", base), Info("-1", "full", base)}, {2, 2}, "-1 "},
      {{Info("0", "full", base), Info("1", "FULL", Reg("9", "s")), Info("1", "", "")}, {0, 0, -1}, "0 " + seen},
      {{Info("7", "full", base), Info("7", "full", ""), Info("6", "partial", "")}, {0, 2, 2}, "7 " + seen},
      {{Info("x", "full", base), Info("3x", "partial", ""), Info("99999999999", "full", "")}, {0, 1, 0}, "99999999999 "},
      {{Info("0", "full", base), Info("1", "full", Reg("3", "s"))}, {0, 0}, "1 3 a s {}"},
      {{Info("0", "full", base), Info("1", "full", "")}, {0, 0}, "1 "},
      {{Info("0", "full", base), Info("1", "partial", "")}, {0, 0}, "1 1 a active {x s e; y s e; }"},
      // known and new; a new address under a known id; the place stays
      {{Info("0", "full", base), Info("1", "partial", Reg("3", "s") + Reg("1", "t", {"z n", "y terminated"}, "b")), Info("3", "partial", "")},
       {0, 0, 1}, "3 1 b t {x s e; y terminated e; z n e; }3 a s {}"},
      // terminated, and named again: as new
      {{Info("0", "full", base), Info("1", "partial", Reg("2", "back", {"n s"}))}, {0, 0}, "1 1 a active {x s e; y s e; }2 a back {n s e; }"},
      {{Info("0", "full", base), Info("1", "partial", Reg("1", "terminated"))}, {0, 0}, "1 1 a terminated {x s e; y s e; }"},
      // what one document names twice: new ones are two, a known one takes both, and the first of two known ones takes it
      {{Info("0", "full", Reg("1", "s", {"x s", "x s"})), Info("1", "partial", Reg("3", "s") + Reg("3", "t") + Reg("1", "s", {"x t", "z s", "z t"}) +
        Reg("1", "u", {"z u"}))}, {0, 0}, "1 1 a u {x t e; x s e; z u e; z t e; }3 a s {}3 a t {}"}};
  // clang-format on
  for (const auto& c : cases) {
    CRegistrationTable table;
    for (std::size_t i = 0; i < c.results.size(); ++i) {
      EXPECT_EQ(table.Update(c.documents[i].c_str()), c.results[i]) << c.documents[i];
    }
    EXPECT_EQ(fakes::DumpRegistrations(table), c.table) << c.documents[0];
  }
  EXPECT_EQ(CRegistrationTable().Update(nullptr), -1);
}

// So many that an index is made for them: the same as one by one.
TEST(RegInfo, ManyAreMergedLikeFew) {
  std::vector<std::string> newer;
  std::string all;
  CRegistrationTable many;
  CRegistrationTable few;
  for (int i = 0; i < 200; ++i) newer.push_back(std::to_string(i * 37 % 100) + " s" + std::to_string(i % 7));
  const std::vector<std::string> older(newer.begin() + 40, newer.begin() + 170);
  for (CRegistrationTable* table : {&many, &few}) table->Update(Info("0", "full", Reg("1", "s", older)).c_str());
  many.Update(Info("1", "partial", Reg("1", "s", {newer.begin(), newer.begin() + 100})).c_str());
  for (int i = 0; i < 100; ++i) few.Update(Info(std::to_string(i + 1), "partial", Reg("1", "s", {newer[i]})).c_str());
  EXPECT_EQ(Dump(*many.GetRegistration(0)), Dump(*few.GetRegistration(0)));
}

TEST(RegInfo, AnUpdateEmptiesNothing) {
  CContact contact;
  CContact newer;
  contact.Parse(
      "<contact id='c' state='active' event='e' expires='9' q='1' cseq='2'>d<uri>u</uri>"
      "<display-name xml:lang='l'>n</display-name><unknown-param name='p'>1</unknown-param></contact>");
  newer.Parse("<contact id='c' state='terminated' event='f' callid='i' cseq='3'/>");
  contact.Update(&newer);
  EXPECT_EQ(Dump(contact), "c terminated f expires=9 q=1 callid=i cseq=3 data=d <u> n/l p=1");
  EXPECT_EQ(fakes::Document(contact), fakes::Document(newer));
  newer.Parse(
      "<contact id='c' state='s' event='f' retry-after='5'><uri/><display-name/><unknown-param name='q'/>"
      "<unknown-param name='r'/></contact>");
  contact.Update(&newer);
  contact.Update(&contact);
  contact.Update(nullptr);
  EXPECT_EQ(Dump(contact), "c s f expires=9 retry=5 q=1 callid=i cseq=3 data=d <> / q= r=");
  EXPECT_EQ(Dump(newer), "c s f retry=5 <> / q= r=");

  const std::string texts[] = {"<uri>u</uri>", "<uri/>", "<display-name xml:lang='l'>n</display-name>",
                               "<display-name>m</display-name>", "<unknown-param name='p'>v</unknown-param>"};
  CUri uris[2];
  CDisplayName names[2];
  CUnknownParam params[2];
  for (int i : {0, 1}) EXPECT_TRUE(uris[i].Parse(texts[i].c_str()) != 0 && names[i].Parse(texts[2 + i].c_str()) != 0);
  params[0].Parse(texts[4].c_str());
  uris[0].Update(&uris[1]);
  names[0].Update(&names[1]);
  params[1].Update(&params[0]);
  EXPECT_EQ(Dump(uris[0]) + " " + Dump(names[0]) + " " + Dump(params[1]), "u m/l =");
  EXPECT_EQ(fakes::Document(uris[0]) + fakes::Document(params[1]), texts[1]);
  uris[0].Update(&names[0]);  // of another class: the document alone
  EXPECT_EQ(Dump(uris[0]) + fakes::Document(uris[0]), "u" + texts[3]);
}

TEST(RegInfo, AnUpdateOfAnotherClassIsLoggedInGbk) {
  const auto path = std::filesystem::temp_directory_path() / "tolvane-reginfo-test.log";
  std::filesystem::remove(path);
  ILogOne* log = LogOne_Open((L"file:" + path.wstring()).c_str());
  GetRegGlobal().m_pLog = log;
  CUri uri;
  CRegInfo info;
  info.Parse(Info("1", "full", Reg("1", "s")).c_str());
  uri.Parse("<uri/>");
  const std::string before = Dump(info);
  info.Update(&uri);
  info.GetRegistration(0)->Update(&uri);
  GetRegGlobal().m_pLog = nullptr;
  LogOne_Close(&log);
  EXPECT_EQ(Dump(info), before);
  EXPECT_EQ(fakes::Document(info) + fakes::Document(*info.GetRegistration(0)), "<uri/><uri/>");
  std::ifstream file(path, std::ios::binary);
  const std::string text{std::istreambuf_iterator<char>(file), {}};
  const std::string failed = "\xCA\xA7\xB0\xDC\xA3\xA1\r\n";
  for (const std::string name : {"CRegInfo", "CRegistration"}) {
    const std::string record = " " + name +
                               "::Update()][Err]\r\nContent:\r\n\xB2\xCE\xCA\xFD\xC0\xE0\xD0\xCD\xB4\xED\xCE\xF3"
                               "\xA3\xAC\xB4\xD3"
                               "CElement*\xD7\xAA\xBB\xBB\xCE\xAA" +
                               name + "*" + failed;
    EXPECT_NE(text.find(record), std::string::npos) << text;
  }
  std::filesystem::remove(path);
}

// An object that gets no memory: what it fails, and what stands nevertheless.
TEST(RegInfo, ObjectsWithoutMemory) {
  const std::string text = Info("1", "full",
                                "<registration aor='a' id='1' state='s'><contact id='c' state='s' event='e'>"
                                "<uri/><unknown-param/></contact><contact id='d' state='s' event='e'/></registration>");
  const std::string seen[] = {"", "", "1 a s {d s e; }", "1 a s {d s e; }", "", "1 a s {c s e <> =; d s e; }"};
  for (std::size_t n = 1; n <= 6; ++n) {
    CRegInfo info;
    vorelkit::FailAllocation(n);
    EXPECT_EQ(info.Parse(text.c_str()), n == 1 ? 0 : 1) << n;
    vorelkit::FailAllocation(0);
    EXPECT_EQ(Dump(info), "  full 1 " + seen[n - 1]) << n;
  }
}

}  // namespace
