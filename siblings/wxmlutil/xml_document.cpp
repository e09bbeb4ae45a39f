#include <windows.h>
#include <objidl.h>
#include <shlwapi.h>
#include <xmllite.h>

#include <cwchar>
#include <deque>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include "common/com_ptr.h"
#include "common/module_library.h"
#include "common/unique_handle.h"
#include "lumera/wxmlutil.h"

namespace wxml {

struct TiXmlAttributeData {
  const wchar_t* name;
  const wchar_t* localName;
  const wchar_t* namespaceUri;
  const wchar_t* value;
};

namespace {

constexpr wchar_t kXmlLiteLibrary[] = L"xmllite.dll";

bool Same(const wchar_t* a, const wchar_t* b) noexcept {
  return std::wcscmp(a != nullptr ? a : L"", b != nullptr ? b : L"") == 0;
}

HRESULT FromWin32(DWORD error) noexcept { return HRESULT_FROM_WIN32(error); }

// XmlLite bound once per process; the library stays loaded for the life of this one.
class XmlLite {
 public:
  static XmlLite& Instance() {
    static XmlLite instance;
    return instance;
  }
  HRESULT Create(IXmlReader** reader) const noexcept {
    if (create_ == nullptr) return static_cast<HRESULT>(kErrorXmlLiteMissing);
    return create_(__uuidof(IXmlReader), reinterpret_cast<void**>(reader), nullptr);
  }

 private:
  XmlLite() {
    if (library_.Load(kXmlLiteLibrary) == 0) (void)library_.Bind({KY_BIND_DECLARED(CreateXmlReader, create_)});
  }
  ky::ModuleLibrary library_;
  decltype(&::CreateXmlReader) create_ = nullptr;
};

}  // namespace

// Owns every element, attribute and string of one loaded tree; addresses never move.
struct TiXmlDocumentData {
  std::vector<std::unique_ptr<TiXmlElement>> elements;
  std::deque<std::vector<TiXmlAttributeData>> attributes;
  std::deque<std::wstring> strings;
  TiXmlElement* root = nullptr;

  const wchar_t* Keep(const wchar_t* text, UINT length) {
    strings.emplace_back(text != nullptr ? text : L"", text != nullptr ? length : 0);
    return strings.back().c_str();
  }

  // Reads the whole document; S_OK or the reason it was refused.
  HRESULT Build(IXmlReader* reader) {
    std::vector<TiXmlElement*> open;
    std::vector<std::wstring*> texts;  // text gathered per open element
    XmlNodeType type = XmlNodeType_None;
    HRESULT hr = S_OK;
    while ((hr = reader->Read(&type)) == S_OK) {
      switch (type) {
        case XmlNodeType_DocumentType:
          return static_cast<HRESULT>(kErrorDtdProhibited);
        case XmlNodeType_Element: {
          if (open.size() >= kMaxElementDepth) return static_cast<HRESULT>(kErrorTooDeep);
          TiXmlElement* element = nullptr;
          const bool empty = reader->IsEmptyElement();
          if (FAILED(hr = Open(reader, open.empty() ? nullptr : open.back(), element))) return hr;
          if (!empty) {
            open.push_back(element);
            texts.push_back(nullptr);
          }
          break;
        }
        case XmlNodeType_EndElement:
          if (open.empty()) return static_cast<HRESULT>(WC_E_ELEMENTMATCH);
          if (texts.back() != nullptr) open.back()->text_ = texts.back()->c_str();
          open.pop_back();
          texts.pop_back();
          break;
        case XmlNodeType_Text:
        case XmlNodeType_CDATA: {
          if (open.empty()) break;
          const wchar_t* value = nullptr;
          UINT length = 0;
          if (FAILED(hr = reader->GetValue(&value, &length))) return hr;
          if (texts.back() == nullptr) {
            strings.emplace_back();
            texts.back() = &strings.back();
          }
          texts.back()->append(value, length);
          break;
        }
        default:
          break;
      }
    }
    if (FAILED(hr)) return hr;
    if (root == nullptr || !open.empty()) return static_cast<HRESULT>(kErrorNoRoot);
    return S_OK;
  }

