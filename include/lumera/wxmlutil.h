// wxmlutil.dll: the product's wide-character XML DOM, imported at link time. A document is
// read whole into a tree of elements by Windows' own XmlLite; the tree is read-only.
//
// The classes are exported as classes, so each compiler links the wxmlutil.dll built by that
// same compiler (MSVC and mingw-w64 name C++ members differently). They hold no C++ library
// types, so their layout is the same on both sides of the boundary.
//
// Names: Value() is an element's name as written ("uap5:StartupTask"); the ...NS lookups
// match the namespace URI and the local name instead, whatever prefix a document chose. An
// attribute without a prefix belongs to no namespace (an empty URI).
//
// Bounds: a document over 4 MiB, nested more than 256 elements deep or carrying a DTD is
// refused. Not thread-safe; a loaded document may be read from several threads.
#pragma once

#include <windows.h>

#include <cstddef>

#if defined(WXMLUTIL_EXPORTS)
#define WXMLUTIL_API __declspec(dllexport)
#else
#define WXMLUTIL_API __declspec(dllimport)
#endif

namespace wxml {

inline constexpr unsigned long kMaxDocumentBytes = 4u * 1024u * 1024u;
inline constexpr unsigned long kMaxElementDepth = 256;

// ErrorId() values of the document's own checks; a parse error is XmlLite's HRESULT.
inline constexpr unsigned long kErrorNone = 0;
inline constexpr unsigned long kErrorTooLarge = 0x800700DF;     // HRESULT_FROM_WIN32(ERROR_FILE_TOO_LARGE)
inline constexpr unsigned long kErrorTooDeep = 0xC00CEE81;      // XmlLite's SC_E_MAXELEMENTDEPTH
inline constexpr unsigned long kErrorDtdProhibited = 0xC00CEE4F;  // XmlLite's WC_E_DTDPROHIBITED
inline constexpr unsigned long kErrorNoRoot = 0xC00CEE3A;       // XmlLite's WC_E_ROOTELEMENT
inline constexpr unsigned long kErrorXmlLiteMissing = 0x8007007E;  // HRESULT_FROM_WIN32(ERROR_MOD_NOT_FOUND)

struct TiXmlAttributeData;
struct TiXmlDocumentData;

}  // namespace wxml

class WXMLUTIL_API TiXmlElement {
 public:
  TiXmlElement(const TiXmlElement&) = delete;
  TiXmlElement& operator=(const TiXmlElement&) = delete;

  // The name as written, its local part and its namespace URI (empty for none).
  const wchar_t* Value() const noexcept { return name_; }
  const wchar_t* LocalName() const noexcept { return localName_; }
  const wchar_t* NamespaceURI() const noexcept { return namespaceUri_; }

  // The character data directly inside the element, pieces joined; null when there is none.
  const wchar_t* GetText() const noexcept { return text_; }

  // The value of the attribute named as written; null when the element has none so named.
  const wchar_t* Attribute(const wchar_t* name) const noexcept;
  // The value of the attribute in that namespace (null or "" for none) with that local name.
  const wchar_t* AttributeNS(const wchar_t* namespaceUri, const wchar_t* localName) const noexcept;

  // The first child element (named as written, or in that namespace with that local name);
  // null when there is none.
  const TiXmlElement* FirstChildElement() const noexcept { return firstChild_; }
  const TiXmlElement* FirstChildElement(const wchar_t* name) const noexcept;
  const TiXmlElement* FirstChildElementNS(const wchar_t* namespaceUri, const wchar_t* localName) const noexcept;

  // The next element with the same parent, as above; null at the end.
  const TiXmlElement* NextSiblingElement() const noexcept { return nextSibling_; }
  const TiXmlElement* NextSiblingElement(const wchar_t* name) const noexcept;
  const TiXmlElement* NextSiblingElementNS(const wchar_t* namespaceUri, const wchar_t* localName) const noexcept;

  // Null for the root element.
  const TiXmlElement* Parent() const noexcept { return parent_; }

 private:
  friend struct wxml::TiXmlDocumentData;
  TiXmlElement() noexcept = default;
  bool IsNamed(const wchar_t* namespaceUri, const wchar_t* localName) const noexcept;

  const wchar_t* name_ = L"";
  const wchar_t* localName_ = L"";
  const wchar_t* namespaceUri_ = L"";
  const wchar_t* text_ = nullptr;
  const wxml::TiXmlAttributeData* attributes_ = nullptr;
  std::size_t attributeCount_ = 0;
  TiXmlElement* parent_ = nullptr;
  TiXmlElement* firstChild_ = nullptr;
  TiXmlElement* lastChild_ = nullptr;
  TiXmlElement* nextSibling_ = nullptr;
};

class WXMLUTIL_API TiXmlDocument {
 public:
  TiXmlDocument() noexcept = default;
  ~TiXmlDocument();
  TiXmlDocument(const TiXmlDocument&) = delete;
  TiXmlDocument& operator=(const TiXmlDocument&) = delete;

  // Reads and parses the file. False, with any earlier tree dropped and ErrorId() saying
  // why (a Windows error as an HRESULT, XmlLite's parse error, or one of the bounds above).
  bool LoadFile(const wchar_t* path) noexcept;
  // The same for a document already in memory (bytes in any encoding XmlLite detects).
  bool Parse(const void* bytes, std::size_t length) noexcept;

  // The document element, or null when nothing is loaded.
  const TiXmlElement* RootElement() const noexcept;
  bool Error() const noexcept { return error_ != wxml::kErrorNone; }
  unsigned long ErrorId() const noexcept { return error_; }

 private:
  void Clear() noexcept;

  wxml::TiXmlDocumentData* data_ = nullptr;
  unsigned long error_ = wxml::kErrorNone;
};
