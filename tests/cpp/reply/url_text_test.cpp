// The percent decoder.
#include "reply/UrlText.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>

namespace {

TEST(DecodeURLText, DecodesOneCharacterPerEscapeAndCutsLongText) {
  std::pair<wchar_t const *, std::wstring> const cases[] = {
      {L"https%3a%2F%2fh/%41+b", L"https://h/A+b"},
      {L"%e4%C3%A4", L"\u00e4\u00c3\u00a4"}, // not combined
      {L"100%25", L"100%"},
      {L"a%4gb", L"a\4b"}, // a single digit counts alone
      {L"a%g4b", L"a"},    // not a digit: 0 ends the text
      {L"a%00b", L"a"},
      {L"a%+1b", L"a"},
      {L"a%0xb", L"a"},
      {L"a%", L"a"},
      {L"", L""},
      {nullptr, L""},
  };
  for (auto const &[wszText, decoded] : cases)
    EXPECT_EQ(DecodeURLText(wszText), decoded) << testing::PrintToString(wszText);
  EXPECT_EQ(DecodeURLText(std::wstring(2047, L'a').c_str()).size(), 2047U);
  EXPECT_EQ(DecodeURLText((std::wstring(2046, L'a') + L"%62%63").c_str()), std::wstring(2046, L'a') + L"b");
}

} // namespace
