// The bounded formatters, the number readers and the code pages.
#include "platform/CString.h"
#include "platform/LastError.h"
#include "platform/Text.h"

#include <gtest/gtest.h>

#include <climits>
#include <clocale>
#include <cstdlib>
#include <filesystem>
#include <string>

#include <locale.h>
#include <unistd.h>

namespace {

template <class... Values> std::wstring Format(WCHAR const *wszFormat, Values... values) {
  WCHAR buffer[64];
  int const nLength = _snwprintf_s(buffer, std::size(buffer), _TRUNCATE, wszFormat, values...);
  EXPECT_EQ(nLength, static_cast<int>(std::wcslen(buffer)));
  return buffer;
}

TEST(Text, WideFormatsFollowTheNativeConvention) {
  EXPECT_EQ(Format(L"[%s] %S|%hs|%ls", L"w\u4E2D", "n\xE4\xB8\xAD", "h", L"l"), L"[w\u4E2D] n\u4E2D|h|l");
  EXPECT_EQ(Format(L"%s %S", static_cast<WCHAR *>(nullptr), static_cast<char *>(nullptr)), L"(null) (null)");
  EXPECT_EQ(Format(L"%5s|%-5s|%.2s|%*.*s|", L"ab", L"ab", L"abc", 4, 1, L"xyz"), L"   ab|ab   |ab|   x|");
  EXPECT_EQ(Format(L"%d %i %u %x %X %c%%", -1, INT_MIN, UINT_MAX, 0xABCU, 0xABCU, 0x4E2D),
            L"-1 -2147483648 4294967295 abc ABC \u4E2D%");
  EXPECT_EQ(Format(L"%04X%04X|%+d|% d|%-4d|%05d|%#x", 0x29U, 0x4823U, 1, 2, 3, -4, 255U),
            L"00294823|+1| 2|3   |-0004|0xff");
  EXPECT_EQ(Format(L"%.3d|%05.2d|%-*d|%.0d|%-03d|", 7, 7, 3, 1, 0, 5), L"007|   07|1  ||5  |");
  EXPECT_EQ(Format(L"%ld %lu %llx %lld", -5L, 5UL, ULLONG_MAX, LLONG_MIN),
            L"-5 5 ffffffffffffffff -9223372036854775808");
  EXPECT_EQ(Format(L"%"), L"");
  WCHAR const lone[] = {0xD800, 0}; // a unit that is no character passes through
  EXPECT_EQ(Format(L"%s", lone), lone);
}

TEST(Text, WhatDoesNotFitIsCutAndTerminated) {
  WCHAR wide[4] = {1, 1, 1, 1};
  EXPECT_EQ(_snwprintf_s(wide, 4, _TRUNCATE, L"%s", L"abc"), 3);
  EXPECT_EQ(_snwprintf_s(wide, 4, _TRUNCATE, L"%s", L"defg"), -1);
  EXPECT_STREQ(wide, L"def");
  EXPECT_EQ(_snwprintf_s(wide, 4, _TRUNCATE, L"%1000000000d", 1), -1);
  EXPECT_STREQ(wide, L"   ");
  char narrow[4];
  EXPECT_EQ(_snprintf_s(narrow, 4, _TRUNCATE, "%s", "abc"), 3);
  EXPECT_EQ(_snprintf_s(narrow, 4, _TRUNCATE, "%d", 12345), -1);
  EXPECT_STREQ(narrow, "123");
}

TEST(Text, Numbers) {
  struct Row {
    WCHAR const *wszText;
    int nValue;
  };
  for (Row const &row : {Row{L"", 0}, Row{L"junk", 0}, Row{L"+-7", 0}, Row{L"0x10", 0}, Row{L" \t\u00A0-12abc", -12},
                         Row{L"2147483647", INT_MAX}, Row{L"2147483648", INT_MAX}, Row{L"-2147483648", INT_MIN},
                         Row{L"-99999999999999999999", INT_MIN}, Row{nullptr, 0}})
    EXPECT_EQ(_wtoi(row.wszText), row.nValue) << testing::PrintToString(row.wszText);
  int const products[][4] = {{7, 3, 2, 11}, {-7, 3, 2, -11},     {7, 3, -2, -11}, {10, 1, 3, 3},
                             {11, 1, 3, 4}, {INT_MAX, 2, 1, -1}, {5, 5, 0, -1},   {INT_MAX, INT_MAX, INT_MAX, INT_MAX}};
  for (auto const &row : products)
    EXPECT_EQ(MulDiv(row[0], row[1], row[2]), row[3]) << row[0] << " * " << row[1] << " / " << row[2];
}

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
  struct In {
    char const *szBytes;
    WCHAR const *wszText;
  };
  for (In const &row : {In{"a\xC3\xA4\xE4\xB8\xAD\xF0\x9F\x98\x80", L"a\u00E4\u4E2D\U0001F600"}, In{"\xFF", L"\uFFFD"},
                        In{"\xE2\x82", L"\uFFFD"},
                        In{"\xF0\x9F\x98"
                           "b",
                           L"\uFFFD"
                           L"b"},
                        In{"\xC0\x80", L"\uFFFD\uFFFD"}, In{"\xED\xA0\xBD", L"\uFFFD\uFFFD\uFFFD"},
                        In{"\xE0\x9F\xBF", L"\uFFFD\uFFFD\uFFFD"}, In{"\xF4\x90\x80\x80", L"\uFFFD\uFFFD\uFFFD\uFFFD"},
                        In{"\xF4\x8F\xBF\xBF\xED\x9F\xBF", L"\U0010FFFF\uD7FF"},
                        In{"\x80"
                           "a",
                           L"\uFFFD"
                           L"a"},
                        In{"\xEF\xBB\xBFx", L"\uFEFFx"}})
    EXPECT_EQ(Widen(CP_UTF8, row.szBytes), row.wszText) << testing::PrintToString(row.szBytes);
  struct Out {
    std::wstring strText;
    char const *szBytes;
  };
  auto const units = [](std::initializer_list<int> list) { return std::wstring(list.begin(), list.end()); };
  for (Out const &row :
       {Out{L"a\u00E4\u4E2D\U0001F600", "a\xC3\xA4\xE4\xB8\xAD\xF0\x9F\x98\x80"},
        Out{units({0xD83D, 0xDE00}), "\xF0\x9F\x98\x80"}, Out{units({0xD83D}), "\xEF\xBF\xBD"},
        Out{units({0xDE00, 0xD83D}), "\xEF\xBF\xBD\xEF\xBF\xBD"}, Out{units({0xD83D, 'x'}), "\xEF\xBF\xBDx"},
        Out{units({0x110000, -1}), "\xEF\xBF\xBD\xEF\xBF\xBD"}})
    for (UINT const uCodePage : {CP_UTF8, CP_ACP, CP_THREAD_ACP}) // the tests run in the C locale
      EXPECT_EQ(Narrow(uCodePage, row.strText), row.szBytes);
}