 private:
  // The current node's qualified name, local name and namespace, kept.
  HRESULT Names(IXmlReader* reader, const wchar_t*& name, const wchar_t*& localName, const wchar_t*& namespaceUri) {
    const wchar_t* text = nullptr;
    UINT length = 0;
    HRESULT hr = S_OK;
    if (FAILED(hr = reader->GetQualifiedName(&text, &length))) return hr;
    name = Keep(text, length);
    if (FAILED(hr = reader->GetLocalName(&text, &length))) return hr;
    localName = Keep(text, length);
    if (FAILED(hr = reader->GetNamespaceUri(&text, &length))) return hr;
    namespaceUri = Keep(text, length);
    return S_OK;
  }

  HRESULT Open(IXmlReader* reader, TiXmlElement* parent, TiXmlElement*& out) {
    const wchar_t* text = nullptr;
    UINT length = 0;
    std::unique_ptr<TiXmlElement> owned(new TiXmlElement());
    TiXmlElement& element = *owned;
    elements.push_back(std::move(owned));
    HRESULT hr = S_OK;
    if (FAILED(hr = Names(reader, element.name_, element.localName_, element.namespaceUri_))) return hr;

    attributes.emplace_back();
    std::vector<TiXmlAttributeData>& list = attributes.back();
    for (hr = reader->MoveToFirstAttribute(); hr == S_OK; hr = reader->MoveToNextAttribute()) {
      TiXmlAttributeData attribute{};
      if (FAILED(hr = Names(reader, attribute.name, attribute.localName, attribute.namespaceUri))) return hr;
      if (FAILED(hr = reader->GetValue(&text, &length))) return hr;
      attribute.value = Keep(text, length);
      list.push_back(attribute);
    }
    if (FAILED(hr)) return hr;
    (void)reader->MoveToElement();
    element.attributes_ = list.data();
    element.attributeCount_ = list.size();

    element.parent_ = parent;
    if (parent == nullptr) {
      if (root != nullptr) return static_cast<HRESULT>(kErrorNoRoot);
      root = &element;
    } else if (parent->lastChild_ == nullptr) {
      parent->firstChild_ = parent->lastChild_ = &element;
    } else {
      parent->lastChild_->nextSibling_ = &element;
      parent->lastChild_ = &element;
    }
    out = &element;
    return S_OK;
  }
};

// The first element from `element` on along its siblings that `matches`, or null.
template <class Matches>
const TiXmlElement* FirstMatching(const TiXmlElement* element, Matches matches) noexcept {
  while (element != nullptr && !matches(*element)) element = element->NextSiblingElement();
  return element;
}

}  // namespace wxml

bool TiXmlElement::IsNamed(const wchar_t* namespaceUri, const wchar_t* localName) const noexcept {
  return wxml::Same(namespaceUri_, namespaceUri) && wxml::Same(localName_, localName);
}

const wchar_t* TiXmlElement::Attribute(const wchar_t* name) const noexcept {
  for (std::size_t i = 0; i < attributeCount_; ++i) {
    if (wxml::Same(attributes_[i].name, name)) return attributes_[i].value;
  }
  return nullptr;
}

const wchar_t* TiXmlElement::AttributeNS(const wchar_t* namespaceUri, const wchar_t* localName) const noexcept {
  for (std::size_t i = 0; i < attributeCount_; ++i) {
    const auto& attribute = attributes_[i];
    if (wxml::Same(attribute.namespaceUri, namespaceUri) && wxml::Same(attribute.localName, localName)) {
      return attribute.value;
    }
  }
  return nullptr;
}

const TiXmlElement* TiXmlElement::FirstChildElement(const wchar_t* name) const noexcept {
  return wxml::FirstMatching(firstChild_, [name](const TiXmlElement& e) { return wxml::Same(e.name_, name); });
}

const TiXmlElement* TiXmlElement::FirstChildElementNS(const wchar_t* namespaceUri,
                                                      const wchar_t* localName) const noexcept {
  return wxml::FirstMatching(firstChild_, [&](const TiXmlElement& e) { return e.IsNamed(namespaceUri, localName); });
}

