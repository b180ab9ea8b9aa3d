// The URL split: components, ports, refusals, buffers.
#include "platform/LastError.h"
#include "platform/WinInet.h"

#include <string>

#include <gtest/gtest.h>

namespace {

struct Split {
  explicit Split(char const *szUrl, DWORD dwRoom = 260) {
    parts.dwStructSize = sizeof parts;
    parts.lpszScheme = texts[0];
    parts.lpszUserName = texts[1];
    parts.lpszPassword = texts[2];
    parts.lpszHostName = texts[3];
    parts.lpszUrlPath = texts[4];
    parts.lpszExtraInfo = texts[5];
    parts.dwSchemeLength = parts.dwUserNameLength = parts.dwPasswordLength = dwRoom;
    parts.dwHostNameLength = parts.dwUrlPathLength = parts.dwExtraInfoLength = dwRoom;
    dwError = InternetCrackUrlA(szUrl, 0, 0, &parts) ? 0 : GetLastError();
  }
  std::string Text() const {
    std::string text;
    for (char const *part : {texts[0], texts[1], texts[2], texts[3], texts[4], texts[5]})
      text += std::string(part) + "|";
    return text + std::to_string(parts.nPort);
  }
  char texts[6][260] = {};
  URL_COMPONENTSA parts{};
  DWORD dwError;
};

TEST(UrlSplit, Components) {
  struct Row {
    char const *szUrl;
    char const *szExpected; // scheme, user, password, host, path, extra, port
  };
  Row const rows[] = {
      {"https://h/servlet/uploadTemplate", "https|||h|/servlet/uploadTemplate||443"},
      {"https://h:443/p", "https|||h|/p||443"},
      {"http://h", "http|||h|||80"},
      {"https://h?a=b/c", "https|||h||?a=b/c|443"},
      {"https://h/p?a#f", "https|||h|/p|?a#f|443"},
      {"https://h/p#f?a", "https|||h|/p|#f?a|443"},
      {"HTTPS://Good.Test:65535/P", "HTTPS|||Good.Test|/P||65535"},
      {"https://u:p:q@h/", "https|u|p:q|h|/||443"},
      {"https://u@h/", "https|u||h|/||443"},
      {"https://a@b@h/", "https|a@b||h|/||443"},
      {"https://[::1]/p", "https|||[::1]|/p||443"},
      {"https://[::1]:8443/p", "https|||[::1]|/p||8443"},
      {"x+y.z-1://h/p;x//..%20 \xE9", "x+y.z-1|||h|/p;x//..%20 \xE9||0"},
  };
  for (Row const &row : rows) {
    Split const split(row.szUrl);
    EXPECT_EQ(0u, split.dwError) << row.szUrl;
    EXPECT_EQ(row.szExpected, split.Text()) << row.szUrl;
  }
}

TEST(UrlSplit, Refusals) {
  struct Row {
    char const *szUrl;
    DWORD dwError;
  };
  Row const rows[] = {{nullptr, 87},
                      {"", 87},
                      {"h/p", 12006},
                      {"//h/p", 12006},
                      {" https://h", 12006},
                      {"1x://h", 12006},
                      {"://h", 12006},
                      {"https://", 12005},
                      {"https:///p", 12005},
                      {"https://u@/p", 12005},
                      {"https:/h/p", 12005},
                      {"https:h", 12005},
                      {"https://h:/", 12005},
                      {"https://h:0/", 12005},
                      {"https://h:65536/", 12005},
                      {"https://h:443abc/", 12005},
                      {"https://h:+1/", 12005},
                      {"https://h:4294967739/", 12005},
                      {"https://[::1/p", 12005},
                      {"https://[::1]x/p", 12005},
                      {"https://h\n/p", 12005},
                      {"https://h/p\x7F", 12005}};
  for (Row const &row : rows)
    EXPECT_EQ(row.dwError, Split(row.szUrl).dwError) << (row.szUrl ? row.szUrl : "null");
}

TEST(UrlSplit, EveryComponentHasToFit) {
  for (std::size_t const size : {259, 260}) {
    std::string const text(size, 'x'), tail(size - 1, 'x'); // a tail stands behind a "/" or a "?" of its component
    for (std::string const &url : {text + "://h", "https://" + text, "https://" + text + "@h",
                                   "https://u:" + text + "@h", "https://h/" + tail, "https://h?" + tail})
      EXPECT_EQ(size == 259 ? 0u : 122u, Split(url.c_str()).dwError) << url;
  }
}

} // namespace
