// What is this system's own: the texts and paths that it takes, and what a large document costs.
#include "tests/cpp/platform/xml/xml_dom.h"

#include <algorithm>
#include <ctime>

namespace {

TEST(XmlDom, OwnTextsAndPaths) {
  ExpectLoad(S_OK, L" \n\uFEFF<?xml version='1.0' encoding='GB2312'?><r>\u4E2D</r> \n");
  ExpectLoad(S_OK, L"<?xml version='1.1' encoding='no-such-set' standalone='yes'?><r/>");
  ExpectLoad(S_FALSE, L"<!DOCTYPE r SYSTEM 'http://127.0.0.1:9/x.dtd'><r/>");
  ExpectLoad(S_FALSE, nullptr);
  ExpectContent(L"<r> <![CDATA[a]]>\n <![CDATA[b]]> </r>", L"a\n b", L"#cdata-section|#cdata-section|");
  auto const document = NewDocument();
  ASSERT_EQ(Load(document, L"<a><b/></a>"), S_OK);
  for (WCHAR const *path : {L"", L"a/", L"a//b", L"a/b["})
    ExpectFound(document, path, E_FAIL);
  ExpectFound(document, nullptr, E_INVALIDARG);
}

/// The two texts again and again, with a number between them if there is a second.
std::wstring Repeat(int count, WCHAR const *text, WCHAR const *rest = L"") {
  std::wstring all;
  for (int n = 0; n < count; ++n)
    all.append(text).append(*rest ? std::to_wstring(n) + rest : L"");
  return all;
}
std::wstring Long(int count) { return std::wstring(static_cast<std::size_t>(count), L'x'); }

/// The seconds of this thread's processor time that loading takes.
double Cost(HRESULT hr, std::wstring const &xml) {
  auto const now = [] {
    timespec time{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
  };
  double const start = now();
  EXPECT_EQ(Load(NewDocument(), xml.c_str()), hr) << testing::PrintToString(xml.substr(0, 20));
  return now() - start;
}

TEST(XmlDom, TimeAndMemoryKeepToTheLengthOfADocument) {
  constexpr int kMost = 8 * 1024 * 1024, kSmall = 5'000;
  Cost(S_OK, L"<r>" + Long(kMost - 7) + L"</r>");
  Cost(S_FALSE, L"<r>" + Long(kMost - 6) + L"</r>");
  Cost(E_OUTOFMEMORY, Repeat(kMost / 3, L"<a>"));
  std::wstring (*const makers[])(int) = {[](int n) { return L"<r" + Repeat(n, L" a", L"='\u4E2D'") + L"/>"; },
                                         [](int n) { return L"<r>" + Repeat(n, L"<n", L"/>") + L"</r>"; },
                                         [](int n) { return Repeat(2 * n, L"<a>") + Repeat(2 * n, L"</a>"); },
                                         [](int n) { return L"<r>" + Long(100 * n) + L"</r>"; },
                                         [](int n) { return L"<r a='" + Long(100 * n) + L"'/>"; }};
  // The best of three, since a busy machine takes the caches away.
  auto const best = [](std::wstring const &xml) {
    return std::min({Cost(S_OK, xml), Cost(S_OK, xml), Cost(S_OK, xml)});
  };
  for (auto const &make : makers)
    EXPECT_LT(best(make(16 * kSmall)), 60 * best(make(kSmall)) + 0.01) << &make - makers;
}

} // namespace
