// The registrar's view of registrations: reginfo documents (RFC 3680), read, merged and held. One
// class for each element of the format, and the table that a registration keeps.
//
// The model only reads. Values are kept as they stood in the document; nothing is checked against
// the lists of RFC 3680, and namespaces are not looked at, so that documents with extensions, or
// written with little care, are still read.
//
// A document is parsed once. Every element keeps its own part of it as m_oXml, which shares what
// was parsed (CXML::GetChildDoc), as do copies and clones.
//
// Memory that runs out: Parse gives 0, and Update leaves the element with its old content, in both
// cases with m_oXml as far as it got; Clone gives null; a child that cannot be copied or appended
// is left out. Only copy constructors and copy assignments throw std::bad_alloc, the latter with
// the target valid but copied in part.
//
// Not thread-safe; each tree belongs to whoever holds its root. Parents own their children; what
// an accessor hands out stays theirs. An index that is not there gives null.
#pragma once

#include <string>

#include "Domletlib/Domletlib.h"
#include "registrationpackagechildren.h"

class CElement {
 public:
  CElement() = default;
  virtual ~CElement() = default;
  // Reads the element's text. 1 for success, 0 for failure; what was read before that stays.
  virtual int Parse(const char* pszDoc);
  // A new element, owned by the caller; null without memory.
  virtual CElement* Clone() const { return nullptr; }
  // Merges a newer element of the same class. Of another class only the document is taken over;
  // null does nothing.
  virtual void Update(CElement* pElement);

  CElement(const CElement&) = default;
  CElement& operator=(const CElement&) = default;
  CElement(CElement&&) noexcept = default;
  CElement& operator=(CElement&&) noexcept = default;

  // Parse for a part of a document that is parsed already. Throws std::bad_alloc.
  int ReadPart(CXML oPart);
  // After a merge: lets go of documents that are kept for a small part of them; see CXML::Trim.
  void Trim() noexcept { m_oXml.Trim(); }

 protected:
  friend struct RegInfoDump;  // for tests, here and below: some fields have no reader
  // Fills the fields from m_oXml. Throws std::bad_alloc.
  virtual int Read() { return 1; }
  // What the classes' Parse and Update do alike.
  int ParseAndRead(const char* pszDoc);
  template <typename T>
  static bool UpdateAs(T& oOwn, CElement* pElement);  // false: of another class
  // The element's first child of this name into a child object, whose failure is a failure.
  template <typename T>
  int ReadChild(const char* szName, CRegChild<T>& oChild);
  // Its children of this name to the end of a list; those that do not parse are left out.
  template <typename T>
  int ReadChildren(const char* szName, CRegChildren<T>& oChildren);

  CXML m_oXml;  // the element's own document
};

class CUnknownParam : public CElement {
 public:
  int Parse(const char* pszDoc) override { return ParseAndRead(pszDoc); }
  CUnknownParam* Clone() const override { return vktNew<CUnknownParam>(*this); }
  void Update(CElement* /*pElement*/) override {}  // the owner replaces them as a list

  const std::string& GetName() const { return m_strName; }
  const std::string& Key() const { return m_strName; }

 private:
  friend struct RegInfoDump;
  int Read() override;

  std::string m_strName;
  std::string m_strValue;
};

class CDisplayName : public CElement {
 public:
  int Parse(const char* pszDoc) override { return ParseAndRead(pszDoc); }
  CDisplayName* Clone() const override { return vktNew<CDisplayName>(*this); }
  void Update(CElement* pElement) override;
  void Merge(CDisplayName&& oNewer) noexcept;

 private:
  friend struct RegInfoDump;
  int Read() override;

  std::string m_strDisplayName;
  std::string m_strLang;
};

class CUri : public CElement {
 public:
  int Parse(const char* pszDoc) override { return ParseAndRead(pszDoc); }
  CUri* Clone() const override { return vktNew<CUri>(*this); }
  void Update(CElement* pElement) override;
  void Merge(CUri&& oNewer) noexcept;

 private:
  friend struct RegInfoDump;
  int Read() override;

  std::string m_strUri;
};

// One binding of an address of record. Its key is the id. An update takes over what is not empty,
// and each kind of child as a whole.
class CContact : public CElement {
 public:
  int Parse(const char* pszDoc) override;
  CContact* Clone() const override { return vktNew<CContact>(*this); }
  void Update(CElement* pElement) override;
  void Merge(CContact&& oNewer) noexcept;

  const std::string& GetId() const { return m_strId; }
  const std::string& GetState() const { return m_strState; }
  const std::string& GetEvent() const { return m_strEvent; }
  const std::string& Key() const { return m_strId; }

