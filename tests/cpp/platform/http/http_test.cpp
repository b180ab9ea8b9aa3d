// The HTTP interface against a peer: when writes go out, the number of each error, and which certificates count.
#include "tests/cpp/platform/http/http_peer.h"
#include "tests/cpp/platform/text/thread_locale.h"

#include <gtest/gtest.h>

#include <sys/resource.h>

namespace {

std::string const kTls = " --tls good";
std::string const kMegabyte(1 << 20, 'b');
void ExpectLost(DWORD dwError) { EXPECT_TRUE(dwError == 12030 || dwError == 12031) << dwError; } // timing decides

TEST(Http, SmallWritesWaitAndLargeOnesAreOutOnReturn) {
  std::string const small(4091, 's'), large(300'000, 'L');
  for (INTERNET_PORT const nPort : {80, 443}) {
    Peer peer("reply" + (nPort == 443 ? kTls : ""));
    Client client(nPort);
    ASSERT_EQ(0u, client.Begin(4 + 4091 + 300'000 + 5));
    std::size_t head = 0;
    ASSERT_TRUE(WaitFor([&] { return (head = peer.Received().find("\r\n\r\n") + 4) != 3; }));
    EXPECT_EQ(0u, client.Write("head"));
    EXPECT_EQ(0u, client.Write(small));
    EXPECT_EQ(head, peer.Received().size());
    EXPECT_EQ(0u, client.Write(large));
    EXPECT_TRUE(WaitFor([&] { return peer.Received().size() == head + 4095 + 300'000; })); // no call drives it now
    EXPECT_EQ(0u, client.Write("tail\n"));
    EXPECT_EQ(0u, client.End());
    EXPECT_EQ("head" + small + large + "tail\n", peer.Received().substr(head));
  }
}

TEST(Http, WholeRequestLeavesInOneWrite) {
  for (std::size_t const size : {2, 40'000, 1'000'000}) {
    std::string const object = "/" + std::string(size, 'o');
    Peer peer("first-bytes" + kTls);
    EXPECT_EQ(0u, Client(443, {.object = object}).Send(size == 2 ? "body" : ""));
    std::string const end = size == 2 ? "Content-Length: 4\r\n\r\nbody" : "Content-Length: 0\r\n\r\n";
    EXPECT_TRUE(WaitFor([&] { return peer.Received().ends_with(end); })) << size;
  }
  EXPECT_EQ(12005u, Client(443, {.object = std::string(2'000'000, 'o')}).Send()) << "too long for libcurl";
}

TEST(Http, HostIsCheckedAsItGoesOut) {
  ThreadLocale const locale("UTF-8"); // international names are mapped in the thread's character set
  HINTERNET const session = InternetOpenW(nullptr, 0, nullptr, nullptr, 0);
  for (char const *szHost : {"", "a b", "a/b", "a%41", "a\u00A0b", "a\uFF0Fb", "a\uFF20b", "\u2028"})
    EXPECT_EQ(12005u, Error(InternetConnectA(session, szHost, 80, nullptr, nullptr, 3, 0, 1) != nullptr)) << szHost;
  InternetCloseHandle(session);
  Peer peer("reply");
  EXPECT_EQ(0u, Client(80, {.szHost = "\uFF47ood.test"}).Send()) << "a full-width g is a g";
  EXPECT_NE(std::string::npos, peer.Received().find("Host: good.test\r\n"));
}

TEST(Http, FailureToReadTheRootsFailsOneConnectionOnly) {
  Peer peer("reply" + kTls);
  std::string const roots = Folder() + "/other_ca.pem";
  std::filesystem::copy_file(Folder() + "/ca.pem", roots);
  setenv("SSL_CERT_FILE", roots.c_str(), 1);
  rlimit before{};
  getrlimit(RLIMIT_NOFILE, &before);
  {
    Client client(443);
    client.stages.onStage = [&](DWORD dwStatus) {
      rlimit const none{0, before.rlim_max};
      if (dwStatus == INTERNET_STATUS_CONNECTED_TO_SERVER)
        setrlimit(RLIMIT_NOFILE, &none);
    };
    EXPECT_EQ(12045u, client.Send());
  }
  setrlimit(RLIMIT_NOFILE, &before);
  EXPECT_EQ(0u, Client(443).Send());
}

TEST(Http, WritesFailAfterALoss) {
  for (INTERNET_PORT const nPort : {80, 443}) {
    Peer peer("reset-send --after 1000000" + (nPort == 443 ? kTls : ""));
    Client client(nPort);
    ASSERT_EQ(0u, client.Begin(64 << 20));
    DWORD dwError = 0;
    for (int n = 0; n < 64 && dwError == 0; ++n)
      dwError = client.Write(kMegabyte);
    ExpectLost(dwError);
    ExpectLost(client.Write("more"));
    EXPECT_NE(0u, client.End());
  }
}

TEST(Http, CertificateFlags) {
  struct Row {
    char const *szCertificate;
    DWORD dwErrors[4]; // with no flag, date, name, both
  };
  Row const rows[] = {{"good", {0, 0, 0, 0}},
                      {"expired", {12037, 0, 12037, 0}},
                      {"wrong-name", {12038, 12038, 0, 0}},
                      {"expired-wrong-name", {12037, 12038, 12037, 0}},
                      {"unknown-issuer", {12045, 12045, 12045, 12045}}};
  DWORD const dwFlags[] = {0, INTERNET_FLAG_IGNORE_CERT_DATE_INVALID, INTERNET_FLAG_IGNORE_CERT_CN_INVALID,
                           INTERNET_FLAG_IGNORE_CERT_DATE_INVALID | INTERNET_FLAG_IGNORE_CERT_CN_INVALID};
  for (Row const &row : rows) {
    Peer peer(std::string("reply --tls ") + row.szCertificate);
    for (int n : {3, 0, 1, 2}) { // a lenient request must not let a later strict one pass
      EXPECT_EQ(row.dwErrors[n], Client(443, {.dwFlags = dwFlags[n]}).Send()) << row.szCertificate << n;
    }
  }
}

} // namespace
