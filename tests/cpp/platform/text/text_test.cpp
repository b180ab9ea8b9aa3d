// The code pages, the wide formatter and the two number functions.
#include "platform/text/AnsiText.h"
#include "platform/text/CodePages.h"
#include "platform/text/Text.h"
#include "tests/cpp/platform/helpers.h"

#include <climits>

TEST(CodePages, Utf8IsStrictBothWays) {
  std::pair<char const *, WCHAR const *> const texts[] = {
      {"a\xC3\xA4\xE4\xB8\xAD\xF0\x9F\x98\x80", L"a\u00E4\u4E2D\U0001F600"},
      {"\xF4\x8F\xBF\xBF\xED\x9F\xBF\xEF\xBB\xBFx", L"\U0010FFFF\uD7FF\uFEFFx"}};
  for (auto const &[bytes, wide] : texts) // the tests run in the C locale
    EXPECT_TRUE(WideFromAnsi(bytes) == wide && AnsiFromWide(wide) == bytes) << bytes;
  std::pair<std::string, std::size_t> const malformed[] = {
      {"\xFF", 1},         {"\xE2\x82", 1},     {"\xF0\x9F\x98", 1},    {"\xC0\x80", 2},
      {"\xED\xA0\xBD", 3}, {"\xE0\x9F\xBF", 3}, {"\xF4\x90\x80\x80", 4}};
  for (auto const &[bytes, count] : malformed)
    for (std::string const tail : {"", "z"})
      EXPECT_EQ(WideFromAnsi(bytes + tail), std::wstring(count, 0xFFFD).append(tail.size(), 'z'));
  WCHAR const pair[] = {0xD83D, 0xDE00, 0}, lone[] = {0xDE00, 0xD83D, 'x', 0x110000, -1, 0};
  EXPECT_EQ(AnsiFromWide(pair), "\xF0\x9F\x98\x80");
  EXPECT_EQ(AnsiFromWide(lone), "\xEF\xBF\xBD\xEF\xBF\xBDx\xEF\xBF\xBD\xEF\xBF\xBD");
  WCHAR wide[8];
  EXPECT_EQ(MultiByteToWideChar(CP_ACP, 0, "\xC3\xA4", -1, wide, 8), 2) << "the terminator counts";
}

template <class... Arguments> static std::wstring Formatted(WCHAR const *format, Arguments... arguments) {
  WCHAR buffer[16];
  int const length = _snwprintf_s(buffer, std::size(buffer), _TRUNCATE, format, arguments...);
  std::wstring const text = buffer;
  return length == static_cast<int>(text.size()) ? text : text + L"|cut";
}

TEST(Text, FormatsAndNumbersAtTheirExtremes) {
  EXPECT_EQ(Formatted(L"%s %S", L"w\u4E2D", "n\xC3\xA4"), L"w\u4E2D n\u00E4");
  EXPECT_EQ(Formatted(L"%s %S", nullptr, nullptr), L"(null) (null)");
  EXPECT_EQ(Formatted(L"%d %d", INT_MIN, 0) + Formatted(L"%d", INT_MAX), L"-2147483648 02147483647");
  EXPECT_EQ(Formatted(L"%x %u%%%q%", UINT_MAX, 0U), L"ffffffff 0%q");
  EXPECT_EQ(Formatted(L"%u", UINT_MAX) + Formatted(L"%s", L"exactly sixteen!"), L"4294967295exactly sixteen|cut");
  std::pair<WCHAR const *, int> const numbers[] = {
      {nullptr, 0}, {L"x1", 0},   {L" \t\u00A0-12abc", -12},    {L"+7", 7},
      {L"+-7", 0},  {L"0x10", 0}, {L"99999999999999", INT_MAX}, {L"-2147483649", INT_MIN}};
  for (auto const &[text, number] : numbers)
    EXPECT_EQ(_wtoi(text), number) << testing::PrintToString(text);
  int const products[][4] = {{7, 1, 2, 4},        {-7, 1, 2, -4}, {7, 1, -2, -4}, {INT_MAX, 9, 9, INT_MAX},
                             {INT_MAX, 2, 1, -1}, {1, 1, 0, -1}};
  for (auto const &[number, numerator, denominator, result] : products)
    EXPECT_EQ(MulDiv(number, numerator, denominator), result) << number << '*' << numerator << '/' << denominator;
}
