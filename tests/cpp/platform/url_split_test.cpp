// The URL split: components, ports, refusals, buffers.
#include "platform/LastError.h"
#include "platform/WinInet.h"

#include <string>

#include <gtest/gtest.h>

namespace {

/// "scheme|user|password|host|path|extra|port" of the URL, or the number of the error.
std::string Split(std::string const &strUrl) {
  char texts[6][260] = {};
  URL_COMPONENTSA parts = {};
  parts.dwStructSize = sizeof parts;
  parts.lpszScheme = texts[0];
  parts.lpszUserName = texts[1];
  parts.lpszPassword = texts[2];
  parts.lpszHostName = texts[3];
  parts.lpszUrlPath = texts[4];
  parts.lpszExtraInfo = texts[5];
  parts.dwSchemeLength = parts.dwUserNameLength = parts.dwPasswordLength = sizeof texts[0];
  parts.dwHostNameLength = parts.dwUrlPathLength = parts.dwExtraInfoLength = sizeof texts[0];
  if (!InternetCrackUrlA(strUrl.c_str(), 0, 0, &parts))
    return std::to_string(GetLastError());
  std::string strParts;
  for (char const *szText : texts)
    strParts += std::string(szText) + "|";
  return strParts + std::to_string(parts.nPort);
}

TEST(UrlSplit, ComponentsAndRefusals) {
  char const *const rows[][2] = {{"http://h", "http|||h|||80"},
                                 {"https://h?a=b/c", "https|||h||?a=b/c|443"},
                                 {"https://h/p?a#f", "https|||h|/p|?a#f|443"},
                                 {"https://h/p#f?a", "https|||h|/p|#f?a|443"},
                                 {"HTTPS://Good.Test:65535/P", "HTTPS|||Good.Test|/P||65535"},
                                 {"https://u:p:q@h/", "https|u|p:q|h|/||443"},
                                 {"https://a@b@h/", "https|a@b||h|/||443"},
                                 {"https://[::1]/p", "https|||[::1]|/p||443"},
                                 {"https://[::1]:8443/p", "https|||[::1]|/p||8443"},
                                 {"x+y.z-1://h/p;x//..%20 \xE9", "x+y.z-1|||h|/p;x//..%20 \xE9||0"},
                                 {"", "87"}};
  for (auto const &[szUrl, szExpected] : rows)
    EXPECT_EQ(Split(szUrl), szExpected) << szUrl;
  for (char const *szUrl : {"h/p", " https://h", "1x://h", "://h"})
    EXPECT_EQ(Split(szUrl), "12006") << szUrl;
  for (char const *szUrl :
       {"https:/h/p", "https://u@/p", "https://h:/", "https://h:0/", "https://h:65536/", "https://h:4294967739/",
        "https://h:+1/", "https://[::1/p", "https://[::1]x/p", "https://h/\x7F"})
    EXPECT_EQ(Split(szUrl), "12005") << szUrl;
}

TEST(UrlSplit, EveryComponentHasToFit) {
  for (std::size_t const size : {259, 260}) {
    std::string const text(size, 'x'), tail(size - 1, 'x'); // a tail stands behind a "/" or a "?" of its component
    for (std::string const &url : {text + "://h", "https://" + text, "https://" + text + "@h",
                                   "https://u:" + text + "@h", "https://h/" + tail, "https://h?" + tail})
      EXPECT_EQ(Split(url) == "122", size == 260) << url;
  }
}

} // namespace
