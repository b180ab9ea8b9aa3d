// What parses, what a path finds, and what nodes show of their text and children.
#include "platform/XmlDom.h"

#include <gtest/gtest.h>

#include <string>

namespace {

CComPtr<IXMLDOMDocument> NewDocument() {
  CComPtr<IXMLDOMDocument> document;
  EXPECT_EQ(CoCreateInstance(CLSID_DOMDocument, nullptr, CLSCTX_INPROC_SERVER, IID_IXMLDOMDocument,
                             reinterpret_cast<void **>(&document)),
            S_OK);
  return document;
}

HRESULT Load(IXMLDOMDocument *pDocument, std::wstring const &strXml) {
  VARIANT_BOOL bSuccess = 1;
  HRESULT const hr = pDocument->loadXML(CComBSTR(strXml.c_str()), &bSuccess);
  EXPECT_EQ(bSuccess, hr == S_OK ? -1 : 0) << "the flag says what the result says";
  return hr;
}

std::wstring TextOf(IXMLDOMNode *pNode) {
  CComBSTR bstrText;
  EXPECT_EQ(pNode->get_text(&bstrText), S_OK);
  return static_cast<BSTR>(bstrText);
}

/// "name|name|" of the children along the siblings.
std::wstring ChildrenOf(IXMLDOMNode *pNode) {
  std::wstring strNames;
  CComPtr<IXMLDOMNode> child;
  for (HRESULT hr = pNode->get_firstChild(&child); hr == S_OK;) {
    CComBSTR bstrName;
    EXPECT_EQ(child->get_nodeName(&bstrName), S_OK);
    strNames.append(bstrName).append(L"|");
    CComPtr<IXMLDOMNode> next;
    hr = child->get_nextSibling(&next);
    child = std::move(next);
  }
  EXPECT_EQ(child, nullptr);
  return strNames;
}

TEST(XmlDom, LoadsWhatIsWellFormedAndRefusesTheRest) {
  std::wstring const accepted[] = {L"<r/>",
                                   L"\uFEFF <r/> \n",
                                   L" \n\uFEFF<?xml version='1.0' encoding='GB2312'?><r>\u4E2D</r>",
                                   L"<?xml version='1.0' encoding='UTF-16'?><r>\u4E2D</r>",
                                   L"<?xml version='1.0' encoding='no-such-set' standalone='yes'?><r/>",
                                   L"<?xml version='1.1'?><r/>",
                                   L"<!-- c --><?p i?><r/><!-- c -->",
                                   L"<r>\u0080\U0001F600</r>",
                                   L"<x:r/>"};
  std::wstring const refused[] = {L"",
                                  L"  ",
                                  L"text",
                                  L"<r>",
                                  L"<r></R>",
                                  L"<r/><r/>",
                                  L"<r/>junk",
                                  L"<r>a & b</r>",
                                  L"<r>&nbsp;</r>",
                                  L"<r a='1' a='2'/>",
                                  L"<r>\u0001</r>",
                                  L"<r>\uFFFE</r>",
                                  std::wstring(L"<r>") + wchar_t(0xD83D) + L"</r>",
                                  L"\u00EF\u00BB\u00BF<r/>",
                                  L"<!DOCTYPE r><r/>",
                                  L"<!DOCTYPE r [<!ENTITY e 'x'>]><r>&e;</r>",
                                  L"<!DOCTYPE r SYSTEM 'http://127.0.0.1:9/x.dtd'><r/>",
                                  L"<html><body><p>Not <b>found</p></body></html>"};
  auto const check = [](std::wstring const &strXml, HRESULT hr) {
    auto const document = NewDocument();
    ASSERT_EQ(Load(document, L"<old/>"), S_OK);
    EXPECT_EQ(Load(document, strXml), hr) << testing::PrintToString(strXml);
    EXPECT_EQ(ChildrenOf(document).empty(), hr != S_OK) << "a failed load empties the document";
  };
  for (std::wstring const &strXml : accepted)
    check(strXml, S_OK);
  for (std::wstring const &strXml : refused)
    check(strXml, S_FALSE);
  EXPECT_EQ(NewDocument()->loadXML(nullptr, nullptr), S_FALSE);
}

TEST(XmlDom, PathsKeepFoundNotFoundAndFailedApart) {
  auto const document = NewDocument();
  ASSERT_EQ(Load(document, L"<INFO xmlns='urn:d' xmlns:x='urn:x'><a><c/></a><a><b>second</b></a><x:p>q</x:p>"
                           L"<b>outer</b></INFO>"),
            S_OK);
  struct Row {
    WCHAR const *wszPath;
    HRESULT hr;
    WCHAR const *wszText;
  };
  Row const rows[] = {
      {L"INFO/b", S_OK, L"outer"},     {L"INFO/a/b", S_OK, L"second"},    {L"INFO/x:p", S_OK, L"q"},
      {L"INFO/p", S_FALSE, nullptr},   {L"info/b", S_FALSE, nullptr},     {L"b", S_FALSE, nullptr},
      {L"INFO/a/d", S_FALSE, nullptr}, {L"INFO/b/c/d", S_FALSE, nullptr}, {L"", E_FAIL, nullptr},
      {L"INFO/", E_FAIL, nullptr},     {L"INFO//b", E_FAIL, nullptr},     {L"INFO/b[", E_FAIL, nullptr},
      {L"1bad", E_FAIL, nullptr},      {L"a:b:c", E_FAIL, nullptr},       {nullptr, E_INVALIDARG, nullptr}};
  for (Row const &row : rows) {
    CComPtr<IXMLDOMNode> node;
    EXPECT_EQ(document->selectSingleNode(CComBSTR(row.wszPath), &node), row.hr) << testing::PrintToString(row.wszPath);
    ASSERT_EQ(node != nullptr, row.wszText != nullptr) << testing::PrintToString(row.wszPath);
    if (row.wszText) {
      EXPECT_EQ(TextOf(node), row.wszText);
    }
  }
  CComPtr<IXMLDOMNode> root, below;
  ASSERT_EQ(document->selectSingleNode(CComBSTR(L"INFO"), &root), S_OK);
  EXPECT_EQ(root->selectSingleNode(CComBSTR(L"a/b"), &below), S_OK) << "relative to the node";
  EXPECT_EQ(NewDocument()->selectSingleNode(CComBSTR(L"INFO"), &below), S_FALSE) << "an empty document";
}

TEST(XmlDom, TextAndChildrenLeaveOutWhatIsNoContent) {
  struct Row {
    WCHAR const *wszXml;
    WCHAR const *wszText;
    WCHAR const *wszChildren;
  };
  Row const rows[] = {
      {L"<r/>", L"", L""},
      {L"<r> \t\r\n</r>", L"", L""},
      {L"<r> \u00A0 a\r\nb &#32;</r>", L"\u00A0 a\nb", L"#text|"},
      {L"<r>\n <a>1</a>\n <b>2</b>\n</r>", L"12", L"a|b|"},
      {L"<r>lead <b>in</b> <c>y</c> trail</r>", L"lead in y trail", L"#text|b|c|#text|"},
      {L"<r><!--n-->a<?p i?><![CDATA[<&> ]]>b</r>", L"a<&> b", L"#comment|#text|p|#cdata-section|#text|"},
      {L"<r xml:space='preserve'> <a/> </r>", L"  ", L"#text|a|#text|"},
      {L"<r>&lt;&#x4E2D;&amp;&#x1F600;</r>", L"<\u4E2D&\U0001F600", L"#text|"},
      {L"<r xmlns:x='u'><x:a>1</x:a></r>", L"1", L"x:a|"}};
  for (Row const &row : rows) {
    auto const document = NewDocument();
    ASSERT_EQ(Load(document, row.wszXml), S_OK);
    CComPtr<IXMLDOMNode> root;
    ASSERT_EQ(document->get_firstChild(&root), S_OK);
    EXPECT_EQ(TextOf(root), row.wszText) << testing::PrintToString(row.wszXml);
    EXPECT_EQ(ChildrenOf(root), row.wszChildren) << testing::PrintToString(row.wszXml);
  }
}

TEST(XmlDom, AttributesByExactNameAndValuesByKind) {
  CComPtr<IXMLDOMNode> root;
  {
    auto const document = NewDocument();
    ASSERT_EQ(Load(document, L"<c categoryid=' 7 &amp;' other='1'>t</c>"), S_OK);
    ASSERT_EQ(document->get_firstChild(&root), S_OK);
  } // the node outlives its document
  CComPtr<IXMLDOMNamedNodeMap> attributes;
  ASSERT_EQ(root->get_attributes(&attributes), S_OK);
  CComPtr<IXMLDOMNode> attribute, none, text;
  EXPECT_EQ(attributes->getNamedItem(CComBSTR(L"CategoryId"), &none), S_FALSE);
  ASSERT_EQ(attributes->getNamedItem(CComBSTR(L"categoryid"), &attribute), S_OK);
  CComVariant value;
  ASSERT_EQ(attribute->get_nodeValue(&value), S_OK);
  ASSERT_EQ(value.vt, VT_BSTR);
  EXPECT_STREQ(value.bstrVal, L" 7 &");
  EXPECT_EQ(TextOf(attribute), L" 7 &");
  EXPECT_EQ(attribute->get_nextSibling(&none), S_FALSE) << "attributes are no siblings";
  CComVariant ofElement;
  EXPECT_EQ(root->get_nodeValue(&ofElement), S_FALSE);
  EXPECT_EQ(ofElement.vt, VT_NULL);
  ASSERT_EQ(root->get_firstChild(&text), S_OK);
  EXPECT_EQ(text->get_attributes(&attributes), S_FALSE);
}

TEST(XmlDom, MarkupCutAnywhereIsRefused) {
  std::wstring const strXml =
      L"<?xml version='1.0'?><!--c--><r a='&lt;1'><x:b xmlns:x='u'>t&#65;<![CDATA[d]]></x:b><?p i?></r>";
  auto const document = NewDocument();
  for (std::size_t u = 0; u < strXml.size(); ++u) {
    ASSERT_EQ(Load(document, strXml.substr(0, u)), S_FALSE) << u;
    Load(document, strXml.substr(u));
  }
  EXPECT_EQ(Load(document, strXml), S_OK);
}

TEST(XmlDom, SiblingsAreWalkedInOneStepEach) {
  constexpr std::size_t kSiblings = 100000; // a walk that started anew at each step would not come to an end
  std::wstring strXml = L"<r>";
  for (std::size_t u = 0; u < kSiblings; ++u)
    strXml += L"<e/>\n";
  auto const document = NewDocument();
  ASSERT_EQ(Load(document, strXml + L"</r>"), S_OK);
  CComPtr<IXMLDOMNode> root;
  ASSERT_EQ(document->get_firstChild(&root), S_OK);
  EXPECT_EQ(ChildrenOf(root).size(), 2 * kSiblings);
}

} // namespace
