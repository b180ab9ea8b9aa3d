// Which addresses may be opened in the user's browser.
#include "service/WebAddress.h"

#include <gtest/gtest.h>

#include <string>

TEST(WebAddress, IsAbsoluteWithAHostAndNothingHidden) {
  for (std::wstring const taken : {L"http://h", L"HTTPS://h?@", L"https://u@[::1]:80/a b", L"https://h/\u00E9\u200C"})
    EXPECT_TRUE(IsWebAddress(taken)) << testing::PrintToString(taken);
  for (std::wstring const refused :
       {L"", L"h", L"file:///c:/run.bat", L"c:\\run.bat", L"\\\\h\\run.bat", L"javascript://h", L"--help", L" http://h",
        L"https:h", L"https://", L"https:///h", L"https://\\h", L"https://u@", L"https://:80", L"https://h/\n",
        L"https://h/\x7F", L"https://h/\u200E", L"https://h/\u202E"})
    EXPECT_FALSE(IsWebAddress(refused)) << testing::PrintToString(refused);
}
