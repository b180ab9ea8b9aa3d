// The code pages.
#include "framework/CString.h"
#include "platform/text/CodePages.h"
#include "tests/cpp/platform/text/thread_locale.h"

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <utility>

namespace {

std::string Narrow(UINT uCodePage, std::wstring const &strText) {
  char buffer[64];
  int const cch = static_cast<int>(strText.size());
  int const cb = WideCharToMultiByte(uCodePage, 0, strText.data(), cch, buffer, sizeof buffer, nullptr, nullptr);
  EXPECT_EQ(WideCharToMultiByte(uCodePage, 0, strText.data(), cch, nullptr, 0, nullptr, nullptr), cb);
  return std::string(buffer, static_cast<std::size_t>(cb));
}

std::wstring Widen(UINT uCodePage, std::string const &strBytes) {
  WCHAR buffer[64];
  int const cb = static_cast<int>(strBytes.size());
  int const cch = MultiByteToWideChar(uCodePage, 0, strBytes.data(), cb, buffer, std::size(buffer));
  EXPECT_EQ(MultiByteToWideChar(uCodePage, 0, strBytes.data(), cb, nullptr, 0), cch);
  return std::wstring(buffer, static_cast<std::size_t>(cch));
}

TEST(CodePages, Utf8IsStrictBothWays) {
  std::pair<char const *, WCHAR const *> const texts[] = {
      {"a\xC3\xA4\xE4\xB8\xAD\xF0\x9F\x98\x80", L"a\u00E4\u4E2D\U0001F600"},
      {"\xF4\x8F\xBF\xBF\xED\x9F\xBF\xEF\xBB\xBFx", L"\U0010FFFF\uD7FF\uFEFFx"}};
  for (auto const &[szBytes, wszText] : texts)
    for (UINT const uCodePage : {CP_UTF8, CP_ACP, CP_THREAD_ACP}) { // the tests run in the C locale
      EXPECT_EQ(Widen(uCodePage, szBytes), wszText);
      EXPECT_EQ(Narrow(uCodePage, wszText), szBytes);
    }
  std::pair<std::string, std::size_t> const malformed[] = {
      {"\xFF", 1},         {"\xE2\x82", 1},     {"\xF0\x9F\x98", 1},    {"\xC0\x80", 2},
      {"\xED\xA0\xBD", 3}, {"\xE0\x9F\xBF", 3}, {"\xF4\x90\x80\x80", 4}};
  for (auto const &[strBytes, uCount] : malformed)
    for (std::string const strTail : {"", "z"})
      EXPECT_EQ(Widen(CP_UTF8, strBytes + strTail), std::wstring(uCount, 0xFFFD).append(strTail.size(), 'z'));
  EXPECT_EQ(Narrow(CP_UTF8, {0xD83D, 0xDE00}), "\xF0\x9F\x98\x80") << "a surrogate pair";
  EXPECT_EQ(Narrow(CP_UTF8, {0xDE00, 0xD83D, 'x', 0x110000, -1}), "\xEF\xBF\xBD\xEF\xBF\xBDx\xEF\xBF\xBD\xEF\xBF\xBD");
}

TEST(CodePages, TheThreadsLocaleGivesTheAnsiPage) {
  std::optional<ThreadLocale> locale("GBK");
  if (!*locale)
    GTEST_SKIP() << "no character maps here (Debian package locales)";
  EXPECT_EQ(Narrow(CP_THREAD_ACP, L"a\u4E2D\u0E01\U0001F600z"), "a\xD6\xD0??z");
  EXPECT_EQ(Widen(CP_ACP, "a\xD6\xD0\xFFz\xD6"), L"a\u4E2D\uFFFDz\uFFFD");
  EXPECT_STREQ(CString("\xD6\xD0"), L"\u4E2D");
  WCHAR wide[8];
  EXPECT_EQ(MultiByteToWideChar(CP_ACP, 0, "\xD6\xD0", -1, wide, 8), 2) << "the terminator counts";
  EXPECT_EQ(MultiByteToWideChar(CP_ACP, 0, "\xD6\xD0", -1, wide, 1), 0);
  locale.reset();
  EXPECT_EQ(Narrow(CP_THREAD_ACP, L"\u4E2D"), "\xE4\xB8\xAD");
}

} // namespace
