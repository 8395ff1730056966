#include <algorithm>
#include <atomic>
#include <new>
#include <utility>

#include "Domletlib.h"
#include "escape.h"
#include "parser.h"
#include "tree.h"

using domlet::kNone;
using domlet::Node;

// Counted by hand, since "am I the only owner" has to be an acquiring read: what a copy on another
// thread has read before it let go must be over before we write.
struct CXML::Document {
  Document() = default;
  explicit Document(domlet::Tree oFrom) : oTree(std::move(oFrom)) {}

  domlet::Tree oTree;
  std::string strError;
  // The element whose line was asked for last, and that line: who asks for one after the other has
  // the source counted once. Packed, since threads may share the document: line, then begin.
  std::atomic<std::uint64_t> nLineAt{std::uint64_t{1} << 32};
  std::atomic<std::uint32_t> nOwners{1};
};

namespace {

// When a part lets its document go: its share of the memory is beyond this many bytes and this many
// times its own text. A document and the objects that are read from it cost less than that
// together, so nothing is cut that is still shared as it was meant.
constexpr std::size_t kTrimFloor = 1024;
constexpr std::size_t kTrimFactor = 8;

std::string_view View(const char* szText) noexcept {
  return szText != nullptr ? std::string_view(szText) : std::string_view();
}

}  // namespace

// --- ownership -----------------------------------------------------------------------------------

CXML::CXML() = default;

CXML::~CXML() { Release(); }

CXML::CXML(const CXML& oOther)
    : m_pDoc(oOther.m_pDoc),
      m_nRoot(oOther.m_nRoot),
      m_nParent(oOther.m_nParent),
      m_nMain(oOther.m_nMain),
      m_nChild(oOther.m_nChild) {
  if (m_pDoc != nullptr) m_pDoc->nOwners.fetch_add(1, std::memory_order_relaxed);
}

CXML::CXML(CXML&& oOther) noexcept { Swap(oOther); }

CXML& CXML::operator=(const CXML& oOther) {
  CXML oCopy(oOther);
  Swap(oCopy);
  return *this;
}

CXML& CXML::operator=(CXML&& oOther) noexcept {
  CXML oTaken(std::move(oOther));
  Swap(oTaken);
  return *this;
}

void CXML::Swap(CXML& oOther) noexcept {
  std::swap(m_pDoc, oOther.m_pDoc);
  std::swap(m_nRoot, oOther.m_nRoot);
  std::swap(m_nParent, oOther.m_nParent);
  std::swap(m_nMain, oOther.m_nMain);
  std::swap(m_nChild, oOther.m_nChild);
}

void CXML::Release() noexcept {
  if (m_pDoc != nullptr && m_pDoc->nOwners.fetch_sub(1, std::memory_order_acq_rel) == 1) {
    delete m_pDoc;
  }
  m_pDoc = nullptr;
}

// The document for writing: ours alone and no part of another from here on.
CXML::Document& CXML::Own() {
  if (m_pDoc == nullptr) {
    m_pDoc = new Document();
  } else if (m_nRoot != 0) {
    Cut();
  } else if (m_pDoc->nOwners.load(std::memory_order_acquire) != 1) {
    auto* pCopy = new Document(m_pDoc->oTree);
    Release();
    m_pDoc = pCopy;
  }
  m_pDoc->nLineAt = std::uint64_t{1} << 32;
  return *m_pDoc;
}

// Makes a document of the part that we are.
void CXML::Cut() {
  auto* pCut = new Document(m_pDoc->oTree.Cut(m_nRoot));
  Release();
  m_pDoc = pCut;
  for (std::int32_t* pnPosition : {&m_nParent, &m_nMain, &m_nChild}) {
    if (*pnPosition != kNone) *pnPosition -= m_nRoot;
  }
  m_nRoot = 0;
}

// --- documents -----------------------------------------------------------------------------------