TEST(CodePages, LengthsAndErrors) {
  char bytes[4] = {};
  SetLastError(77);
  EXPECT_EQ(WideCharToMultiByte(CP_UTF8, 0, L"", -1, bytes, 4, nullptr, nullptr), 1);
  EXPECT_EQ(WideCharToMultiByte(CP_UTF8, 0, L"abc", -1, bytes, 4, nullptr, nullptr), 4);
  EXPECT_EQ(GetLastError(), 77U) << "success leaves it alone";
  struct Row {
    UINT uCodePage;
    char const *szBytes;
    int cbBytes, cchBuffer;
    DWORD dwError;
  };
  for (Row const &row :
       {Row{CP_UTF8, "abcd", -1, 4, ERROR_INSUFFICIENT_BUFFER}, Row{CP_UTF8, "abc", 0, 4, ERROR_INVALID_PARAMETER},
        Row{CP_UTF8, nullptr, 1, 4, ERROR_INVALID_PARAMETER}, Row{77777, "abc", -1, 4, ERROR_INVALID_PARAMETER},
        Row{CP_UTF8, "abc", -1, -1, ERROR_INVALID_PARAMETER}}) {
    WCHAR wide[4];
    SetLastError(0);
    EXPECT_EQ(MultiByteToWideChar(row.uCodePage, 0, row.szBytes, row.cbBytes, wide, row.cchBuffer), 0);
    EXPECT_EQ(GetLastError(), row.dwError);
  }
}

/// A locale of another character set, made for the test, for the calling thread alone.
class ThreadLocale {
public:
  explicit ThreadLocale(std::string const &strCharset) {
    char szTemplate[] = "/tmp/skiffport-locale-XXXXXX";
    m_path = mkdtemp(szTemplate);
    std::string const strName = "zz." + strCharset;
    std::string const strMake = "localedef -c -i POSIX -f " + strCharset + " " + m_path + "/" + strName;
    if (std::system((strMake + " >/dev/null 2>&1").c_str()) == -1)
      return;
    setenv("LOCPATH", m_path.c_str(), 1); // setlocale, since newlocale loses memory with it
    if (setlocale(LC_CTYPE, strName.c_str()))
      m_locale = duplocale(LC_GLOBAL_LOCALE);
    setlocale(LC_CTYPE, "C");
    if (m_locale)
      uselocale(m_locale);
  }
  ~ThreadLocale() {
    uselocale(LC_GLOBAL_LOCALE);
    if (m_locale)
      freelocale(m_locale);
    unsetenv("LOCPATH");
    std::filesystem::remove_all(m_path);
  }
  explicit operator bool() const { return m_locale != nullptr; }

private:
  std::string m_path;
  locale_t m_locale = nullptr;
};

TEST(CodePages, TheThreadsLocaleGivesTheAnsiPage) {
  {
    ThreadLocale const locale("GBK");
    if (!locale)
      GTEST_SKIP() << "no character maps here (Debian package locales)";
    EXPECT_EQ(Narrow(CP_THREAD_ACP, L"a\u4E2D\u0E01\U0001F600z"), "a\xD6\xD0??z");
    EXPECT_EQ(Widen(CP_ACP, "a\xD6\xD0\xFF"
                            "b\xD6"),
              L"a\u4E2D\uFFFD"
              L"b\uFFFD");
    EXPECT_EQ(Narrow(CP_UTF8, L"\u4E2D"), "\xE4\xB8\xAD") << "UTF-8 does not depend on it";
    EXPECT_STREQ(CString("\xD6\xD0"), L"\u4E2D");
    WCHAR wide[8];
    EXPECT_EQ(MultiByteToWideChar(CP_ACP, 0, "\xD6\xD0", -1, wide, 8), 2) << "the terminator counts";
    EXPECT_EQ(MultiByteToWideChar(CP_ACP, 0, "\xD6\xD0", -1, wide, 1), 0);
    EXPECT_EQ(GetLastError(), ERROR_INSUFFICIENT_BUFFER);
  }
  EXPECT_EQ(Narrow(CP_THREAD_ACP, L"\u4E2D"), "\xE4\xB8\xAD");
}

} // namespace
