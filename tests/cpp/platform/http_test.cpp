// The HTTP interface against a peer: what goes out, byte for byte, and what comes of each reply.
#include "http_peer.h"

#include "platform/InternetSession.h"
#include "platform/TestSeam.h"

#include <memory>

#include <gtest/gtest.h>

namespace {

std::string const kTls = " --tls good";
std::string const kMegabyte(1 << 20, 'b');
constexpr DWORD kLost = 1; // stands for 12030 or 12031: which of them it is, the system's timing decides

void ExpectError(DWORD dwExpected, DWORD dwError, std::string const &context) {
  bool const isLost = dwError == 12030 || dwError == 12031;
  EXPECT_EQ(dwExpected, dwExpected == kLost && isLost ? kLost : dwError) << context;
}

TEST(Http, RequestHeads) {
  struct Row {
    Options options;
    WCHAR const *wszHeaders;
    char const *szBody;
    char const *szExpected;
  };
  Row const rows[] = {
      {{"GET", ""}, nullptr, "", "GET / HTTP/1.1\r\nHost: good.test\r\n\r\n"},
      {{"GET", "khserver.jsp?ap=a b&c", "good.test", L"App 1", 0x20000000},
       nullptr,
       "",
       "GET /khserver.jsp?ap=a%20b&c HTTP/1.1\r\nHost: good.test\r\nUser-Agent: App 1\r\n\r\n"},
      {{"POST", "/../'\"<>#\\\xC3\xA9?%41", "good.test", L"", 0x80000000},
       nullptr,
       "",
       "POST /../'\"<>#\\\xC3\xA9?%41 HTTP/1.1\r\nHost: good.test\r\nContent-Length: 0\r\n\r\n"},
      {{"POST", "/l", "good.test", L"own"},
       L"user-agent: Given\nContent-Type: a/b\r\n\r\nX-None:",
       "a=1",
       "POST /l HTTP/1.1\r\nHost: good.test\r\nuser-agent: Given\r\nContent-Type: a/b\r\nX-None:\r\n"
       "Content-Length: 3\r\n\r\na=1"},
      {{"POST", "/c", "good.test", L"own", INTERNET_FLAG_NO_CACHE_WRITE},
       nullptr,
       "b",
       "POST /c HTTP/1.1\r\nHost: good.test\r\nUser-Agent: own\r\nCache-Control: no-cache\r\nContent-Length: "
       "1\r\n\r\nb"},
  };
  std::string expected;
  Peer peer("reply");
  for (Row const &row : rows) {
    EXPECT_EQ(0u, Client(80, row.options).Send(row.wszHeaders, row.szBody)) << row.szExpected;
    EXPECT_EQ(expected += row.szExpected, peer.Received());
  }
}

TEST(Http, HostForms) {
  Peer peer("reply --address ::1");
  for (char const *szHost : {"::1", "[::1]"})
    EXPECT_EQ(0u, Client(peer.Port(), {"GET", "/", szHost}).Send());
  std::string const one = "GET / HTTP/1.1\r\nHost: [::1]:" + std::to_string(peer.Port()) + "\r\n\r\n";
  EXPECT_EQ(one + one, peer.Received());
  Client client(80);
  for (char const *szHost : {"", "a\nb", "a\x7F", "a b", "a/b", "u@b", "a?", "a#", "a%41"}) {
    EXPECT_EQ(nullptr, InternetConnectA(client.session, szHost, 80, nullptr, nullptr, 3, 0, 1)) << szHost;
    EXPECT_EQ(12005u, GetLastError()) << szHost;
  }
  EXPECT_EQ(nullptr, HttpOpenRequestA(client.connection, "GET", "/a\r\nX: y", nullptr, nullptr, nullptr, 0, 0));
  EXPECT_EQ(12005u, GetLastError());
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

TEST(Http, DeclaredLengthIsKept) {
  struct Row {
    DWORD dwDeclared;
    std::vector<std::size_t> writes;
    DWORD dwLastWrite, dwEnd;
  };
  Peer peer("keep");
  for (Row const &row :
       {Row{0, {}, 0, 0}, Row{0, {0}, 0, 0}, Row{0, {1}, 12019, 0}, Row{10, {4, 6}, 0, 0},
        Row{10, {4, 7}, 12019, 12019}, Row{9000, {8000, 1001}, 12019, 12019}, Row{9000, {8000}, 0, 12019}}) {
    Client client(80);
    ASSERT_EQ(0u, client.Begin(row.dwDeclared));
    DWORD dwError = 0;
    for (std::size_t const size : row.writes)
      dwError = client.Write(std::string(size, 'b'));
    EXPECT_EQ(row.dwLastWrite, dwError) << row.dwDeclared;
    EXPECT_EQ(row.dwEnd, client.End()) << row.dwDeclared;
    EXPECT_EQ(row.dwEnd == 0 ? 200u : 0u, client.Status());
  }
}

TEST(Http, EarlyReplies) {
  std::string const early = " --body early --after 100000 --status ";
  std::string const scenarios[] = {"early-keep" + early + "413", "early-hold --window 4096" + early + "401",
                                   "early-hold --window 4096 --header 'Connection: close'" + early + "500",
                                   "early-keep --length chunked" + early + "302",
                                   "early-keep" + early + "200"}; // which does not end the body
  for (std::string const &scenario : scenarios) {
    for (INTERNET_PORT const nPort : {80, 443}) {
      Peer peer(scenario + (nPort == 443 ? kTls : ""));
      Client client(nPort);
      ASSERT_EQ(0u, client.Begin(16 << 20));
      for (int n = 0; n < 16; ++n)
        ASSERT_EQ(0u, client.Write(kMegabyte)) << scenario << n;
      EXPECT_EQ(0u, client.End());
      EXPECT_TRUE(scenario.ends_with(std::to_string(client.Status()))) << client.Status();
      std::string body;
      EXPECT_EQ("5 0 ", client.Sizes(&body));
      EXPECT_EQ("early", body);
      EXPECT_TRUE(client.Status() != 200 || WaitFor([&] { return peer.Received().size() > 16u << 20; }));
    }
  }
}

TEST(Http, Replies) {
  struct Row {
    char const *szScenario;
    WCHAR const *wszLength; // the header's text
    char const *szSizes;    // what is available, one after the other
    char const *szWhole;    // what one read of 100 bytes gives
  };
  Row const rows[] = {
      {"reply --body hello", L"5", "5 0 ", "hello"},
      {"reply --body hello --length none", L"", "5 0 ", "hello"},
      {"reply --body hello --length chunked", L"", "5 0 ", "hello"},
      {"reply --body hello! --length short", L"3", "3 0 ", "hel"},
      {"reply --body hello --length long", L"11", "5 0 ", "hello"},
      {"reply --body hello --length long --tls good", L"11", "5 0 ", "hello"},
      {"reply --body hello --length negative", L"", "0 ", ""},
      {"reply --body hello --length garbage", L"", "0 ", ""},
      {"reply --status 204 --length none", L"", "0 ", ""},
      {"reply --status 302 --header 'Location: http://good.test/other'", L"0", "0 ", ""},
      {"interim --body hello --length none", L"", "5 0 ", "hello"},
      {"pieces --body 'hello world'", L"11", "5 6 0 ", "hello world"},
      {"pieces --body 'hello world' --length chunked", L"", "5 6 0 ", "hello world"},
      {"reset-reply --body 'hello world'", L"11", "5 !12031", "hello"},
  };
  for (Row const &row : rows) {
    Peer peer(row.szScenario);
    INTERNET_PORT const nPort = std::string(row.szScenario).ends_with(kTls) ? 443 : 80;
    Client client(nPort), again(nPort);
    ASSERT_EQ(0u, client.Send()) << row.szScenario;
    WCHAR wszLength[20] = L"";
    DWORD dwLength = sizeof wszLength;
    BOOL const bThere = HttpQueryInfoW(client.request, HTTP_QUERY_CONTENT_LENGTH, wszLength, &dwLength, nullptr);
    EXPECT_EQ(*row.wszLength != 0, bThere != FALSE) << row.szScenario;
    EXPECT_EQ(std::wstring(row.wszLength), wszLength) << row.szScenario;
    EXPECT_EQ(row.szSizes, client.Sizes()) << row.szScenario;
    std::string whole;
    EXPECT_EQ(0u, again.Send()) << row.szScenario;
    EXPECT_EQ(0u, again.Read(whole, 100)) << row.szScenario;
    EXPECT_EQ(row.szWhole, whole) << row.szScenario;
  }
}

TEST(Http, ALargeReplyIsAvailableWhole) {
  Peer peer("keep --fill 3000000");
  Client client(80);
  ASSERT_EQ(0u, client.Send());
  std::string body, expected;
  client.Sizes(&body);
  for (int n = 0; n < 3'000'000; ++n)
    expected += static_cast<char>(n % 251);
  EXPECT_TRUE(body == expected) << body.size();
}

TEST(Http, SendErrors) {
  struct Row {
    std::string scenario;
    INTERNET_PORT nPort;
    DWORD dwError;
  };
  for (Row const &row :
       {Row{"close", 80, 12152}, Row{"close" + kTls, 443, 12152}, Row{"close" + kTls, 80, kLost},
        Row{"garbage", 80, 12152}, Row{"garbage", 443, 12157}, Row{"flood-headers", 80, 12152},
        Row{"flood-line", 80, 12152}, Row{"reset-send", 80, kLost}, Row{"reset-send" + kTls, 443, kLost}}) {
    Peer peer(row.scenario);
    ExpectError(row.dwError, Client(row.nPort).Send(nullptr, "body"), row.scenario + std::to_string(row.nPort));
  }
  INTERNET_PORT const nRefused = Peer("reply").Port(); // nobody listens there any more
  EXPECT_EQ(12029u, Client(nRefused, {"GET", "/", "127.0.0.1"}).Send());
  EXPECT_EQ(12007u, Client(80, {"GET", "/", "nowhere.invalid"}).Send());

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
      Client client(443);
      DWORD dwOption = dwFlags[n] | SECURITY_FLAG_IGNORE_REVOCATION;
      EXPECT_TRUE(InternetSetOptionW(client.request, INTERNET_OPTION_SECURITY_FLAGS, &dwOption, sizeof dwOption));
      EXPECT_EQ(row.dwErrors[n], client.Send()) << row.szCertificate << n;
    }
  }
}

