// wxmlutil.dll: the tree XmlLite reads, lookups by name as written and by namespace, and the
// bounds that refuse a document.
#include <gtest/gtest.h>

#include <string>

#include "lumera/wxmlutil.h"
#include "support/scratch_folder.h"

namespace {

constexpr wchar_t kUap5[] = L"http://schemas.microsoft.com/appx/manifest/uap/windows10/5";
constexpr wchar_t kFoundation[] = L"http://schemas.microsoft.com/appx/manifest/foundation/windows10";

bool ParseText(TiXmlDocument& document, const std::string& text) { return document.Parse(text.data(), text.size()); }

std::string Nested(int depth) {
  std::string text;
  for (int i = 0; i < depth; ++i) text += "<e>";
  for (int i = 0; i < depth; ++i) text += "</e>";
  return text;
}

TEST(WXmlDocument, ReadsElementsAttributesAndTextByNameAndNamespace) {
  TiXmlDocument document;
  ASSERT_TRUE(ParseText(document,
                        "<?xml version=\"1.0\" encoding=\"utf-8\"?>\n"
                        "<Package xmlns=\"http://schemas.microsoft.com/appx/manifest/foundation/windows10\"\n"
                        "         xmlns:x=\"http://schemas.microsoft.com/appx/manifest/uap/windows10/5\">\n"
                        "  <Properties><DisplayName>Caf\xC3\xA9 <![CDATA[&]]> Bar</DisplayName></Properties>\n"
                        "  <!-- a comment -->\n"
                        "  <x:Task Id=\"one\" x:Mode=\"m\"/>\n"
                        "  <Other/>\n"
                        "  <x:Task Id=\"two\"></x:Task>\n"
                        "</Package>"))
      << std::hex << document.ErrorId();
  const TiXmlElement* root = document.RootElement();
  ASSERT_NE(root, nullptr);
  EXPECT_STREQ(root->Value(), L"Package");
  EXPECT_STREQ(root->NamespaceURI(), kFoundation) << "a default namespace applies to unprefixed elements";
  EXPECT_EQ(root->Parent(), nullptr);

  const TiXmlElement* name = root->FirstChildElementNS(kFoundation, L"Properties")->FirstChildElement(L"DisplayName");
  ASSERT_NE(name, nullptr);
  EXPECT_STREQ(name->GetText(), L"Caf\u00e9 & Bar") << "UTF-8 decoded, text and CDATA joined";
  EXPECT_EQ(name->Parent()->Parent(), root);

  const TiXmlElement* task = root->FirstChildElementNS(kUap5, L"Task");
  ASSERT_NE(task, nullptr);
  EXPECT_STREQ(task->Value(), L"x:Task");
  EXPECT_EQ(root->FirstChildElement(L"Task"), nullptr) << "by name as written, the prefix is part of it";
  EXPECT_EQ(root->FirstChildElement(L"x:Task"), task);
  EXPECT_EQ(root->FirstChildElementNS(kFoundation, L"Task"), nullptr) << "same local name, other namespace";
  EXPECT_STREQ(task->Attribute(L"Id"), L"one");
  EXPECT_STREQ(task->AttributeNS(L"", L"Id"), L"one") << "an unprefixed attribute has no namespace";
  EXPECT_STREQ(task->AttributeNS(kUap5, L"Mode"), L"m");
  EXPECT_EQ(task->AttributeNS(kFoundation, L"Mode"), nullptr);
  EXPECT_EQ(task->Attribute(L"Missing"), nullptr);
  EXPECT_EQ(task->GetText(), nullptr);

  const TiXmlElement* second = task->NextSiblingElementNS(kUap5, L"Task");
  ASSERT_NE(second, nullptr);
  EXPECT_STREQ(second->Attribute(L"Id"), L"two");
  EXPECT_STREQ(task->NextSiblingElement()->Value(), L"Other");
  EXPECT_EQ(second->NextSiblingElement(), nullptr);
}

TEST(WXmlDocument, ReadsUtf16FilesAndKeepsTheLastErrorUntilTheNextLoad) {
  testsupport::ScratchFolder folder;
  const std::wstring path = folder.file(L"doc.xml");
  const std::wstring text = L"\xFEFF<r a=\"\u20AC\"/>";
  testsupport::WriteFileBytes(path, std::string(reinterpret_cast<const char*>(text.data()), text.size() * 2));
  TiXmlDocument document;
  ASSERT_TRUE(document.LoadFile(path.c_str())) << std::hex << document.ErrorId();
  EXPECT_STREQ(document.RootElement()->Attribute(L"a"), L"\u20AC");

  EXPECT_FALSE(document.LoadFile(folder.file(L"missing.xml").c_str()));
  EXPECT_EQ(document.ErrorId(), static_cast<unsigned long>(HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND)));
  EXPECT_EQ(document.RootElement(), nullptr) << "a failed load drops the earlier tree";
}

TEST(WXmlDocument, RefusesMalformedOversizedDeepAndDtdDocuments) {
  TiXmlDocument document;
  EXPECT_FALSE(ParseText(document, "<a><b></a>"));
  EXPECT_NE(document.ErrorId(), wxml::kErrorNone);
  EXPECT_FALSE(ParseText(document, "<a/><b/>")) << "two roots";
  EXPECT_FALSE(ParseText(document, ""));

  EXPECT_TRUE(ParseText(document, Nested(static_cast<int>(wxml::kMaxElementDepth)))) << std::hex << document.ErrorId();
  EXPECT_FALSE(ParseText(document, Nested(static_cast<int>(wxml::kMaxElementDepth) + 1)));
  EXPECT_EQ(document.ErrorId(), wxml::kErrorTooDeep);

  EXPECT_FALSE(ParseText(document, "<!DOCTYPE a [<!ENTITY e \"eeeeeeeeee\">]><a>&e;&e;</a>"));
  EXPECT_EQ(document.ErrorId(), wxml::kErrorDtdProhibited);

  testsupport::ScratchFolder folder;
  const std::wstring big = folder.file(L"big.xml");
  std::string text = "<a>";
  text.append(wxml::kMaxDocumentBytes, ' ');
  text += "</a>";
  testsupport::WriteFileBytes(big, text);
  EXPECT_FALSE(document.LoadFile(big.c_str()));
  EXPECT_EQ(document.ErrorId(), wxml::kErrorTooLarge);
  EXPECT_EQ(document.RootElement(), nullptr);
}

}  // namespace