const TiXmlElement* TiXmlElement::NextSiblingElement(const wchar_t* name) const noexcept {
  return wxml::FirstMatching(nextSibling_, [name](const TiXmlElement& e) { return wxml::Same(e.name_, name); });
}

const TiXmlElement* TiXmlElement::NextSiblingElementNS(const wchar_t* namespaceUri,
                                                       const wchar_t* localName) const noexcept {
  return wxml::FirstMatching(nextSibling_, [&](const TiXmlElement& e) { return e.IsNamed(namespaceUri, localName); });
}

TiXmlDocument::~TiXmlDocument() { Clear(); }

void TiXmlDocument::Clear() noexcept {
  delete data_;
  data_ = nullptr;
}

const TiXmlElement* TiXmlDocument::RootElement() const noexcept { return data_ != nullptr ? data_->root : nullptr; }

bool TiXmlDocument::LoadFile(const wchar_t* path) noexcept {
  Clear();
  if (path == nullptr) {
    error_ = static_cast<unsigned long>(wxml::FromWin32(ERROR_INVALID_PARAMETER));
    return false;
  }
  ky::unique_file file(::CreateFileW(path, GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING,
                                     FILE_ATTRIBUTE_NORMAL, nullptr));
  if (!file) {
    error_ = static_cast<unsigned long>(wxml::FromWin32(ky::LastErrorOr(ERROR_OPEN_FAILED)));
    return false;
  }
  LARGE_INTEGER size{};
  if (!::GetFileSizeEx(file.get(), &size)) {
    error_ = static_cast<unsigned long>(wxml::FromWin32(ky::LastErrorOr(ERROR_READ_FAULT)));
    return false;
  }
  if (size.QuadPart > static_cast<LONGLONG>(wxml::kMaxDocumentBytes)) {
    error_ = wxml::kErrorTooLarge;
    return false;
  }
  std::vector<char> bytes;
  try {
    bytes.resize(static_cast<std::size_t>(size.QuadPart));
  } catch (const std::bad_alloc&) {
    error_ = static_cast<unsigned long>(E_OUTOFMEMORY);
    return false;
  }
  DWORD read = 0;
  if (!bytes.empty() && (!::ReadFile(file.get(), bytes.data(), static_cast<DWORD>(bytes.size()), &read, nullptr) ||
                         read != bytes.size())) {
    error_ = static_cast<unsigned long>(wxml::FromWin32(ky::LastErrorOr(ERROR_READ_FAULT)));
    return false;
  }
  return Parse(bytes.data(), bytes.size());
}

bool TiXmlDocument::Parse(const void* bytes, std::size_t length) noexcept {
  Clear();
  if (length > wxml::kMaxDocumentBytes) {
    error_ = wxml::kErrorTooLarge;
    return false;
  }
  HRESULT hr = S_OK;
  try {
    ky::com_ptr<IStream> stream(::SHCreateMemStream(static_cast<const BYTE*>(bytes), static_cast<UINT>(length)));
    ky::com_ptr<IXmlReader> reader;
    if (!stream) {
      hr = E_OUTOFMEMORY;
    } else if (SUCCEEDED(hr = wxml::XmlLite::Instance().Create(reader.put())) &&
               SUCCEEDED(hr = reader->SetProperty(XmlReaderProperty_DtdProcessing, DtdProcessing_Prohibit)) &&
               // One above the tree's own bound, which decides: XmlLite versions count depth differently.
               SUCCEEDED(hr = reader->SetProperty(XmlReaderProperty_MaxElementDepth, wxml::kMaxElementDepth + 1)) &&
               SUCCEEDED(hr = reader->SetInput(stream.get()))) {
      data_ = new wxml::TiXmlDocumentData();
      hr = data_->Build(reader.get());
    }
  } catch (const std::bad_alloc&) {
    hr = E_OUTOFMEMORY;
  }
  if (FAILED(hr)) {
    Clear();
    error_ = static_cast<unsigned long>(hr);
    return false;
  }
  error_ = wxml::kErrorNone;
  return true;
}
