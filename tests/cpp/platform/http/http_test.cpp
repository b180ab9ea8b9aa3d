// The time limits and the URL split; then the HTTP interface against a peer: when bytes go out, the number of each
// error, which certificates count, and how calls that block end.
#include "platform/http/WaitLimits.h"
#include "tests/cpp/platform/TestHooks.h"
#include "tests/cpp/platform/http/http_peer.h"

#include <cstring>
#include <sstream>

#include <curl/curl.h>
#include <dlfcn.h>
#include <linux/tcp.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>

static std::atomic<bool> g_isPatient = false, g_isWaiting = false;

/// Stands in for libcurl's: a patient wait lasts until something ends it, but for libcurl's own short timers.
extern "C" CURLMcode curl_multi_poll(CURLM *multi, curl_waitfd *more, unsigned count, int timeout, int *ready) {
  static auto const real = reinterpret_cast<decltype(&curl_multi_poll)>(dlsym(RTLD_NEXT, "curl_multi_poll"));
  long ownTimeout = -1;
  curl_multi_timeout(multi, &ownTimeout);
  g_isWaiting = g_isPatient && (ownTimeout < 0 || ownTimeout > 20'000);
  CURLMcode const code = real(multi, more, count, g_isWaiting ? 20'000 : timeout, ready);
  g_isWaiting = false;
  return code;
}

namespace {

std::string const kTls = " --tls good";
std::string const kMegabyte(1 << 20, 'b');
constexpr int kBufferLock = 72; // SO_BUF_LOCK

/// The connection of the only client; -1 if there is none.
int Connection() {
  sockaddr_in peer{};
  for (int fd = 3; fd < 256; ++fd)
    if (socklen_t size = sizeof peer;
        getpeername(fd, reinterpret_cast<sockaddr *>(&peer), &size) == 0 && peer.sin_family == AF_INET)
      return fd;
  return -1;
}
template <class Value> Value Option(int level, int name) {
  Value value{};
  socklen_t size = sizeof value;
  getsockopt(Connection(), level, name, &value, &size);
  return value;
}
void SetSendBuffer(int nBytes) { setsockopt(Connection(), SOL_SOCKET, SO_SNDBUF, &nBytes, sizeof nBytes); }

TEST(WaitLimits, RestartWithProgressButNotForWhatAPeerCanStretch) {
  // Connecting, sending or receiving, of a whole (w) or a streamed (s) body. After that many ms with so many bytes
  // queued, acknowledged and received, what is left; and so on.
  char const *const rows[] = {"cs 59000 5 5 0 1000  1000 6 6 0 0",
                              "ss 29000 0 0 0 1000  0 1 0 0 30000  9000 1 0 9 21000",
                              "sw 29000 0 900 0 30000  30000 0 900 0 0",
                              "rw 59000 0 0 0 1000  0 0 0 1 60000  60000 0 0 1 0",
                              "rw 9000 0 100 0 60000  9000 0 900 0 51000", // 100 bytes were under way
                              "rw 59000 0 9 0 60000  59000 0 99 0 60000  59000 0 99 1 60000  59000 0 99 2 54000",
                              "rs 59000 0 9 0 60000  177000 0 99 0 60000  177000 0 99 1 60000  59000 0 99 2 54000"};
  std::uint64_t uNow = 1'000'000, uReplyWait = 0, uMs = 0, uLeft = 0;
  ScopedTestHooks const hooks({.now = [&] { return uNow; }});
  for (char const *szRow : rows) {
    std::uint64_t const uBegin = uNow, uWaited = uReplyWait = 10'000; // what earlier calls have waited
    bool const isReceiving = szRow[0] == 'r', isStreamed = szRow[1] == 's';
    {
      auto const kind = isReceiving ? WaitLimits::Kind::Receive : WaitLimits::Kind::Send;
      WaitLimits limits(kind, {60'000, 30'000}, {0, 0, 100, 0}, uReplyWait, isStreamed);
      std::istringstream looks(szRow + 2);
      for (Progress seen; looks >> uMs >> seen.queued >> seen.acked >> seen.received >> uLeft;) {
        uNow += uMs;
        EXPECT_EQ(uLeft, limits.Left(seen, szRow[0] == 'c')) << szRow;
      }
    }
    EXPECT_TRUE(isStreamed || uReplyWait - uWaited == (isReceiving ? uNow - uBegin : 0)) << szRow;
  }
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
  EXPECT_EQ(Split("https://" + fits + "h") + Split("https://h/" + fits), "122122");
  for (char const *szUrl : {"h/p", "//h/p", " https://h", "4h://h"})
    EXPECT_EQ(Split(szUrl), "12006") << szUrl;
  for (char const *szUrl : {"https:/h", "https://", "https:///p", "https://u@/p", "https://[::1/p", "https://h:",
                            "https://h:0", "https://h:65536", "https://h:443a", "https://h/\t", "https://h\x7F"})
    EXPECT_EQ(Split(szUrl), "12005") << szUrl;
}

TEST(Http, SmallWritesWaitAndLargeOnesAreOutOnReturn) {
  std::string const small(4091, 's'), large(300'000, 'L');
  auto const sent = [] { return Option<tcp_info>(IPPROTO_TCP, TCP_INFO).tcpi_bytes_sent; };
  for (INTERNET_PORT const nPort : {80, 443}) {
    Peer peer("reply" + (nPort == 443 ? kTls : ""));
    Client client(nPort);
    ASSERT_EQ(0u, client.Begin(4 + 4091 + 300'000 + 5));
    SetSendBuffer(1);
    std::size_t head = 0;
    ASSERT_TRUE(WaitFor([&] { return (head = peer.Received().find("\r\n\r\n") + 4) != 3; }));
    auto const uSent = sent();
    int const nNarrow = Option<int>(SOL_SOCKET, SO_SNDBUF);
    EXPECT_TRUE(client.Write("head") == 0 && client.Write(small) == 0 && sent() == uSent && uSent > 0);
    EXPECT_EQ(0u, client.Write(large));
    EXPECT_TRUE(WaitFor([&] { return peer.Received().size() == head + 4095 + 300'000; })); // no call drives it now
    EXPECT_EQ(0, Option<int>(SOL_SOCKET, kBufferLock)) << "the kernel may widen it further";
    EXPECT_GT(Option<int>(SOL_SOCKET, SO_SNDBUF), nNarrow) << "loopback carries more in 100 ms than that";
    EXPECT_EQ(-2, Option<int>(SOL_SOCKET, SO_MAX_PACING_RATE)) << "any but -1: pacing is on";
    EXPECT_EQ(12019u, client.Write("tail\n+"));
    EXPECT_TRUE(client.Write("tail\n") == 0 && client.End() == 0);
    EXPECT_EQ("head" + small + large + "tail\n", peer.Received().substr(head));
  }
}

TEST(Http, PartOfABrokenReplyIsReadFirst) {
  Peer peer(R"(reply --raw 'HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n5\r\nhello\r\nxyz\r\n')");
  Client client(80);
  std::string bytes;
  EXPECT_TRUE(client.Send() == 0 && client.Read(bytes, 99) == 0 && bytes == "hello") << bytes;
  EXPECT_EQ(12152u, client.Read(bytes, 99));
}

TEST(Http, BodyIsTheCallersAgainOnceAnEarlyReplyIsIn) {
  Peer peer("early-keep --after 1000 --window 8192");
  Client client(80);
  std::string body(16 << 20, 'b'), reply;
  EXPECT_EQ(0u, client.Send(body));
  body.assign(body.size(), 'X'); // most of it is still to go out
  EXPECT_EQ(0u, client.Read(reply, 1));
  EXPECT_TRUE(WaitFor([&] { return std::filesystem::file_size(Folder() + "/received") > body.size(); }));
  EXPECT_EQ(std::string::npos, peer.Received().find('X'));
}

TEST(Http, HostIsCheckedAsItGoesOut) {
  Client const other(80);
  for (char const *szHost : {"", "a b", "a/b", "a%41", "a\u00A0b", "a\uFF0Fb", "a\uFF20b", "\u2028"})
    EXPECT_EQ(12005u, Error(InternetConnectA(other.session, szHost, 80, nullptr, nullptr, 3, 0, 1) != nullptr))
        << szHost;
  Peer peer("reply");
  EXPECT_EQ(0u, Client(80, 0, "\uFF47ood.test").Send()) << "a full-width g is a g, in the C locale, too";
  EXPECT_NE(std::string::npos, peer.Received().find("Host: good.test\r\n"));
  EXPECT_EQ(12005u, Client(80, 0, "good.test", (kMegabyte + kMegabyte).c_str()).Send()) << "too long for libcurl";
}

TEST(Http, CertificatesAndFlags) {
  constexpr DWORD kDate = INTERNET_FLAG_IGNORE_CERT_DATE_INVALID, kName = INTERNET_FLAG_IGNORE_CERT_CN_INVALID;
  {
    Peer peer("reply --tls expired-wrong-name");
    std::pair<DWORD, DWORD> const rows[] = {{kDate | kName, 0}, {0, 12037}, {kDate, 12038}, {kName, 12037}};
    for (auto const &[dwFlags, dwError] : rows) // a lenient request must not let a later strict one pass
      EXPECT_EQ(dwError, Client(443, dwFlags).Send()) << dwFlags;
  }
  Peer peer("reply" + kTls);
  std::string const good = Folder() + "/ca.pem", fifo = Folder() + "/fifo";
  ASSERT_EQ(0, mkfifo(fifo.c_str(), 0600));
  alarm(60); // ends the process if a call waits for the FIFO
  for (std::string const &roots : {Folder() + "/missing", Folder(), fifo}) {
    setenv("SSL_CERT_FILE", roots.c_str(), 1);
    EXPECT_EQ(12045u, Client(443).Send()) << roots;
    setenv("SSL_CERT_FILE", good.c_str(), 1);
    EXPECT_EQ(0u, Client(443).Send());
  }
  setenv("SSLKEYLOGFILE", fifo.c_str(), 1);
  EXPECT_EQ(12157u, Client(443).Send());
  unsetenv("SSLKEYLOGFILE");
  alarm(0);
}

/// A moment of an exchange: the status that is reported last before it, and how often, twice or more in an upload.
struct Moment {
  char const *szScenario;
  DWORD dwStage;
  int nCount;
};

/// Runs an exchange that does not end by itself; returns the error that ended it.
DWORD GoThrough(Client &client, Moment const &moment) {
  DWORD dwError = moment.nCount > 1 ? client.Begin(0xFFFFFFFF) : client.Send();
  for (std::string bytes = kMegabyte; dwError == 0;)
    dwError = moment.nCount > 1 ? client.Write(bytes) : client.Read(bytes, 100);
  return dwError;
}

TEST(Http, ClosingEndsABlockedCall) {
  Moment const moments[] = {{"silent-connect", INTERNET_STATUS_CONNECTING_TO_SERVER, 1},
                            {"silent-tls", INTERNET_STATUS_CONNECTED_TO_SERVER, 1},
                            {"silent-reply", INTERNET_STATUS_RECEIVING_RESPONSE, 1},
                            {"silent-reply --tls good", INTERNET_STATUS_RECEIVING_RESPONSE, 1},
                            {"silent-body --body 'hello world'", INTERNET_STATUS_RESPONSE_RECEIVED, 1},
                            {"stall --window 4096", INTERNET_STATUS_SENDING_REQUEST, 3},
                            {"stall --window 4096 --tls good", INTERNET_STATUS_SENDING_REQUEST, 3}};
  g_isPatient = true;
  for (Moment const &moment : moments) {
    Peer peer(moment.szScenario);
    Client client(std::strstr(moment.szScenario, "tls") ? 443 : 80);
    auto call = std::async(std::launch::async, [&] { return GoThrough(client, moment); });
    EXPECT_TRUE(WaitFor([&] { return g_isWaiting && client.stages[moment.dwStage] >= moment.nCount; }));
    HINTERNET const handles[] = {client.request, client.connection, client.session};
    EXPECT_TRUE(InternetCloseHandle(handles[(&moment - moments) % 3]));
    EXPECT_EQ(12017u, call.get()) << moment.szScenario;
    EXPECT_EQ(6u, Error(InternetCloseHandle(client.request)));
  }
  g_isPatient = false;
}

/// OpenSSL takes in records without data by itself, and would not return while more are there.
TEST(Http, FloodInsideTlsDoesNotHoldACall) {
#define TICKETS R"( ("flood-messages", "SSL_new_session_ticket", 0))' --tls good)"
  Moment const floods[] = {
      {R"('(("repeat", b"\x16\3\3\0\4\0\0\0\0", 600), "hold")')", INTERNET_STATUS_CONNECTED_TO_SERVER, 1},
      {R"('("read",)" TICKETS, INTERNET_STATUS_RECEIVING_RESPONSE, 1},
      {R"('("read", b"HTTP/1.1 200 OK\r\nContent-Length: 9\r\n\r\n",)" TICKETS, INTERNET_STATUS_RESPONSE_RECEIVED, 1},
      {R"('(("read", 0),)" TICKETS, INTERNET_STATUS_SENDING_REQUEST, 2}};
  for (Moment const &flood : floods) {
    bool const hasRequest = flood.dwStage != INTERNET_STATUS_CONNECTED_TO_SERVER, isClosed = (&flood - floods) % 2 == 0;
    Peer peer(flood.szScenario);
    Client client(443);
    std::uint64_t uNow = 0;
    bool isThere = false, isFlooded = false;
    int nLooks = 0, nLooksAmidst = 0; // from when the records are there; with many of them unread
    auto unread = [n = 0]() mutable { return ioctl(Connection(), FIONREAD, &n) == 0 ? n : 0; };
    client.onStage = [&](DWORD dwStage) {
      if (dwStage != flood.dwStage || client.stages[dwStage] != flood.nCount)
        return;
      isThere = true; // even if the records never come, the clock must go on
      isFlooded = WaitFor([&] { return unread() >= (hasRequest ? 50'000 : 5'400); }); // 200 tickets
    };
    ScopedTestHooks const hooks({.now = [&] {
      nLooksAmidst += isFlooded && unread() > 1'000;
      nLooks += isThere;
      if (nLooks == 2 && isClosed)
        InternetCloseHandle(client.session);
      return nLooks > 2 ? uNow += 20'000 : uNow;
    }});
    EXPECT_EQ(isClosed ? 12017u : 12002u, GoThrough(client, flood)) << flood.szScenario;
    EXPECT_GE(nLooksAmidst, 2) << flood.szScenario;
  }
}

TEST(Http, SlowReaderIsProgressForAStreamedBodyButNotForTheReply) {
  for (std::string const tls : {"", " --tls good", "whole"}) {
    bool const isStreamed = tls != "whole";
    Peer peer("sip --window 8192 --pause 0.02" + (isStreamed ? tls : ""));
    Client client(tls == kTls ? 443 : 80);
    std::uint64_t uNow = 1'000'000, uSent = 0;
    client.onStage = [&](DWORD dwStatus) {
      if (dwStatus == INTERNET_STATUS_CONNECTED_TO_SERVER)
        SetSendBuffer(isStreamed ? 40'000 : 1'000'000);
      uSent = dwStatus == INTERNET_STATUS_RECEIVING_RESPONSE ? uNow : uSent;
    };
    ASSERT_EQ(0u, isStreamed ? client.Begin(404'096) : 0);
    ScopedTestHooks const hooks({.now = [&] { return uNow += isStreamed ? 500 : 5'000; }});
    if (isStreamed) {
      EXPECT_EQ(0u, client.Write(std::string(400'000, 'b'))) << "after " << uNow - 1'000'000 << " ms";
      EXPECT_GT(uNow, 1'000'000u + 60'000u) << "longer than any limit without progress";
      SetSendBuffer(1'000'000);
      int const nWide = Option<int>(SOL_SOCKET, SO_SNDBUF);
      EXPECT_TRUE(client.Write(std::string(4'096, 'b')) == 0 && Option<int>(SOL_SOCKET, SO_SNDBUF) >= nWide)
          << "the buffer is never narrowed, whatever the rate";
    } else {
      EXPECT_EQ(12002u, client.Send(std::string(400'000, 'b')));
      EXPECT_LE(uNow - uSent, 310'000u);
    }
  }
}

} // namespace