  int GetUnknownParamCount() const { return m_vecUnknownParam.Count(); }
  CUnknownParam* GetUnknownParam(int nIndex) const { return m_vecUnknownParam.At(nIndex); }
  // The first of this name, or null.
  CUnknownParam* FindUnknownParam(const std::string& strName) const {
    return m_vecUnknownParam.Find(strName);
  }
  void AddUnknownParam(CUnknownParam* pParam) { m_vecUnknownParam.Add(pParam); }  // takes it over
  void ClearUnknownParams() { m_vecUnknownParam.Clear(); }
  void Trim() noexcept;

 private:
  friend struct RegInfoDump;
  int Read() override;

  std::string m_strId;
  std::string m_strState;
  std::string m_strEvent;
  std::string m_strExpires;
  std::string m_strRetryAfter;
  std::string m_strDurationRegistered;
  std::string m_strQ;
  std::string m_strCallId;
  std::string m_strCSeq;
  std::string m_strData;
  CRegChild<CUri> m_pUri;
  CRegChild<CDisplayName> m_pDisplayName;
  CRegChildren<CUnknownParam> m_vecUnknownParam;
};

// One address of record with its bindings. Its key is the id, not the address. An update merges the
// contacts by their ids and removes none.
class CRegistration : public CElement {
 public:
  int Parse(const char* pszDoc) override;
  CRegistration* Clone() const override { return vktNew<CRegistration>(*this); }
  void Update(CElement* pElement) override;
  void Merge(CRegistration&& oNewer) noexcept;

  const std::string& GetAor() const { return m_strAor; }
  const std::string& GetId() const { return m_strId; }
  const std::string& GetState() const { return m_strState; }
  const std::string& Key() const { return m_strId; }

  int GetContactCount() const { return m_vecContact.Count(); }
  CContact* GetContact(int nIndex) const { return m_vecContact.At(nIndex); }
  // The first of this id, or null.
  CContact* FindContact(const std::string& strId) const { return m_vecContact.Find(strId); }
  void AddContact(CContact* pContact) { m_vecContact.Add(pContact); }  // takes it over
  void ClearContacts() { m_vecContact.Clear(); }
  void Trim() noexcept;

 private:
  friend struct RegInfoDump;
  int Read() override;

  std::string m_strAor;
  std::string m_strId;
  std::string m_strState;
  CRegChildren<CContact> m_vecContact;
};

// The root element. An update merges a partial document: registrations that were terminated before
// go, those that it names are merged by their ids.
class CRegInfo : public CElement {
 public:
  int Parse(const char* pszDoc) override;
  CRegInfo* Clone() const override { return vktNew<CRegInfo>(*this); }
  void Update(CElement* pElement) override;
  void Merge(CRegInfo&& oNewer) noexcept;

  const std::string& GetVersion() const { return m_strVersion; }
  const std::string& GetState() const { return m_strState; }

  int GetRegistrationCount() const { return m_vecRegistration.Count(); }
  CRegistration* GetRegistration(int nIndex) const { return m_vecRegistration.At(nIndex); }
  // The first of this id, or null.
  CRegistration* FindRegistration(const std::string& strId) const {
    return m_vecRegistration.Find(strId);
  }
  void AddRegistration(CRegistration* pRegistration) {  // takes it over
    m_vecRegistration.Add(pRegistration);
  }
  void ClearRegistrations() { m_vecRegistration.Clear(); }
  void RemoveTerminated();
  void Trim() noexcept;

 private:
  friend struct RegInfoDump;
  int Read() override;

  std::string m_strVersion = "-1";
  std::string m_strState;
  std::string m_strXmlns;
  std::string m_strXmlnsXsi;
  CRegChildren<CRegistration> m_vecRegistration;
};

// What a registration knows of the registrar's view. No operation throws.
class CRegistrationTable {
 public:
  virtual ~CRegistrationTable() = default;

  // Applies one document:
  //  -1  unreadable, or no memory to read it; nothing changed
  //   0  newer, and applied; or of a state that is neither "full" nor "partial", nothing changed
  //   1  partial, and merged, but versions before it have been missed
  //   2  not newer than the last one; nothing changed
  // Without memory for its lists a merge leaves new entries out. What GetRegistration gave before
  // is no longer good.
  int Update(const char* pszDoc) noexcept;

  int GetRegistrationCount() const noexcept { return m_oRegInfo.GetRegistrationCount(); }
  CRegistration* GetRegistration(int nIndex) const noexcept {
    return m_oRegInfo.GetRegistration(nIndex);
  }
  // "-1" before the first document; empty when there is no memory for a copy of a long one.
  std::string GetVersion() const noexcept;

 private:
  CRegInfo m_oRegInfo;
};
