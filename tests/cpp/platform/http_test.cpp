// The HTTP interface against a peer: when writes go out, the number of each error, and which certificates count.
#include "http_peer.h"

#include <gtest/gtest.h>

namespace {

std::string const kTls = " --tls good";
std::string const kMegabyte(1 << 20, 'b');
constexpr DWORD kLost = 1; // stands for 12030 or 12031: which of them it is, the system's timing decides

void ExpectError(DWORD dwExpected, DWORD dwError, std::string const &context) {
  bool const isLost = dwError == 12030 || dwError == 12031;
  EXPECT_EQ(dwExpected, dwExpected == kLost && isLost ? kLost : dwError) << context;
}

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
    EXPECT_TRUE(WaitFor([&] { return peer.Received().size() == head + 4095 + 300'000; })); // nobody drives it now
    EXPECT_EQ(0u, client.Write("tail\n"));
    EXPECT_EQ(0u, client.End());
    EXPECT_EQ("head" + small + large + "tail\n", peer.Received().substr(head));
  }
}

TEST(Http, SendErrors) {
  struct Row {
    std::string scenario;
    INTERNET_PORT nPort;
    DWORD dwError;
  };
  for (Row const &row : {Row{"close", 80, 12152}, Row{"close" + kTls, 443, 12152}, Row{"close" + kTls, 80, kLost},
                         Row{"garbage", 80, 12152}, Row{"garbage", 443, 12157}, Row{"flood-headers", 80, 12152},
                         Row{"reset-send", 80, kLost}, Row{"reset-send" + kTls, 443, kLost}}) {
    Peer peer(row.scenario);
    ExpectError(row.dwError, Client(row.nPort).Send(), row.scenario + std::to_string(row.nPort));
  }
  EXPECT_EQ(12029u, Client(1, {.szHost = "127.0.0.1"}).Send()) << "nobody listens there";
  EXPECT_EQ(12007u, Client(80, {.szHost = "nowhere.invalid"}).Send());

  for (INTERNET_PORT const nPort : {80, 443}) {
    Peer peer("reset-send --after 1000000" + (nPort == 443 ? kTls : ""));
    Client client(nPort);
    ASSERT_EQ(0u, client.Begin(64 << 20));
    DWORD dwError = 0;
    for (int n = 0; n < 64 && dwError == 0; ++n)
      dwError = client.Write(kMegabyte);
    ExpectError(kLost, dwError, "write");
    ExpectError(kLost, client.Write("more"), "later write");
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
    for (int n : {3, 0, 1, 2}) { // a lenient request must not open the door for a strict one
      EXPECT_EQ(row.dwErrors[n], Client(443, {.dwFlags = dwFlags[n]}).Send()) << row.szCertificate << n;
    }
  }
}

} // namespace