TEST(Http, TrustFollowsTheVariableAndTheFile) {
  Peer peer("reply" + kTls);
  std::string const roots = Folder() + "/roots.pem";
  auto const send = [] { return Client(443).Send(); };
  EXPECT_EQ(0u, send());
  setenv("SSL_CERT_FILE", roots.c_str(), 1);
  EXPECT_EQ(12045u, send()); // not there
  std::filesystem::copy_file(Folder() + "/ca.pem", roots);
  EXPECT_EQ(0u, send());
  std::ofstream(roots) << "nothing";
  EXPECT_EQ(12045u, send());
  unsetenv("SSL_CERT_FILE");
  EXPECT_EQ(12045u, send());
}

TEST(Http, StagesInOrder) {
  using Lines = std::vector<std::string>;
  Lines expected{"10 good.test", "11 127.0.0.1", "20 127.0.0.1", "21 127.0.0.1"};
  {
    Peer peer("reply --tls expired");
    Client client(443);
    EXPECT_EQ(12037u, client.Send());
    Lines const lines = client.stages.lines;
    EXPECT_EQ(6u, lines.size());
    EXPECT_TRUE(std::equal(expected.begin(), expected.end(), lines.begin()));
    EXPECT_EQ("50 51", lines[4] + " " + lines[5]);
  }
  Peer peer("keep --body hello" + kTls);
  Client client(443);
  EXPECT_EQ(0u, client.Begin(5003));
  EXPECT_EQ(0u, client.Write("abc"));
  EXPECT_EQ(0u, client.Write(std::string(5000, 'x')));
  EXPECT_EQ(0u, client.End());
  EXPECT_EQ("5 0 ", client.Sizes());
  EXPECT_TRUE(InternetCloseHandle(client.request));
  std::size_t const head = std::string("POST /x HTTP/1.1\r\nHost: good.test\r\nContent-Length: 5003\r\n\r\n").size();
  std::size_t const reply = std::string("HTTP/1.1 200 Scripted\r\nContent-Length: 5\r\n\r\n").size();
  Lines const sending{"30", "31 " + std::to_string(head), "30", "31 3", "30", "31 5000"};
  Lines const ending{"40", "41 " + std::to_string(reply), "50", "51"};
  expected.insert(expected.end(), sending.begin(), sending.end());
  expected.insert(expected.end(), ending.begin(), ending.end());
  EXPECT_EQ(expected, client.stages.lines);
  Client nowhere(80, {"GET", "/", "nowhere.invalid"});
  nowhere.Send();
  EXPECT_EQ(Lines{"10 nowhere.invalid"}, nowhere.stages.lines);
}

} // namespace
