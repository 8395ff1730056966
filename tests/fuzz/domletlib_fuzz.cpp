// Documents from anywhere: whatever is accepted can be walked, cut into sub-documents that are
// accepted too, and written to without becoming unreadable.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <set>
#include <string>
#include <string_view>

#include "Domletlib/Domletlib.h"

namespace {

void Must(bool holds, const char* what) {
  if (holds) return;
  std::fprintf(stderr, "does not hold: %s\n", what);
  std::abort();
}

// Every name in the text that could be an element's.
std::set<std::string> Names(std::string_view text) {
  std::set<std::string> names;
  for (std::size_t at = text.find('<'); at != std::string_view::npos && names.size() < 16;
       at = text.find('<', at + 1)) {
    const std::size_t end = text.find_first_of(" \t\r\n/>", at + 1);
    if (end != std::string_view::npos) names.emplace(text.substr(at + 1, end - at - 1));
  }
  return names;
}

void Walk(const std::string& text, int depth, int& budget) {
  if (--budget < 0) return;
  CXML xml;
  Must(xml.SetDoc(text) != 0, "a sub-document is a document");
  Must(xml.GetDoc() == text, "the text is kept");
  Must(depth <= CXML::kMaxDepth, "the depth is limited");
  const std::set<std::string> names = Names(text);
  for (const std::string& name : names) {
    xml.ResetPos();
    while (xml.FindChildElem(name.c_str()) != 0 && budget > 0) {
      const std::string child = xml.GetChildSubDoc();
      Must(text.find(child) != std::string::npos, "a sub-document is a part of the text");
      Must(child.rfind("<" + name, 0) == 0 && child.back() == '>', "a sub-document is the element");
      Walk(child, depth + 1, budget);
    }
  }
  bool root = false;
  for (const std::string& name : names) {
    xml.ResetPos();
    if (xml.FindElem(name.c_str()) == 0) continue;
    root = true;
    const std::string value = xml.GetData();
    static_cast<void>(xml.GetAttrib("a"));
    CXML copy = xml;
    if (copy.AddChildElem("added", text.c_str(), 0) == 0) continue;
    CXML reader;
    Must(reader.SetDoc(copy.GetDoc()) != 0, "a written document is readable");
    Must(xml.GetDoc() == text, "a copy is a copy");
    Must(reader.FindElem(name.c_str()) != 0 && reader.GetData() == value, "the text stays");
    copy.IntoElem();
    reader.IntoElem();
    Must(copy.FindElem("added") != 0 && reader.FindElem("added") != 0, "the element is there");
    while (reader.FindElem("added") != 0) copy.FindElem("added");
    Must(copy.GetData() == reader.GetData(), "a value is read as it was written");
  }
  Must(root || names.size() == 16, "the root is found by its name");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  CXML xml;
  if (xml.SetDoc(text) == 0) {
    Must(xml.GetDoc().empty() && xml.LastError().rfind("line ", 0) == 0, "a refusal has a reason");
  } else {
    int budget = 40;
    Walk(text, 1, budget);
  }
  // As a value of our own: the text up to its first NUL.
  CXML writer;
  writer.AddElem("r", text.c_str(), 0);
  Must(xml.SetDoc(writer.GetDoc()) != 0, "a written value is readable");
  xml.FindElem("r");
  Must(xml.GetData() == writer.GetData(), "a written value is kept");
  return 0;
}
