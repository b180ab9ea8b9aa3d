// The HTTP interface against a peer: when bytes go out, the number of each error, which certificates count, and how
// calls that block end.
#include "tests/cpp/platform/TestHooks.h"
#include "tests/cpp/platform/http/http_peer.h"

#include <cstring>
#include <future>

#include <gtest/gtest.h>

#include <curl/curl.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <linux/tcp.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

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

/// Calls it with every connected socket of this process.
void ForConnections(std::function<void(int)> const &work) {
  sockaddr_in peer;
  for (int fd = 3; fd < 256; ++fd)
    if (socklen_t size = sizeof peer; getpeername(fd, reinterpret_cast<sockaddr *>(&peer), &size) == 0)
      work(fd);
}

std::uint64_t BytesSent() {
  tcp_info info{};
  ForConnections([&, size = socklen_t{sizeof info}](int fd) mutable {
    if (getsockopt(fd, IPPROTO_TCP, TCP_INFO, &info, &size) != 0)
      size = sizeof info; // not TCP
  });
  return info.tcpi_bytes_sent;
}

TEST(Http, SmallWritesWaitAndLargeOnesAreOutOnReturn) {
  std::string const small(4091, 's'), large(300'000, 'L');
  for (INTERNET_PORT const nPort : {80, 443}) {
    Peer peer("reply" + (nPort == 443 ? kTls : ""));
    Client client(nPort);
    ASSERT_EQ(0u, client.Begin(4 + 4091 + 300'000 + 5));
    std::size_t head = 0;
    ASSERT_TRUE(WaitFor([&] { return (head = peer.Received().find("\r\n\r\n") + 4) != 3; }));
    std::uint64_t const uSent = BytesSent();
    EXPECT_TRUE(client.Write("head") == 0 && client.Write(small) == 0 && BytesSent() == uSent && uSent > 0);
    EXPECT_EQ(0u, client.Write(large));
    EXPECT_TRUE(WaitFor([&] { return peer.Received().size() == head + 4095 + 300'000; })); // no call drives it now
    EXPECT_EQ(12019u, client.Write("tail\n+"));
    EXPECT_TRUE(client.Write("tail\n") == 0 && client.End() == 0);
    EXPECT_EQ("head" + small + large + "tail\n", peer.Received().substr(head));
  }
}

TEST(Http, EarlyReplyEndsTheSendingIfItRefuses) {
  {
    Peer peer("early-hold --status 302 --body moved --length long --after 1000 --window 8192");
    Client client(80);
    ASSERT_EQ(0u, client.Begin(64 << 20));
    for (int n = 0; n < 64; ++n)
      ASSERT_EQ(0u, client.Write(kMegabyte));
    EXPECT_EQ(0u, client.End());
  }
  Peer peer("early-keep --after 1000 --window 8192");
  Client client(80);
  std::string body(16 << 20, 'b'), reply;
  EXPECT_EQ(0u, client.Send(body));
  body.assign(body.size(), 'X'); // the caller may do so, although most of it is still to go out
  EXPECT_EQ(0u, client.Read(reply, 1));
  EXPECT_TRUE(WaitFor([&] { return std::filesystem::file_size(Folder() + "/received") > body.size(); }));
  EXPECT_EQ(std::string::npos, peer.Received().find('X'));
}

TEST(Http, PartOfABrokenReplyIsReadFirst) {
  Peer peer(R"(reply --raw 'HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n5\r\nhello\r\nxyz\r\n')");
  Client client(80);
  std::string bytes;
  EXPECT_TRUE(client.Send() == 0 && client.Read(bytes, 99) == 0 && bytes == "hello") << bytes;
  EXPECT_EQ(12152u, client.Read(bytes, 99));
}

TEST(Http, HostIsCheckedAsItGoesOut) {
  HINTERNET const session = InternetOpenW(nullptr, 0, nullptr, nullptr, 0);
  for (char const *szHost : {"", "a b", "a/b", "a%41", "a\u00A0b", "a\uFF0Fb", "a\uFF20b", "\u2028"})
    EXPECT_EQ(12005u, Error(InternetConnectA(session, szHost, 80, nullptr, nullptr, 3, 0, 1) != nullptr)) << szHost;
  InternetCloseHandle(session);
  Peer peer("reply");
  EXPECT_EQ(0u, Client(80, {.szHost = "\uFF47ood.test"}).Send()) << "a full-width g is a g, in the C locale, too";
  EXPECT_NE(std::string::npos, peer.Received().find("Host: good.test\r\n"));
  EXPECT_EQ(12005u, Client(80, {.object = std::string(2'000'000, 'o')}).Send()) << "too long for libcurl";
}

TEST(Http, CertificatesAndFlags) {
  struct Row {
    char const *szCertificate;
    DWORD dwErrors[4]; // with no flag, date, name, both
  };
  constexpr DWORD kDate = INTERNET_FLAG_IGNORE_CERT_DATE_INVALID, kName = INTERNET_FLAG_IGNORE_CERT_CN_INVALID;
  constexpr DWORD kFlags[] = {0, kDate, kName, kDate | kName};
  for (Row const &row :
       {Row{"good", {0, 0, 0, 0}}, Row{"expired", {12037, 0, 12037, 0}}, Row{"wrong-name", {12038, 12038, 0, 0}},
        Row{"expired-wrong-name", {12037, 12038, 12037, 0}}, Row{"unknown-issuer", {12045, 12045, 12045, 12045}}}) {
    Peer peer(std::string("reply --tls ") + row.szCertificate);
    for (int n : {3, 0, 1, 2}) // a lenient request must not let a later strict one pass
      EXPECT_EQ(row.dwErrors[n], Client(443, {.dwFlags = kFlags[n]}).Send()) << row.szCertificate << n;
  }
  Peer peer("reply" + kTls);
  std::string const good = Folder() + "/ca.pem", fifo = Folder() + "/fifo";
  ASSERT_EQ(0, mkfifo(fifo.c_str(), 0600));
  for (std::string const &roots : {Folder() + "/missing", Folder(), fifo}) {
    setenv("SSL_CERT_FILE", roots.c_str(), 1);
    auto call = std::async(std::launch::async, [] { return Client(443).Send(); });
    EXPECT_EQ(std::future_status::ready, call.wait_for(std::chrono::seconds(10))) << roots;
    while (call.wait_for(std::chrono::milliseconds(1)) != std::future_status::ready)
      close(open(fifo.c_str(), O_WRONLY | O_NONBLOCK)); // ends the reading of the FIFO
    EXPECT_EQ(12045u, call.get()) << roots;
    setenv("SSL_CERT_FILE", good.c_str(), 1);
    EXPECT_EQ(0u, Client(443).Send());
  }
  setenv("SSLKEYLOGFILE", fifo.c_str(), 1);
  EXPECT_EQ(12157u, Client(443).Send());
  unsetenv("SSLKEYLOGFILE");
}

enum Doing { Sending, Filling, Reading };

/// Runs an exchange that the peer lets hang; returns the error that ended it.
DWORD GoThrough(Client &client, Doing doing) {
  DWORD dwError = doing == Filling ? client.Begin(0xFFFFFFFF) : client.Send();
  std::string bytes = kMegabyte;
  while (dwError == 0 && doing != Sending)
    dwError = doing == Filling ? client.Write(bytes) : client.Read(bytes, 100);
  return dwError;
}

TEST(Http, ClosingEndsABlockedCall) {
  struct Phase {
    char const *szScenario;
    Doing doing;
    DWORD dwStage; // the status that is reported last before it hangs ...
    int nCount;    // ... and how often
  };
  int nTurn = 0;
  g_isPatient = true;
  for (Phase const &phase : {Phase{"silent-connect", Sending, INTERNET_STATUS_CONNECTING_TO_SERVER, 1},
                             Phase{"silent-tls", Sending, INTERNET_STATUS_CONNECTED_TO_SERVER, 1},
                             Phase{"silent-reply", Sending, INTERNET_STATUS_RECEIVING_RESPONSE, 1},
                             Phase{"silent-reply --tls good", Sending, INTERNET_STATUS_RECEIVING_RESPONSE, 1},
                             Phase{"silent-body --body 'hello world'", Reading, INTERNET_STATUS_RESPONSE_RECEIVED, 1},
                             Phase{"stall --window 4096", Filling, INTERNET_STATUS_SENDING_REQUEST, 3},
                             Phase{"stall --window 4096 --tls good", Filling, INTERNET_STATUS_SENDING_REQUEST, 3}}) {
    Peer peer(phase.szScenario);
    for (int n = 0; n < 2; ++n) {
      Client client(std::strstr(phase.szScenario, "tls") ? 443 : 80);
      auto call = std::async(std::launch::async, [&] { return GoThrough(client, phase.doing); });
      EXPECT_TRUE(WaitFor([&] { return g_isWaiting && client.stages.Count(phase.dwStage) >= phase.nCount; }));
      HINTERNET const handles[] = {client.request, client.connection, client.session};
      EXPECT_TRUE(InternetCloseHandle(handles[nTurn++ % 3]));
      EXPECT_EQ(std::future_status::ready, call.wait_for(std::chrono::seconds(10))) << phase.szScenario;
      EXPECT_EQ(12017u, call.get()) << phase.szScenario;
      EXPECT_EQ(6u, Error(InternetCloseHandle(client.request)));
    }
  }
  g_isPatient = false;
}

TEST(Http, SlowReaderIsProgressForAStreamedBodyButNotForTheReply) {
  for (std::string const tls : {"", " --tls good", "whole"}) {
    bool const isStreamed = tls != "whole";
    Peer peer("sip --window 8192 --pause 0.02" + (isStreamed ? tls : ""));
    Client client(tls == kTls ? 443 : 80);
    std::uint64_t uNow = 1'000'000, uSent = 0;
    client.stages.onStage = [&](DWORD dwStatus) {
      if (dwStatus == INTERNET_STATUS_CONNECTED_TO_SERVER)
        ForConnections([nBytes = isStreamed ? 40'000 : 1'000'000](int fd) {
          setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &nBytes, sizeof nBytes);
        });
      if (dwStatus == INTERNET_STATUS_RECEIVING_RESPONSE)
        uSent = uNow;
    };
    ASSERT_EQ(0u, isStreamed ? client.Begin(400'000) : 0);
    PlatformTestHooks const hooks{[&] { return uNow += isStreamed ? 500 : 5'000; }, nullptr, nullptr};
    SetPlatformTestHooks(&hooks);
    if (isStreamed) {
      EXPECT_EQ(0u, client.Write(std::string(400'000, 'b'))) << "after " << uNow - 1'000'000 << " ms";
      EXPECT_GT(uNow, 1'000'000u + 60'000u) << "longer than any limit without progress";
    } else {
      EXPECT_EQ(12002u, client.Send(std::string(400'000, 'b')));
      EXPECT_LE(uNow - uSent, 310'000u);
    }
    SetPlatformTestHooks(nullptr);
  }
}

} // namespace
