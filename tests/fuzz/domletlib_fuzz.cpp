// Documents from anywhere: whatever is accepted can be walked, cut into sub-documents that are
// accepted too, and written to without becoming unreadable.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <set>
#include <string>

#include "Domletlib/Domletlib.h"

namespace {

void Must(bool holds, const char* what) {
  if (holds) return;
  std::fprintf(stderr, "does not hold: %s\n", what);
  std::abort();
}

void Walk(const std::string& text, int& budget) {
  if (--budget < 0) return;
  CXML xml;
  Must(xml.SetDoc(text) != 0 && xml.GetDoc() == text, "a sub-document is a document");
  std::set<std::string> names;  // all that could be an element's
  for (auto at = text.find('<'); at != std::string::npos; at = text.find('<', at + 1)) {
    names.insert(text.substr(at + 1, text.find_first_of(" \t\r\n/>", at + 1) - at - 1));
  }
  int roots = 0;
  for (const std::string& name : names) {
    xml.ResetPos();
    while (budget > 0 && xml.FindChildElem(name.c_str()) != 0) {
      const std::string child = xml.GetChildSubDoc();
      Must(text.find(child) != std::string::npos && child.rfind("<" + name, 0) == 0, "it is a part");
      CXML part = xml.GetChildDoc();
      CXML alone;
      alone.SetDoc(child);
      for (CXML* one : {&part, &alone}) {
        Must(one->FindElem(name.c_str()) != 0 && one->FindElem(name.c_str()) == 0, "a root stands alone");
        one->FindChildElem(name.c_str());
        Must(one->GetAttrib(alone.GetAttribName(0).c_str()) == alone.GetAttrib(part.GetAttribName(0).c_str()),
             "attributes");
      }
      Must(part.GetData() == alone.GetData() && part.GetChildSubDoc() == alone.GetChildSubDoc(),
           "a part is read alike");
      part.AddChildElem("added", "&", 0);
      alone.AddChildElem("added", "&", 0);
      Must(part.GetDoc() == alone.GetDoc() && xml.GetDoc() == text, "a part is written alike");
      Walk(child, budget);
    }
    if (xml.FindElem(name.c_str()) == 0) continue;
    ++roots;
    CXML copy = xml;
    if (copy.AddChildElem("added", text.c_str(), 0) == 0) continue;
    CXML reader;
    Must(reader.SetDoc(copy.GetDoc()) != 0, "a written document is readable");
    Must(reader.FindElem(name.c_str()) != 0 && reader.GetData() == xml.GetData(), "it is kept");
    while (reader.FindChildElem("added") != 0) copy.FindChildElem("added");
    Must(copy.GetChildSubDoc() == reader.GetChildSubDoc(), "a value is read as it was written");
    Must(xml.GetDoc() == text, "a copy is a copy");
  }
  Must(roots == 1, "the root is found by its name alone");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  CXML xml;
  int budget = 40;
  if (xml.SetDoc(text) != 0) Walk(text, budget);
  Must(xml.GetDoc().empty() == (xml.LastError().rfind("line ", 0) == 0), "a refusal has a reason");
  CXML writer;
  writer.AddElem("r", text.c_str(), 0);
  Must(xml.SetDoc(writer.GetDoc()) != 0 && xml.FindElem("r") != 0, "a written value is readable");
  Must(xml.GetData() == writer.GetData(), "a written value is kept");
  return 0;
}
