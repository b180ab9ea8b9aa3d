// What is this system's own: the texts and paths that it takes, what a large document costs, and what happens when
// memory runs out.
#include "tests/cpp/platform/xml/xml_dom.h"

#include <chrono>
#include <cstdlib>
#include <string>
#include <utility>

namespace {

TEST(XmlDom, IgnoresTheDeclaredEncodingAndRefusesDocumentTypes) {
  std::pair<HRESULT, WCHAR const *> const rows[] = {
      {S_OK, L" \n\uFEFF<?xml version='1.0' encoding='GB2312'?><r>\u4E2D</r> \n"},
      {S_OK, L"<?xml version='1.1' encoding='no-such-set' standalone='yes'?><r/>"},
      {S_FALSE, L"<!DOCTYPE r SYSTEM 'http://127.0.0.1:9/x.dtd'><r/>"},
      {S_FALSE, nullptr}};
  for (auto const &[hr, xml] : rows) {
    auto const document = NewDocument();
    ASSERT_EQ(Load(document, L"<old/>"), S_OK);
    EXPECT_EQ(Load(document, xml), hr) << testing::PrintToString(xml);
    EXPECT_EQ(ChildrenOf(document).empty(), hr != S_OK) << "a failed load empties the document";
  }
}

TEST(XmlDom, FailsForAPathThatIsNone) {
  auto const document = NewDocument();
  ASSERT_EQ(Load(document, L"<a><b/></a>"), S_OK);
  for (WCHAR const *path : {L"", L"a/", L"a//b", L"a/b[", static_cast<WCHAR const *>(nullptr)}) {
    CComPtr<IXMLDOMNode> node;
    EXPECT_EQ(document->selectSingleNode(CComBSTR(path), &node), path ? E_FAIL : E_INVALIDARG);
    EXPECT_EQ(node, nullptr) << testing::PrintToString(path);
  }
}

TEST(XmlDom, KeepsAdjacentSectionsApart) {
  CComPtr<IXMLDOMNode> const root = RootOf(L"<r> <![CDATA[a]]>\n <![CDATA[b]]> </r>");
  EXPECT_EQ(TextOf(root), L"a\n b");
  EXPECT_EQ(ChildrenOf(root), L"#cdata-section|#cdata-section|");
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
