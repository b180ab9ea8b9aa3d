// The URL split: what each part becomes, which URLs are refused, and what fits into a buffer.
#include "platform/base/LastError.h"
#include "platform/http/WinInet.h"

#include <string>
#include <utility>

#include <gtest/gtest.h>

namespace {

/// Scheme, its number, host, port, user, password, path and extra, joined by "|"; or the error number.
std::string Split(std::string const &url) {
  char s[6][260];
  URL_COMPONENTSA c{sizeof c, s[0], 260, 0, s[1], 260, 0, s[2], 260, s[3], 260, s[4], 260, s[5], 260};
  if (!InternetCrackUrlA(url.c_str(), 0, 0, &c))
    return std::to_string(GetLastError());
  return s[0] + ("|" + std::to_string(c.nScheme)) + '|' + s[1] + '|' + std::to_string(c.nPort) + '|' + s[2] + '|' +
         s[3] + '|' + s[4] + '|' + s[5];
}

TEST(UrlSplit, PartsAndRefusals) {
  std::string const fits(259, 'h'), over(260, 'h');
  for (auto const &[url, parts] : std::initializer_list<std::pair<std::string, std::string>>{
           {"HTTP://Good.Test:8080/P/?a#f", "HTTP|3|Good.Test|8080|||/P/|?a#f"},
           {"https://u:p:q@h?a=b", "https|4|h|443|u|p:q||?a=b"},
           {"https://a@b@h#f", "https|4|h|443|a@b|||#f"},
           {"ftp://[::1]/a b/../%20\x80@c", "ftp|-1|[::1]|0|||/a b/../%20\x80@c|"},
           {"https://" + fits + ":81", "https|4|" + fits + "|81||||"}})
    EXPECT_EQ(parts, Split(url));
  for (std::string const url : {"h/p", "//h/p", " https://h", "4h://h"})
    EXPECT_EQ("12006", Split(url)) << url;
  for (std::string const url : {"https:/h", "https://", "https:///p", "https://u@/p", "https://[::1/p", "https://h:",
                                "https://h:0", "https://h:65536", "https://h:443a", "https://h/\t", "https://h\x7F"})
    EXPECT_EQ("12005", Split(url)) << url;
  EXPECT_EQ("122", Split("https://" + over));
  EXPECT_EQ("122", Split("https://h/" + fits));
  EXPECT_EQ("87", Split(""));
}

} // namespace