int CXML::SetDoc(const char* szDoc) { return SetDoc(View(szDoc)); }

int CXML::SetDoc(std::string_view strDoc) {
  CXML oNew;
  oNew.m_pDoc = new Document();
  const bool bRead = domlet::Parse(strDoc, oNew.m_pDoc->oTree, oNew.m_pDoc->strError);
  if (!bRead) oNew.m_pDoc->oTree = domlet::Tree();
  Swap(oNew);
  return bRead ? 1 : 0;
}

std::string CXML::GetDoc() const {
  if (m_pDoc == nullptr) return {};
  return m_nRoot == 0 ? m_pDoc->oTree.source : TextOf(m_nRoot);
}

CXML CXML::GetChildDoc() const {
  CXML oChild;
  if (m_nChild == kNone) return oChild;
  if (m_pDoc->oTree.written) {
    oChild.SetDoc(GetChildSubDoc());
  } else {
    oChild = *this;
    oChild.m_nRoot = m_nChild;
    oChild.ResetPos();
  }
  return oChild;
}

void CXML::Trim() noexcept {
  if (m_nRoot == 0) return;
  const Node& oNode = m_pDoc->oTree.At(m_nRoot);
  const std::size_t nMine = oNode.end - oNode.begin;
  const std::size_t nShare =
      m_pDoc->oTree.Memory() / m_pDoc->nOwners.load(std::memory_order_relaxed);
  if (nShare <= kTrimFloor + kTrimFactor * nMine) return;
  try {
    Cut();
  } catch (const std::bad_alloc&) {
    // It shares a while longer.
  }
}

const std::string& CXML::LastError() const {
  static const std::string strNone;
  return m_pDoc != nullptr ? m_pDoc->strError : strNone;
}

// --- positions -----------------------------------------------------------------------------------

void CXML::ResetPos() { m_nParent = m_nMain = m_nChild = kNone; }

void CXML::ResetMainPos() { m_nMain = m_nChild = kNone; }

// The element of the level at which a search goes on, or kNone.
std::int32_t CXML::NextOnLevel() const noexcept {
  if (m_pDoc == nullptr || m_pDoc->oTree.nodes.empty()) return kNone;
  const domlet::Tree& oTree = m_pDoc->oTree;
  if (m_nMain == m_nRoot) return kNone;  // a root stands alone, whatever it was cut from
  if (m_nMain != kNone) return oTree.At(m_nMain).next;
  return m_nParent != kNone ? oTree.At(m_nParent).first_child : m_nRoot;
}

int CXML::FindElem(const char* szName) {
  const std::int32_t nFirst = NextOnLevel();
  const std::int32_t nFound = nFirst != kNone ? m_pDoc->oTree.Find(nFirst, View(szName)) : kNone;
  if (nFound == kNone) return 0;
  m_nMain = nFound;
  m_nChild = kNone;
  return 1;
}

int CXML::IntoElem() {
  if (m_nMain == kNone) return 0;
  m_nParent = m_nMain;
  m_nMain = m_nChild = kNone;
  return 1;
}

std::string CXML::GetData() const {
  if (m_nMain == kNone) return {};
  const domlet::Tree& oTree = m_pDoc->oTree;
  return std::string(oTree.Text(oTree.At(m_nMain)));
}

int CXML::FindAttrib(const char* szName) const {
  if (m_nMain == kNone) return 0;
  const domlet::Tree& oTree = m_pDoc->oTree;
  return oTree.FindAttr(oTree.At(m_nMain), View(szName)) != nullptr ? 1 : 0;
}

std::string CXML::GetAttrib(const char* szName) const {
  if (m_nMain == kNone) return {};
  const domlet::Tree& oTree = m_pDoc->oTree;
  const Node& oNode = oTree.At(m_nMain);
  const domlet::Attr* pAttr = oTree.FindAttr(oNode, View(szName));
  return pAttr != nullptr ? std::string(oTree.Value(oNode, pAttr->value)) : std::string();
}

