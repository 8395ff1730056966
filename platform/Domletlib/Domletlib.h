// Domletlib: the XML document class that travels on the bus.
//
// A CXML is a value: a copy is cheap and shares the parsed document until one of the two changes.
// One object must not be used by two threads at once; two copies may be used by two threads.
//
// What is accepted: well-formed XML 1.0 in UTF-8, with or without a byte order mark, up to
// kMaxBytes and kMaxDepth. A declared encoding other than UTF-8 and US-ASCII is refused, so that
// every sub-document is readable by itself. A document type declaration is refused, so no entities
// but the five of XML and character references. A NUL byte is refused. Names are compared as they
// stand in the text, prefix included: there is no namespace processing, and a sub-document may use
// a prefix that it does not declare.
//
// What is written is always readable: & < > " and carriage returns are escaped, and what no
// document can hold (other control characters, U+FFFE, U+FFFF, bytes that are not UTF-8) becomes
// U+FFFD, for the readers of the object at once. Element names that are not made of ASCII letters,
// digits, "_", "-", "." and ":" are refused, and so is what would pass kMaxBytes or kMaxDepth.
//
// Operations throw std::bad_alloc when memory runs out, and then leave the object as it was. Null
// names and texts count as empty.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "visibility.h"

class TOLVANE_PUBLIC CXML {
 public:
  static constexpr std::size_t kMaxBytes = std::size_t{4} * 1024 * 1024;
  static constexpr int kMaxDepth = 64;

  CXML();
  ~CXML();
  CXML(const CXML& oOther);
  CXML& operator=(const CXML& oOther);
  CXML(CXML&& oOther) noexcept;
  CXML& operator=(CXML&& oOther) noexcept;

  // Loads a document text; the positions go to the top. Non-zero when it was read; 0 when it cannot
  // be read, and the object is then an empty document (LastError tells why).
  int SetDoc(const char* szDoc);
  int SetDoc(std::string_view strDoc);
  // The document as text: what was read, byte for byte, with what was written put in. Written
  // elements have no white space between them.
  [[nodiscard]] std::string GetDoc() const;
  // Why the last SetDoc failed: "line 3, column 7: ...". Empty when it did not.
  [[nodiscard]] const std::string& LastError() const;

  // Positions: a level, a main position on that level, a child position below the main position.
  // A search that finds nothing leaves the positions as they were.

  // To the top: the next FindElem looks at the root level.
  void ResetPos();
  // The next FindElem starts at the first element of the level.
  void ResetMainPos();
  // The next element of this name on the level; non-zero if found.
  int FindElem(const char* szName);
  // The level goes down into the main element.
  int IntoElem();
  // The text directly inside the main element, escapes undone.
  [[nodiscard]] std::string GetData() const;
  int FindAttrib(const char* szName) const;  // non-zero if the main element has it
  [[nodiscard]] std::string GetAttrib(const char* szName) const;  // its value, empty if absent
  // The next child of this name of the main element; straight after ResetPos: of the root element.
  int FindChildElem(const char* szName);
  // The exact text of the found child, markup included, as it stood in the document that was read.
  [[nodiscard]] std::string GetChildSubDoc() const;
  // The same as a document, without reading it again: it shares the parsed document with this
  // object, and is in everything but GetLine what SetDoc makes of the sub-document. Empty without a
  // found child.
  [[nodiscard]] CXML GetChildDoc() const;
  // For a document from GetChildDoc that is kept for long, since it keeps the whole document that
  // it is a part of: makes it one of its own if that document has become far larger than what it is
  // still shared for. Nothing else changes, nor does anything when memory runs out.
  void Trim() noexcept;

  // For readers that have to know all that stands in a document.

  // The next element on the level, whatever its name; non-zero if there is one.
  int NextElem();
  [[nodiscard]] std::string GetName() const;  // of the main element
  // The line in which the main element begins, from 1, in the document that was read; 0 without
  // one.
  [[nodiscard]] int GetLine() const;
  // The name of the main element's attribute at this place, from 0; empty behind the last.
  [[nodiscard]] std::string GetAttribName(int nIndex) const;

  // Writing. Values are escaped. A null value is an empty one; there are no flags yet. Non-zero on
  // success.

  // The root of an empty document; it becomes the main element.
  int AddElem(const char* szName, const char* szValue, int nFlags);
  // Appended to the main element, which stays the main element.
  int AddChildElem(const char* szName, const char* szValue, int nFlags);
  int AddChildElem(const char* szName, int nValue, int nFlags);

  // A text as it may stand inside an element or between the quotes of an attribute, for who writes
  // a document by hand.
  [[nodiscard]] static std::string Escape(std::string_view strText);

  // Frees what the calling thread keeps to read its next document with.
  static void TrimThread() noexcept;

 private:
  struct Document;
  [[nodiscard]] std::int32_t NextOnLevel() const noexcept;
  [[nodiscard]] std::string TextOf(std::int32_t nNode) const;
  Document& Own();  // for writing
  void Cut();
  void Release() noexcept;
  void Swap(CXML& oOther) noexcept;

  Document* m_pDoc = nullptr;   // counted; shared until changed; null: empty
  std::int32_t m_nRoot = 0;     // the root; another than 0 in a part of a larger document
  std::int32_t m_nParent = -1;  // element whose children form the level; -1 for the root level
  std::int32_t m_nMain = -1;    // the main position; -1 before the level's first element
  std::int32_t m_nChild = -1;   // the child position; -1 before the main element's first child
};
