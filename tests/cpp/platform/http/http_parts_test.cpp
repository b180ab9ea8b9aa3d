// The parts of the HTTP layer that need no peer: time limits, the URL split, the send buffer's size.
#include "platform/base/LastError.h"
#include "platform/http/SocketTuning.h"
#include "platform/http/WaitLimits.h"
#include "platform/http/WinInet.h"
#include "tests/cpp/platform/TestHooks.h"

#include <future>
#include <sstream>

#include <gtest/gtest.h>

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

TEST(WaitLimits, RestartWithProgressButNotForWhatAPeerCanStretch) {
  struct Row {
    WaitLimits::Kind kind;
    bool isStreamed, isConnecting;
    char const *szLooks; // after that many ms with so many bytes queued, acknowledged and received, what is left; ...
  };
  constexpr auto kSend = WaitLimits::Kind::Send, kReceive = WaitLimits::Kind::Receive;
  std::uint64_t uNow = 1'000'000, uReplyWait = 0, uMs = 0, uLeft = 0;
  PlatformTestHooks const hooks{[&] { return uNow; }, nullptr, nullptr};
  SetPlatformTestHooks(&hooks);
  for (Row const &row :
       {Row{kSend, true, true, "59000 5 5 0 1000  1000 6 6 0 0"},
        Row{kSend, true, false, "29000 0 0 0 1000  0 1 0 0 30000  9000 1 0 9 21000"},
        Row{kSend, false, false, "29000 0 900 0 30000  30000 0 900 0 0"},
        Row{kReceive, false, false, "59000 0 0 0 1000  0 0 0 1 60000  60000 0 0 1 0"},
        Row{kReceive, false, false, "9000 0 100 0 60000  9000 0 900 0 51000"}, // 100 bytes were under way
        Row{kReceive, false, false, "59000 0 9 0 60000  59000 0 99 0 60000  59000 0 99 1 60000  59000 0 99 2 54000"},
        Row{kReceive, true, false,
            "59000 0 9 0 60000  177000 0 99 0 60000  177000 0 99 1 60000  59000 0 99 2 54000"}}) {
    std::uint64_t const uBegin = uNow, uWaited = uReplyWait = 10'000; // what earlier calls have waited
    {
      WaitLimits limits(row.kind, {60'000, 30'000}, {0, 0, 100, 0}, uReplyWait, row.isStreamed);
      std::istringstream looks(row.szLooks);
      for (Progress seen; looks >> uMs >> seen.queued >> seen.acked >> seen.received >> uLeft;) {
        uNow += uMs;
        EXPECT_EQ(uLeft, limits.Left(seen, row.isConnecting)) << row.szLooks;
      }
    }
    EXPECT_TRUE(row.isStreamed || uReplyWait - uWaited == (row.kind == kReceive ? uNow - uBegin : 0)) << row.szLooks;
  }
  SetPlatformTestHooks(nullptr);
}

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
  std::string const fits(259, 'h');
  EXPECT_EQ(Split("HTTP://Good.Test:8080/P/?a#f"), "HTTP|3|Good.Test|8080|||/P/|?a#f");
  EXPECT_EQ(Split("https://u:p:q@h?a=b"), "https|4|h|443|u|p:q||?a=b");
  EXPECT_EQ(Split("https://a@b@h#f"), "https|4|h|443|a@b|||#f");
  EXPECT_EQ(Split("ftp://[::1]/a b/../%20\x80@c"), "ftp|-1|[::1]|0|||/a b/../%20\x80@c|");
  EXPECT_EQ(Split("https://" + fits + ":81"), "https|4|" + fits + "|81||||");
  EXPECT_EQ(Split("https://" + fits + "h"), "122");
  EXPECT_EQ(Split("https://h/" + fits), "122");
  for (char const *szUrl : {"h/p", "//h/p", " https://h", "4h://h"})
    EXPECT_EQ(Split(szUrl), "12006") << szUrl;
  for (char const *szUrl : {"https:/h", "https://", "https:///p", "https://u@/p", "https://[::1/p", "https://h:",
                            "https://h:0", "https://h:65536", "https://h:443a", "https://h/\t", "https://h\x7F"})
    EXPECT_EQ(Split(szUrl), "12005") << szUrl;
}

int Option(int fd, int name) {
  int value = -1;
  socklen_t size = sizeof value;
  return getsockopt(fd, SOL_SOCKET, name, &value, &size) == 0 ? value : -1;
}

TEST(SendBuffer, GrowsWithTheRateAndStaysTheKernels) {
  constexpr int kBufferLock = 72; // SO_BUF_LOCK
  int const listener = socket(AF_INET, SOCK_STREAM, 0), client = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in name{};
  socklen_t size = sizeof name;
  ASSERT_TRUE(listen(listener, 1) == 0 && getsockname(listener, reinterpret_cast<sockaddr *>(&name), &size) == 0);
  ASSERT_EQ(0, connect(client, reinterpret_cast<sockaddr *>(&name), size));
  if (Option(client, kBufferLock) < 0)
    GTEST_SKIP() << "this kernel does not take sizing back";
  auto const set = [&](int bytes) { // returns what the kernel makes of it
    return setsockopt(client, SOL_SOCKET, SO_SNDBUF, &bytes, sizeof bytes) == 0 ? Option(client, SO_SNDBUF) : -1;
  };
  int const wider = set(100'000);
  WidenSendBuffer(client);
  EXPECT_EQ(Option(client, SO_SNDBUF), wider) << "it is never narrowed, whatever the rate";
  int const server = accept(listener, nullptr, nullptr), narrow = set(1);
  std::string bytes(100'000, 'b');
  auto sender = std::async(std::launch::async, [=] { return send(client, bytes.data(), bytes.size(), 0); });
  ASSERT_TRUE(recv(server, bytes.data(), bytes.size(), MSG_WAITALL) == 100'000 && sender.get() == 100'000);
  EXPECT_EQ(1, Option(client, kBufferLock));
  WidenSendBuffer(client);
  EXPECT_EQ(0, Option(client, kBufferLock));
  EXPECT_GT(Option(client, SO_SNDBUF), narrow); // loopback carries more in 100 ms than that
  PaceSending(client);
  EXPECT_EQ(-2, Option(client, SO_MAX_PACING_RATE)); // any but -1: pacing is on
  for (int const fd : {client, server, listener})
    close(fd);
}

} // namespace
