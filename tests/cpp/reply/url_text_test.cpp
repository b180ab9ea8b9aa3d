// The percent decoder.
#include "reply/UrlText.h"

#include <gtest/gtest.h>

#include <string>

TEST(DecodeURLText, DecodesOneCharacterPerEscapeAndCutsLongText) {
  EXPECT_EQ(DecodeURLText(L"https%3a%2F%2fh/100%25%41+b"), L"https://h/100%A+b");
  EXPECT_EQ(DecodeURLText(L"%e4%C3%A4"), L"\u00e4\u00c3\u00a4") << "not combined";
  EXPECT_EQ(DecodeURLText(L"a%4gb"), L"a\4b") << "a single digit counts alone";
  for (wchar_t const *wszEnded : {L"a%g4b", L"a%00b", L"a%+1b", L"a%0xb", L"a%", L"a%4"})
    EXPECT_EQ(DecodeURLText(wszEnded), L"a") << testing::PrintToString(wszEnded);
  EXPECT_EQ(DecodeURLText(L"") + DecodeURLText(nullptr), L"");
  std::wstring const decoded = DecodeURLText(std::wstring(2046, L'a').append(L"%62%63").c_str());
  EXPECT_EQ(decoded.find(L"ab"), 2045U) << "cut after the last character that fits";
  EXPECT_EQ(decoded.size(), 2047U);
}