int CXML::FindChildElem(const char* szName) {
  if (m_pDoc == nullptr || m_pDoc->oTree.nodes.empty()) return 0;
  const domlet::Tree& oTree = m_pDoc->oTree;
  std::int32_t nFirst = kNone;
  if (m_nChild != kNone) {
    nFirst = oTree.At(m_nChild).next;
  } else if (m_nMain != kNone) {
    nFirst = oTree.At(m_nMain).first_child;
  } else if (m_nParent == kNone) {
    nFirst = oTree.At(m_nRoot).first_child;
  }
  const std::int32_t nFound = oTree.Find(nFirst, View(szName));
  if (nFound == kNone) return 0;
  m_nChild = nFound;
  return 1;
}

std::string CXML::GetChildSubDoc() const {
  return m_nChild != kNone ? TextOf(m_nChild) : std::string();
}

std::string CXML::TextOf(std::int32_t nNode) const {
  const Node& oNode = m_pDoc->oTree.At(nNode);
  return m_pDoc->oTree.source.substr(oNode.begin, oNode.end - oNode.begin);
}

int CXML::NextElem() {
  const std::int32_t nNext = NextOnLevel();
  if (nNext == kNone) return 0;
  m_nMain = nNext;
  m_nChild = kNone;
  return 1;
}

std::string CXML::GetName() const {
  if (m_nMain == kNone) return {};
  const domlet::Tree& oTree = m_pDoc->oTree;
  return std::string(oTree.Name(oTree.At(m_nMain)));
}

int CXML::GetLine() const {
  if (m_nMain == kNone) return 0;
  const domlet::Tree& oTree = m_pDoc->oTree;
  const std::uint32_t nEnd = oTree.At(m_nMain).begin;
  const std::uint64_t nLineAt = m_pDoc->nLineAt.load(std::memory_order_relaxed);
  auto nBegin = static_cast<std::uint32_t>(nLineAt);
  auto nLine = static_cast<std::uint32_t>(nLineAt >> 32);
  if (nBegin > nEnd) {
    nBegin = 0;
    nLine = 1;
  }
  const char* const pSource = oTree.source.data();
  nLine += static_cast<std::uint32_t>(std::count(pSource + nBegin, pSource + nEnd, '\n'));
  m_pDoc->nLineAt.store(std::uint64_t{nLine} << 32 | nEnd, std::memory_order_relaxed);
  return static_cast<int>(nLine);
}

std::string CXML::GetAttribName(int nIndex) const {
  if (m_nMain == kNone || nIndex < 0) return {};
  const domlet::Tree& oTree = m_pDoc->oTree;
  const Node& oNode = oTree.At(m_nMain);
  if (static_cast<std::uint32_t>(nIndex) >= oNode.attr_count) return {};
  const auto nAttr = oNode.first_attr + static_cast<std::uint32_t>(nIndex);
  return std::string(oTree.Value(oNode, oTree.attrs[nAttr].name));
}

// --- writing -------------------------------------------------------------------------------------

int CXML::AddElem(const char* szName, const char* szValue, int /*nFlags*/) {
  if (m_pDoc != nullptr && !m_pDoc->oTree.nodes.empty()) return 0;
  if (!Own().oTree.Append(kNone, View(szName), View(szValue))) return 0;
  m_nParent = m_nChild = kNone;
  m_nMain = 0;
  return 1;
}

int CXML::AddChildElem(const char* szName, const char* szValue, int /*nFlags*/) {
  if (m_nMain == kNone) return 0;
  return Own().oTree.Append(m_nMain, View(szName), View(szValue)) ? 1 : 0;
}

int CXML::AddChildElem(const char* szName, int nValue, int nFlags) {
  return AddChildElem(szName, std::to_string(nValue).c_str(), nFlags);
}

std::string CXML::Escape(std::string_view strText) { return domlet::Escape(strText).markup; }
