// The HTTP interface against a peer: what goes out, byte for byte, and what comes of each reply.
#include "http_peer.h"

#include "platform/InternetSession.h"

#include <memory>

#include <gtest/gtest.h>

namespace {

constexpr DWORD kLost = 1; // stands for 12030 or 12031: which of them it is, the system's timing decides

void ExpectError(DWORD dwExpected, DWORD dwError, std::string const &context) {
  if (dwExpected == kLost)
    EXPECT_TRUE(dwError == 12030 || dwError == 12031) << context << ": " << dwError;
  else
    EXPECT_EQ(dwExpected, dwError) << context;
}

TEST(Http, RequestHeads) {
  struct Row {
    char const *szVerb;
    char const *szObject;
    WCHAR const *wszAgent;
    DWORD dwFlags;
    WCHAR const *wszHeaders;
    char const *szBody;
    char const *szExpected;
  };
  Row const rows[] = {
      {"GET", "", nullptr, 0, nullptr, "", "GET / HTTP/1.1\r\nHost: good.test\r\n\r\n"},
      {"GET", "khserver.jsp?ap=a b&c", L"App 1", 0x20000000, nullptr, "",
       "GET /khserver.jsp?ap=a%20b&c HTTP/1.1\r\nHost: good.test\r\nUser-Agent: App 1\r\n\r\n"},
      {"POST", "/../'\"<>#\\\xC3\xA9?%41", L"", 0x80000000, nullptr, "",
       "POST /../'\"<>#\\\xC3\xA9?%41 HTTP/1.1\r\nHost: good.test\r\nContent-Length: 0\r\n\r\n"},
      {"POST", "/l", L"own", 0, L"user-agent: Given\nContent-Type: a/b\r\n\r\nX-None:\nExpect: 100-continue", "a=1",
       "POST /l HTTP/1.1\r\nHost: good.test\r\nuser-agent: Given\r\nContent-Type: a/b\r\nX-None:\r\n"
       "Expect: 100-continue\r\nContent-Length: 3\r\n\r\na=1"},
      {"POST", "/c", L"own", INTERNET_FLAG_NO_CACHE_WRITE, nullptr, "b",
       "POST /c HTTP/1.1\r\nHost: good.test\r\nUser-Agent: own\r\nCache-Control: no-cache\r\nContent-Length: "
       "1\r\n\r\nb"},
  };
  for (Row const &row : rows) {
    Peer peer({"reply"});
    Client client(80, row.szVerb, row.dwFlags, row.wszAgent, row.szObject);
    EXPECT_EQ(0u, client.Send(row.wszHeaders, row.szBody)) << row.szExpected;
    EXPECT_EQ(row.szExpected, peer.Received());
  }
}

TEST(Http, HostForms) {
  Peer peer({"reply", "--address", "::1"});
  for (char const *szHost : {"::1", "[::1]"}) {
    Client client(peer.Port(), "GET", 0, nullptr, "/", szHost);
    EXPECT_EQ(0u, client.Send());
  }
  std::string const one = "GET / HTTP/1.1\r\nHost: [::1]:" + std::to_string(peer.Port()) + "\r\n\r\n";
  EXPECT_EQ(one + one, peer.Received());
  Handle const session = InternetOpenW(nullptr, 0, nullptr, nullptr, 0);
  for (char const *szHost : {"", "a\nb", "a\x7F", "a b", "a/b", "u@b", "a?", "a#", "a%41"}) {
    EXPECT_EQ(nullptr, InternetConnectA(session, szHost, 80, nullptr, nullptr, 3, 0, 1)) << szHost;
    EXPECT_EQ(12005u, GetLastError()) << szHost;
  }
  Handle const connection = InternetConnectA(session, "good.test", 80, nullptr, nullptr, 3, 0, 1);
  EXPECT_EQ(nullptr, HttpOpenRequestA(connection, "GET", "/a\r\nX: y", nullptr, nullptr, nullptr, 0, 0));
  EXPECT_EQ(12005u, GetLastError());
}

TEST(Http, SmallWritesWaitAndLargeOnesAreOutOnReturn) {
  std::string const large(300'000, 'L');
  for (bool const isSecure : {false, true}) {
    Peer peer(isSecure ? Arguments{"reply", "--tls", "good"} : Arguments{"reply"});
    Client client(isSecure ? 443 : 80);
    ASSERT_EQ(0u, client.Begin(4095 + 300'000 + 5));
    auto const body = [&] {
      std::string const received = peer.Received();
      std::size_t const end = received.find("\r\n\r\n");
      return end == std::string::npos ? "-" : received.substr(end + 4);
    };
    ASSERT_TRUE(WaitFor([&] { return body() != "-"; }));
    EXPECT_EQ(0u, client.Write("head"));
    EXPECT_EQ(0u, client.Write(std::string(4091, 'h')));
    EXPECT_EQ("", body());
    EXPECT_EQ(0u, client.Write(large));
    EXPECT_TRUE(WaitFor([&] { return body().size() == 4095 + large.size(); })); // nobody drives the transfer meanwhile
    EXPECT_EQ(0u, client.Write("tail\n"));
    EXPECT_EQ(0u, client.End());
    EXPECT_EQ("head" + std::string(4091, 'h') + large + "tail\n", body());
  }
}

TEST(Http, DeclaredLengthIsKept) {
  struct Row {
    DWORD dwDeclared;
    std::vector<std::size_t> writes;
    DWORD dwLastWrite, dwEnd;
  };
  for (Row const &row : {Row{0, {}, 0, 0}, Row{0, {1}, 12019, 0}, Row{10, {4, 6}, 0, 0}, Row{10, {4, 7}, 12019, 12019},
                         Row{9000, {8000, 1001}, 12019, 12019}, Row{9000, {8000}, 0, 12019}}) {
    Peer peer({"keep"});
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

TEST(Http, EarlyRefusalReachesTheCaller) {
  Arguments const refusal{"--status", "413", "--body", "too large", "--after", "100000"};
  Arguments const scenarios[] = {{"early-keep"},
                                 {"early-hold", "--window", "4096"},
                                 {"early-hold", "--window", "4096", "--header", "Connection: close"},
                                 {"early-keep", "--length", "chunked", "--header", "Connection: close"}};
  for (Arguments const &scenario : scenarios) {
    for (bool const isSecure : {false, true}) {
      Peer peer(scenario + refusal + (isSecure ? Arguments{"--tls", "good"} : Arguments{}));
      Client client(isSecure ? 443 : 80);
      ASSERT_EQ(0u, client.Begin(64 << 20));
      for (int n = 0; n < 64; ++n)
        ASSERT_EQ(0u, client.Write(std::string(1 << 20, 'b'))) << scenario[0] << n;
      EXPECT_EQ(0u, client.End());
      EXPECT_EQ(413u, client.Status());
      std::string body;
      EXPECT_EQ("9 0 ", client.Sizes(&body));
      EXPECT_EQ("too large", body);
    }
  }
}

TEST(Http, EarlySuccessDoesNotEndTheBody) {
  Peer peer({"early-keep", "--after", "1000", "--body", "fine"});
  Client client(80);
  ASSERT_EQ(0u, client.Begin(2'000'000));
  EXPECT_EQ(0u, client.Write(std::string(1'000'000, 'a')));
  EXPECT_EQ(0u, client.Write(std::string(1'000'000, 'b')));
  EXPECT_EQ(0u, client.End());
  EXPECT_EQ("4 0 ", client.Sizes());
  EXPECT_TRUE(WaitFor([&] { return peer.Received().ends_with(std::string(1'000'000, 'b')); }));
}

TEST(Http, Replies) {
  struct Row {
    Arguments scenario;
    WCHAR const *wszLength; // the header's text
    char const *szSizes;    // what is available, one after the other
    char const *szWhole;    // what one read of 100 bytes gives
  };
  Row const rows[] = {
      {{"reply", "--body", "hello"}, L"5", "5 0 ", "hello"},
      {{"reply", "--body", "hello", "--length", "none"}, L"", "5 0 ", "hello"},
      {{"reply", "--body", "hello", "--length", "chunked"}, L"", "5 0 ", "hello"},
      {{"reply", "--body", "hello!", "--length", "short"}, L"3", "3 0 ", "hel"},
      {{"reply", "--body", "hello", "--length", "long"}, L"11", "5 0 ", "hello"},
      {{"reply", "--body", "hello", "--length", "negative"}, L"", "0 ", ""},
      {{"reply", "--body", "hello", "--length", "garbage"}, L"", "0 ", ""},
      {{"reply", "--status", "204", "--length", "none"}, L"", "0 ", ""},
      {{"interim", "--body", "hello", "--length", "none"}, L"", "5 0 ", "hello"},
      {{"pieces", "--body", "hello world"}, L"11", "5 6 0 ", "hello world"},
      {{"pieces", "--body", "hello world", "--length", "none"}, L"", "5 6 0 ", "hello world"},
      {{"pieces", "--body", "hello world", "--length", "chunked"}, L"", "5 6 0 ", "hello world"},
      {{"reset-reply", "--body", "hello world"}, L"11", "5 !12031", "hello"},
      {{"reply", "--status", "302", "--header", "Location: http://good.test/other"}, L"0", "0 ", ""},
      {{"reply", "--status", "500", "--body", "sorry"}, L"5", "5 0 ", "sorry"},
  };
  for (Row const &row : rows) {
    Peer peer(row.scenario);
    std::string const name = row.scenario[0] + " " + row.szSizes;
    Client client(80);
    ASSERT_EQ(0u, client.Send()) << name;
    WCHAR wszLength[20] = L"";
    DWORD dwLength = sizeof wszLength;
    BOOL const bThere = HttpQueryInfoW(client.request, HTTP_QUERY_CONTENT_LENGTH, wszLength, &dwLength, nullptr);
    EXPECT_EQ(*row.wszLength != 0, bThere != FALSE) << name;
    EXPECT_EQ(std::wstring(row.wszLength), wszLength) << name;
    EXPECT_EQ(row.szSizes, client.Sizes()) << name;

    Client again(80);
    ASSERT_EQ(0u, again.Send()) << name;
    std::string whole;
    EXPECT_EQ(0u, again.Read(whole, 100)) << name;
    EXPECT_EQ(row.szWhole, whole) << name;
  }
}

TEST(Http, ALargeReplyIsAvailableAtOnce) {
  Peer peer({"keep", "--fill", "3000000"});
  Client client(80);
  ASSERT_EQ(0u, client.Send());
  std::string body;
  client.Sizes(&body);
  EXPECT_EQ(3'000'000u, body.size());
  for (std::size_t n = 0; n < body.size(); ++n)
    ASSERT_EQ(static_cast<char>(n % 251), body[n]) << n;
}

TEST(Http, SendErrors) {
  struct Row {
    Arguments scenario;
    INTERNET_PORT nPort;
    DWORD dwError;
  };
  Row const rows[] = {
      {{"close"}, 80, 12152},
      {{"garbage"}, 80, 12152},
      {{"flood-headers"}, 80, 12152},
      {{"flood-line"}, 80, 12152},
      {{"reset-send"}, 80, kLost},
      {{"reset-send", "--tls", "good"}, 443, kLost},
      {{"garbage"}, 443, 12157},
      {{"close", "--tls", "good"}, 443, 12152},
      {{"close", "--tls", "good"}, 80, kLost},
  };
  for (Row const &row : rows) {
    Peer peer(row.scenario);
    Client client(row.nPort);
    ExpectError(row.dwError, client.Send(nullptr, "body"), row.scenario[0] + std::to_string(row.nPort));
  }
  INTERNET_PORT const nRefused = Peer({"reply"}).Port(); // nobody listens there any more
  EXPECT_EQ(12029u, Client(nRefused, "GET", 0, nullptr, "/", "127.0.0.1").Send());
  EXPECT_EQ(12007u, Client(80, "GET", 0, nullptr, "/", "nowhere.invalid").Send());
}

TEST(Http, ResetDuringTheBodyFailsTheWrite) {
  for (bool const isSecure : {false, true}) {
    Peer peer(Arguments{"reset-send", "--after", "1000000"} + (isSecure ? Arguments{"--tls", "good"} : Arguments{}));
    Client client(isSecure ? 443 : 80);
    ASSERT_EQ(0u, client.Begin(64 << 20));
    DWORD dwError = 0;
    for (int n = 0; n < 64 && dwError == 0; ++n)
      dwError = client.Write(std::string(1 << 20, 'b'));
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
    Peer peer({"reply", "--tls", row.szCertificate});
    for (int n : {3, 0, 1, 2}) { // a lenient request must not open the door for a strict one
      Client byFlags(443, "POST", dwFlags[n]);
      EXPECT_EQ(row.dwErrors[n], byFlags.Send()) << row.szCertificate << n;
      Client byOption(443);
      DWORD dwOption = dwFlags[n] | SECURITY_FLAG_IGNORE_REVOCATION;
      EXPECT_TRUE(InternetSetOptionW(byOption.request, INTERNET_OPTION_SECURITY_FLAGS, &dwOption, sizeof dwOption));
      EXPECT_EQ(row.dwErrors[n], byOption.Send()) << row.szCertificate << n;
    }
  }
}

TEST(Http, TrustFollowsTheVariableAndTheFile) {
  Peer peer({"reply", "--tls", "good"});
  std::string const roots = Folder() + "/roots.pem";
  auto const send = [&] { return Client(443).Send(); };
  EXPECT_EQ(0u, send());
  setenv("SSL_CERT_FILE", roots.c_str(), 1);
  EXPECT_EQ(12045u, send()); // not there
  std::filesystem::copy_file(Folder() + "/ca.pem", roots);
  EXPECT_EQ(0u, send());
  std::ofstream(roots) << "nothing";
  EXPECT_EQ(12045u, send());
  std::filesystem::copy_file(Folder() + "/ca.pem", roots, std::filesystem::copy_options::overwrite_existing);
  EXPECT_EQ(0u, send());
  unsetenv("SSL_CERT_FILE");
  EXPECT_EQ(12045u, send());
}

TEST(Http, StagesInOrder) {
  using Lines = std::vector<std::string>;
  Lines const connecting{"10 good.test", "11 127.0.0.1", "20 127.0.0.1", "21 127.0.0.1"};
  {
    Peer peer({"keep", "--tls", "good", "--body", "hello"});
    Client client(443);
    Stages &stages = client.stages;
    EXPECT_EQ(0u, client.Begin(5003));
    EXPECT_EQ(0u, client.Write("abc"));
    EXPECT_EQ(0u, client.Write(std::string(5000, 'x')));
    EXPECT_EQ(0u, client.End());
    EXPECT_EQ("5 0 ", client.Sizes());
    EXPECT_EQ(TRUE, InternetCloseHandle(client.request));
    std::size_t const head = std::string("POST /x HTTP/1.1\r\nHost: good.test\r\nContent-Length: 5003\r\n\r\n").size();
    std::size_t const reply = std::string("HTTP/1.1 200 Scripted\r\nContent-Length: 5\r\n\r\n").size();
    Lines const later{"30", "31 " + std::to_string(head),  "30", "31 3", "30", "31 5000",
                      "40", "41 " + std::to_string(reply), "50", "51"};
    Lines all = connecting;
    all.insert(all.end(), later.begin(), later.end());
    EXPECT_EQ(all, stages.lines);
  }
  {
    Peer peer({"reply", "--tls", "expired"});
    Client client(443);
    EXPECT_EQ(12037u, client.Send());
    Lines all = connecting;
    all.insert(all.end(), {"50", "51"});
    EXPECT_EQ(all, client.stages.lines);
  }
  Client nowhere(80, "GET", 0, nullptr, "/", "nowhere.invalid");
  nowhere.Send();
  EXPECT_EQ(Lines{"10 nowhere.invalid"}, nowhere.stages.lines);
}

TEST(Http, OpenUrl) {
  Peer peer({"reply", "--tls", "good", "--status", "500"});
  Handle const session = InternetOpenA("Agent", 0, nullptr, nullptr, 0);
  for (char const *szUrl : {"https://good.test", "https://good.test?q#f", "HTTPS://good.test:444/p q"}) {
    Handle const request = InternetOpenUrlA(session, szUrl, nullptr, 0, INTERNET_FLAG_RELOAD, 0);
    EXPECT_NE(nullptr, request.h) << szUrl << GetLastError();
  }
  std::string const tail = "\r\nUser-Agent: Agent\r\n\r\n";
  EXPECT_EQ("GET / HTTP/1.1\r\nHost: good.test" + tail + "GET /?q HTTP/1.1\r\nHost: good.test" + tail +
                "GET /p%20q HTTP/1.1\r\nHost: good.test:444" + tail,
            peer.Received());
  struct Row {
    char const *szUrl;
    DWORD dwError;
  };
  for (Row const &row : {Row{"good.test", 12006}, Row{"ftp://good.test/", 12006}, Row{"https://", 12005},
                         Row{"https://a\nb/", 12005}, Row{"", 87}, Row{nullptr, 87}}) {
    EXPECT_EQ(nullptr, InternetOpenUrlA(session, row.szUrl, nullptr, 0, 0, 0));
    EXPECT_EQ(row.dwError, GetLastError()) << row.szUrl;
  }
}

TEST(Http, SessionClasses) {
  Peer peer({"reply", "--tls", "good", "--body", "hello"});
  AfxGetModuleState()->m_lpszCurrentAppName = L"Application";
  CInternetSession session(nullptr, 1, 0, nullptr, nullptr, 0);
  std::unique_ptr<CHttpConnection> const connection(session.GetHttpConnection(L"good.test", 443, nullptr, nullptr));
  auto const open = [&](WCHAR const *wszObject) {
    return std::unique_ptr<CHttpFile>(connection->OpenRequest(CHttpConnection::HTTP_VERB_GET, wszObject, nullptr, 1,
                                                              nullptr, nullptr, INTERNET_FLAG_EXISTING_CONNECT));
  };
  std::unique_ptr<CHttpFile> const file = open(L"\u00E9");
  CString strLength(L"old");
  EXPECT_FALSE(file->QueryInfo(HTTP_QUERY_CONTENT_LENGTH, strLength));
  EXPECT_TRUE(strLength.IsEmpty());
  EXPECT_TRUE(file->SendRequest());
  EXPECT_TRUE(file->QueryInfo(HTTP_QUERY_CONTENT_LENGTH, strLength));
  EXPECT_TRUE(strLength == CString(L"5"));
  EXPECT_EQ(5u, file->GetLength());
  char text[8] = "";
  EXPECT_EQ(5u, file->Read(text, 7));
  EXPECT_STREQ("hello", text);
  EXPECT_EQ("GET /\xC3\xA9 HTTP/1.1\r\nHost: good.test\r\nUser-Agent: Application\r\n\r\n", peer.Received());
  setenv("SSL_CERT_FILE", "/nowhere", 1);
  try {
    open(L"")->SendRequest();
    ADD_FAILURE() << "no exception";
  } catch (CInternetException *pException) {
    WCHAR wszText[80];
    EXPECT_EQ(12045u, pException->m_dwError);
    EXPECT_TRUE(pException->GetErrorMessage(wszText, 80));
    EXPECT_EQ(L"The server's certificate comes from an issuer that is not trusted.", std::wstring(wszText));
    EXPECT_TRUE(pException->GetErrorMessage(wszText, 5));
    EXPECT_EQ(L"The ", std::wstring(wszText));
    pException->Delete();
  }
}

} // namespace
