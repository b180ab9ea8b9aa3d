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

HRESULT Load(IXMLDOMDocument *dom, WCHAR const *xml) {
  VARIANT_BOOL isSuccess = 1;
  HRESULT const hr = dom->loadXML(CComBSTR(xml), &isSuccess);
  EXPECT_EQ(isSuccess, hr == S_OK ? -1 : 0) << "the flag says what the result says";
  return hr;
}

std::wstring TextOf(IXMLDOMNode *parent) {
  CComBSTR text;
  EXPECT_EQ(parent->get_text(&text), S_OK);
  return static_cast<BSTR>(text);
}

/// "name|name|" of the children along the siblings.
std::wstring ChildrenOf(IXMLDOMNode *parent) {
  std::wstring names;
  CComPtr<IXMLDOMNode> child;
  for (HRESULT hr = parent->get_firstChild(&child); hr == S_OK;) {
    CComBSTR name;
    EXPECT_EQ(child->get_nodeName(&name), S_OK);
    names.append(name).append(L"|");
    CComPtr<IXMLDOMNode> next;
    hr = child->get_nextSibling(&next);
    child = std::move(next);
  }
  EXPECT_EQ(child, nullptr);
  return names;
}

/// The root of the markup, which outlives its document; null if the markup is refused.
CComPtr<IXMLDOMNode> RootOf(std::wstring const &xml) {
  auto const document = NewDocument();
  EXPECT_EQ(Load(document, xml.c_str()), S_OK) << testing::PrintToString(xml);
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
  for (auto const &[hr, xml] : rows) {
    auto const document = NewDocument();
    ASSERT_EQ(Load(document, L"<old/>"), S_OK);
    EXPECT_EQ(Load(document, xml), hr) << testing::PrintToString(xml);
    EXPECT_EQ(ChildrenOf(document).empty(), hr != S_OK) << "a failed load empties the document";
  }
  std::wistringstream malformed(
      L"  |<r>|<r></R>|<r/>junk|<r/><r/>|<r>\u0001</r>|<r>a & b</r>|<r>&nbsp;</r>|<r>&#0;</r>|"
      L"<r>&#xFFFE;</r>|<r>&#xD800;</r>|<r>]]></r>|<r><!-- -- --></r>|<r a='<'/>|"
      L"<r a='1' a='2'/>|<r><?xml version='1.0'?></r>");
  for (std::wstring xml; std::getline(malformed, xml, L'|');)
    EXPECT_EQ(Load(NewDocument(), xml.c_str()), S_FALSE) << testing::PrintToString(xml);
}

TEST(XmlDom, PathsKeepFoundNotFoundAndFailedApart) {
  auto const document = NewDocument();
  ASSERT_EQ(Load(document, L"<INFO xmlns='urn:d' xmlns:x='urn:x'><a><c/></a><a><b>second</b></a><x:p>q</x:p>"
                           L"<b>outer</b></INFO>"),
            S_OK);
  struct Row {
    WCHAR const *path;
    HRESULT hr;
    WCHAR const *text;
  };
  Row const rows[] = {{L"INFO/b", S_OK, L"outer"},   {L"INFO/a/b", S_OK, L"second"}, {L"INFO/x:p", S_OK, L"q"},
                      {L"INFO/p", S_FALSE, nullptr}, {L"info/b", S_FALSE, nullptr},  {L"b", S_FALSE, nullptr},
                      {L"", E_FAIL, nullptr},        {L"INFO/", E_FAIL, nullptr},    {L"INFO//b", E_FAIL, nullptr},
                      {L"INFO/b[", E_FAIL, nullptr}, {L"a:b:c", E_FAIL, nullptr},    {nullptr, E_INVALIDARG, nullptr}};
  for (Row const &row : rows) {
    CComPtr<IXMLDOMNode> node;
    EXPECT_EQ(document->selectSingleNode(CComBSTR(row.path), &node), row.hr) << testing::PrintToString(row.path);
    ASSERT_EQ(node != nullptr, row.text != nullptr) << testing::PrintToString(row.path);
    if (row.text) {
      EXPECT_EQ(TextOf(node), row.text);
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
  for (auto const &[xml, text, children] : rows) {
    CComPtr<IXMLDOMNode> const root = RootOf(xml);
    EXPECT_EQ(TextOf(root), text) << testing::PrintToString(xml);
    EXPECT_EQ(ChildrenOf(root), children) << testing::PrintToString(xml);
  }
}

/// The two texts again and again, with a number between them if there is a second.
std::wstring Repeat(int count, WCHAR const *text, WCHAR const *rest = L"") {
  std::wstring all;
  for (int i = 0; i < count; ++i)
    all.append(text).append(*rest ? std::to_wstring(i) + rest : L"");
  return all;
}

TEST(XmlDom, TimeAndMemoryKeepToTheLengthOfADocument) {
  int const most = 8 * 1024 * 1024;
  std::wstring const longText(most - 7, L'x');
  std::pair<HRESULT, std::wstring> const rows[] = {{S_OK, L"<r" + Repeat(100'000, L" a", L"='\u4E2D'") + L"/>"},
                                                   {S_OK, L"<r>" + Repeat(100'000, L"<n", L"/>") + L"</r>"},
                                                   {S_OK, Repeat(200'000, L"<a>") + Repeat(200'000, L"</a>")},
                                                   {S_OK, L"<r>" + longText + L"</r>"},
                                                   {S_FALSE, L"<r>" + longText + L"y</r>"},
                                                   {S_OK, L"<r a='" + longText.substr(4) + L"'/>"},
                                                   {E_OUTOFMEMORY, Repeat(most / 3, L"<a>")}};
  for (auto const &[hr, xml] : rows) {
    auto const start = std::chrono::steady_clock::now();
    auto const document = NewDocument();
    EXPECT_EQ(Load(document, xml.c_str()), hr) << testing::PrintToString(xml.substr(0, 20));
    EXPECT_TRUE(TextOf(document) == (xml == rows[3].second ? longText : L""));
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(10));
  }
}

// The sanitizers have an allocator of their own.
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
thread_local int t_left = -1; // allocations that still succeed; negative: all
thread_local int t_live = 0;

#pragma GCC visibility push(default)
extern "C" void *__libc_realloc(void *p, std::size_t cb);
extern "C" void __libc_free(void *p);
extern "C" void *realloc(void *p, std::size_t cb) {
  if (t_left >= 0 && t_left-- == 0)
    return nullptr;
  t_live += p == nullptr;
  return __libc_realloc(p, cb);
}
extern "C" void *malloc(std::size_t cb) { return realloc(nullptr, cb); }
extern "C" void free(void *p) {
  t_live -= p != nullptr;
  __libc_free(p);
}
#pragma GCC visibility pop

TEST(XmlDom, EveryFailedAllocationEndsTheLoading) {
  CComBSTR const xml((L"<r>" + Repeat(2000, L"<b c='1'>t<!--x--><?p i?><![CDATA[y]]></b>") + L"</r>").c_str());
  auto const document = NewDocument();
  int failures = 0;
  for (HRESULT hr = E_FAIL; hr != S_OK; ++failures) {
    int const live = t_live;
    t_left = failures;
    hr = document->loadXML(xml, nullptr);
    t_left = -1;
    ASSERT_TRUE(hr == S_OK || (hr == E_OUTOFMEMORY && t_live == live)) << failures << ": " << t_live - live;
  }
  EXPECT_GT(failures, 30);
}
#endif

} // namespace
