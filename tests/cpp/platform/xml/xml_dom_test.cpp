// What parses, what a path finds, and what nodes show of their text and children.
#include "framework/ComTypes.h"
#include "platform/xml/XmlDom.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <sstream>
#include <string>
#include <utility>

namespace {

CComPtr<IXMLDOMDocument> NewDocument() {
  CComPtr<IXMLDOMDocument> document;
  EXPECT_EQ(CoCreateInstance(CLSID_DOMDocument, nullptr, CLSCTX_INPROC_SERVER, IID_IXMLDOMDocument,
                             reinterpret_cast<void **>(&document)),
            S_OK);
  return document;
}

HRESULT Load(IXMLDOMDocument *pDocument, WCHAR const *wszXml) {
  VARIANT_BOOL bSuccess = 1;
  HRESULT const hr = pDocument->loadXML(CComBSTR(wszXml), &bSuccess);
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

/// The root of the markup, which outlives its document; null if the markup is refused.
CComPtr<IXMLDOMNode> RootOf(std::wstring const &strXml) {
  auto const document = NewDocument();
  EXPECT_EQ(Load(document, strXml.c_str()), S_OK) << testing::PrintToString(strXml);
  CComPtr<IXMLDOMNode> root;
  document->get_firstChild(&root);
  return root;
}

TEST(XmlDom, LoadsWhatIsWellFormedAndRefusesTheRest) {
  WCHAR const lone[] = {'<', 'r', '>', 0xD83D, '<', '/', 'r', '>', 0};
  std::pair<HRESULT, WCHAR const *> const rows[] = {
      {S_OK, L" \n\uFEFF<?xml version='1.0' encoding='GB2312'?><r>\u4E2D</r> \n"},
      {S_OK, L"<?xml version='1.1' encoding='no-such-set' standalone='yes'?><r/>"},
      {S_OK, L"<!-- c --><?p i?><x:r a:b:c=''>\u0080\U0001F600</x:r><!-- c -->"},
      {S_FALSE, lone},
      {S_FALSE, L"\u00EF\u00BB\u00BF<r/>"},
      {S_FALSE, L"<!DOCTYPE r SYSTEM 'http://127.0.0.1:9/x.dtd'><r/>"},
      {S_FALSE, nullptr}};
  for (auto const &[hr, wszXml] : rows) {
    auto const document = NewDocument();
    ASSERT_EQ(Load(document, L"<old/>"), S_OK);
    EXPECT_EQ(Load(document, wszXml), hr) << testing::PrintToString(wszXml);
    EXPECT_EQ(ChildrenOf(document).empty(), hr != S_OK) << "a failed load empties the document";
  }
  std::wistringstream malformed(
      L"  |<r>|<r></R>|<r/>junk|<r/><r/>|<r>\u0001</r>|<r>a & b</r>|<r>&nbsp;</r>|<r>&#0;</r>|"
      L"<r>&#xFFFE;</r>|<r>&#xD800;</r>|<r>]]></r>|<r><!-- -- --></r>|<r a='<'/>|"
      L"<r a='1' a='2'/>|<r><?xml version='1.0'?></r>");
  for (std::wstring strXml; std::getline(malformed, strXml, L'|');)
    EXPECT_EQ(Load(NewDocument(), strXml.c_str()), S_FALSE) << testing::PrintToString(strXml);
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
  Row const rows[] = {{L"INFO/b", S_OK, L"outer"},   {L"INFO/a/b", S_OK, L"second"}, {L"INFO/x:p", S_OK, L"q"},
                      {L"INFO/p", S_FALSE, nullptr}, {L"info/b", S_FALSE, nullptr},  {L"b", S_FALSE, nullptr},
                      {L"", E_FAIL, nullptr},        {L"INFO/", E_FAIL, nullptr},    {L"INFO//b", E_FAIL, nullptr},
                      {L"INFO/b[", E_FAIL, nullptr}, {L"a:b:c", E_FAIL, nullptr},    {nullptr, E_INVALIDARG, nullptr}};
  for (Row const &row : rows) {
    CComPtr<IXMLDOMNode> node;
    EXPECT_EQ(document->selectSingleNode(CComBSTR(row.wszPath), &node), row.hr) << testing::PrintToString(row.wszPath);
    ASSERT_EQ(node != nullptr, row.wszText != nullptr) << testing::PrintToString(row.wszPath);
    if (row.wszText) {
      EXPECT_EQ(TextOf(node), row.wszText);
    }
  }
  CComPtr<IXMLDOMNode> root;
  EXPECT_EQ(NewDocument()->selectSingleNode(CComBSTR(L"INFO"), &root), S_FALSE) << "an empty document";
}

TEST(XmlDom, TextAndChildrenLeaveOutWhatIsNoContent) {
  WCHAR const *const rows[][3] = {
      {L"<r> \u00A0 a\r\nb &#32;</r>", L"\u00A0 a\nb", L"#text|"},
      {L"<r>\n <a>1</a>\n <b>2</b>\n</r>", L"1 2", L"a|b|"},
      {L"<r>0<a><b>1</b>\n \n</a><c/>\t<!--n--> <b>2</b></r>", L"01 2", L"#text|a|c|#comment|b|"},
      {L"<r> <![CDATA[a]]>\n <![CDATA[b]]> </r>", L"a\n b", L"#cdata-section|#cdata-section|"},
      {L"<r>lead <b>in</b> <c>y</c> trail</r>", L"lead in y trail", L"#text|b|c|#text|"},
      {L"<r><!--n-->a<?p i?><![CDATA[<&> ]]>b</r>", L"a<&> b", L"#comment|#text|p|#cdata-section|#text|"},
      {L"<r xml:space='preserve'> <a/> </r>", L"  ", L"#text|a|#text|"},
      {L"<r xml:space='preserve'><a xml:space='default'> <b xml:space='?'> </b></a> </r>", L" ", L"a|#text|"},
      {L"<r xmlns:x='u'>&lt;&#x4E2D;&amp;&#x1F600;<x:a/></r>", L"<\u4E2D&\U0001F600", L"#text|x:a|"}};
  for (auto const &[wszXml, wszText, wszChildren] : rows) {
    CComPtr<IXMLDOMNode> const root = RootOf(wszXml);
    EXPECT_EQ(TextOf(root), wszText) << testing::PrintToString(wszXml);
    EXPECT_EQ(ChildrenOf(root), wszChildren) << testing::PrintToString(wszXml);
  }
}

/// The two texts again and again, with a number between them if there is a second.
std::wstring Repeat(int nCount, WCHAR const *wszText, WCHAR const *wszRest = L"") {
  std::wstring strAll;
  for (int i = 0; i < nCount; ++i)
    strAll.append(wszText).append(*wszRest ? std::to_wstring(i) + wszRest : L"");
  return strAll;
}

TEST(XmlDom, TimeAndMemoryKeepToTheLengthOfADocument) {
  int const nMost = 8 * 1024 * 1024;
  std::wstring const strText(nMost - 7, L'x');
  std::pair<HRESULT, std::wstring> const rows[] = {{S_OK, L"<r" + Repeat(100'000, L" a", L"='\u4E2D'") + L"/>"},
                                                   {S_OK, L"<r>" + Repeat(100'000, L"<n", L"/>") + L"</r>"},
                                                   {S_OK, Repeat(200'000, L"<a>") + Repeat(200'000, L"</a>")},
                                                   {S_OK, L"<r>" + strText + L"</r>"},
                                                   {S_FALSE, L"<r>" + strText + L"y</r>"},
                                                   {S_OK, L"<r a='" + strText.substr(4) + L"'/>"},
                                                   {E_OUTOFMEMORY, Repeat(nMost / 3, L"<a>")}};
  for (auto const &[hr, strXml] : rows) {
    auto const start = std::chrono::steady_clock::now();
    auto const document = NewDocument();
    EXPECT_EQ(Load(document, strXml.c_str()), hr) << testing::PrintToString(strXml.substr(0, 20));
    EXPECT_TRUE(TextOf(document) == (strXml == rows[3].second ? strText : L""));
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(10));
  }
}

// The sanitizers have an allocator of their own.
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
thread_local int t_nLeft = -1; // allocations that still succeed; negative: all
thread_local int t_nLive = 0;

#pragma GCC visibility push(default)
extern "C" void *__libc_realloc(void *p, std::size_t cb);
extern "C" void __libc_free(void *p);
extern "C" void *realloc(void *p, std::size_t cb) {
  if (t_nLeft >= 0 && t_nLeft-- == 0)
    return nullptr;
  t_nLive += p == nullptr;
  return __libc_realloc(p, cb);
}
extern "C" void *malloc(std::size_t cb) { return realloc(nullptr, cb); }
extern "C" void free(void *p) {
  t_nLive -= p != nullptr;
  __libc_free(p);
}
#pragma GCC visibility pop

TEST(XmlDom, EveryFailedAllocationEndsTheLoading) {
  CComBSTR const bstrXml((L"<r>" + Repeat(2000, L"<b c='1'>t<!--x--><?p i?><![CDATA[y]]></b>") + L"</r>").c_str());
  auto const document = NewDocument();
  int nFailures = 0;
  for (HRESULT hr = E_FAIL; hr != S_OK; ++nFailures) {
    int const nLive = t_nLive;
    t_nLeft = nFailures;
    hr = document->loadXML(bstrXml, nullptr);
    t_nLeft = -1;
    ASSERT_TRUE(hr == S_OK || (hr == E_OUTOFMEMORY && t_nLive == nLive)) << nFailures << ": " << t_nLive - nLive;
  }
  EXPECT_GT(nFailures, 30);
}
#endif

} // namespace
