// What is this system's own: the texts and paths that it takes, and what a large document costs.
#include "tests/cpp/platform/xml/xml_dom.h"

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

/// The start, the piece again and again, with a number if something follows it, and the end, once or as often.
struct Large {
  WCHAR const *start, *piece, *rest, *end;
  bool isEndRepeated = false;

  std::wstring Make(int count) const {
    std::wstring xml = start, ends;
    for (int n = 0; n < count; ++n) {
      xml.append(piece).append(*rest ? std::to_wstring(n) + rest : L"");
      ends += isEndRepeated ? end : L"";
    }
    return xml + (isEndRepeated ? ends : end);
  }
};

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
  constexpr int kMost = 8 * 1024 * 1024;
  Large const longText{L"<r>", L"x", L"", L"</r>"}, longValue{L"<r a='", L"x", L"", L"'/>"};
  Cost(S_OK, longText.Make(kMost - 7));
  Cost(S_FALSE, longText.Make(kMost - 6));
  Cost(E_OUTOFMEMORY, Large{L"", L"<a>", L"", L""}.Make(kMost / 3));
  for (auto const &[count, large] : {std::pair{12'000, Large{L"<r", L" a", L"='\u4E2D'", L"/>"}},
                                     std::pair{12'000, Large{L"<r>", L"<n", L"/>", L"</r>"}},
                                     std::pair{25'000, Large{L"", L"<a>", L"", L"</a>", true}},
                                     std::pair{kMost / 8 - 9, longText}, std::pair{kMost / 8 - 9, longValue}})
    EXPECT_LT(Cost(S_OK, large.Make(8 * count)), 24 * Cost(S_OK, large.Make(count)) + 0.01) << large.piece;
}

} // namespace
