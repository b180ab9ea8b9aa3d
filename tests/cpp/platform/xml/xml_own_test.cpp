// What is this system's own: the texts and paths that it takes, and what a large document costs.
#include "tests/cpp/platform/xml/xml_dom.h"

#include <algorithm>
#include <ctime>

TEST(XmlDom, OwnTextsAndPaths) {
  EXPECT_EQ(Loaded(L" \n\uFEFF<?xml version='1.1' encoding='GB2312' standalone='yes'?><r>\u4E2D</r> \n"),
            L"\u4E2D|#text|");
  EXPECT_EQ(Loaded(L"<!DOCTYPE r SYSTEM 'http://127.0.0.1:9/x.dtd'><r/>"), std::to_wstring(S_FALSE));
  EXPECT_EQ(Loaded(nullptr), std::to_wstring(S_FALSE));
  EXPECT_EQ(Loaded(L"<r> <![CDATA[a]]>\n <![CDATA[b]]> </r>"), L"a\n b|#cdata-section|#cdata-section|");
  HRESULT hr = S_OK;
  auto const document = Load(L"<a><b/></a>", hr);
  for (WCHAR const *path : {L"", L"a/", L"a//b", L"a/b["})
    EXPECT_EQ(Find(document, path), std::to_wstring(E_FAIL));
  EXPECT_EQ(Find(document, nullptr), std::to_wstring(E_INVALIDARG));
}

/// The two texts again and again, with a number between them if there is a second.
static std::wstring Repeat(int count, WCHAR const *text, WCHAR const *rest = L"") {
  std::wstring all;
  for (int n = 0; n < count; ++n)
    all.append(text).append(*rest ? std::to_wstring(n) + rest : L"");
  return all;
}

/// The processor time that loading takes.
static std::clock_t Cost(HRESULT expected, std::wstring const &xml) {
  HRESULT hr = S_OK;
  std::clock_t const start = std::clock();
  Load(xml.c_str(), hr);
  EXPECT_EQ(hr, expected) << testing::PrintToString(xml.substr(0, 20));
  return std::clock() - start;
}

TEST(XmlDom, TimeAndMemoryKeepToTheLengthOfADocument) {
  constexpr int kMost = 8 * 1024 * 1024, kSmall = 5'000;
  Cost(S_OK, L"<r>" + Repeat(kMost - 7, L"x") + L"</r>");
  Cost(S_FALSE, L"<r>" + Repeat(kMost - 6, L"x") + L"</r>");
  Cost(E_OUTOFMEMORY, Repeat(kMost / 3, L"<a>"));
  std::wstring (*const makers[])(int) = {[](int n) { return L"<r" + Repeat(n, L" a", L"='\u4E2D'") + L"/>"; },
                                         [](int n) { return L"<r>" + Repeat(n, L"<n", L"/>") + L"</r>"; },
                                         [](int n) { return Repeat(2 * n, L"<a>") + Repeat(2 * n, L"</a>"); },
                                         [](int n) { return L"<r>" + Repeat(100 * n, L"x") + L"</r>"; },
                                         [](int n) { return L"<r a='" + Repeat(100 * n, L"x") + L"'/>"; }};
  // The best of three, since a busy machine takes the caches away.
  auto const best = [](std::wstring const &xml) {
    return std::min({Cost(S_OK, xml), Cost(S_OK, xml), Cost(S_OK, xml)});
  };
  for (auto const &make : makers)
    EXPECT_LT(best(make(16 * kSmall)), 60 * best(make(kSmall)) + CLOCKS_PER_SEC / 100) << &make - makers;
}
