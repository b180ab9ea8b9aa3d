// The HTTP interface when something is in the way: calls that block, limits, handles closed under a call, forks, and
// failures at a chosen call.
#include "http_peer.h"

#include "platform/InternetSession.h"
#include "platform/TestSeam.h"

#include <atomic>
#include <future>
#include <memory>

#include <gtest/gtest.h>

namespace {

struct Hooks : PlatformTestHooks {
  void Set() { SetPlatformTestHooks(this); }
  ~Hooks() { SetPlatformTestHooks(nullptr); }
};

std::string const kMegabyte(1 << 20, 'b');

/// Writes until it fails.
DWORD Fill(Client &client) {
  for (;;)
    if (DWORD const dwError = client.Write(kMegabyte))
      return dwError;
}

enum Doing { Sending, Filling, Reading };

/// Goes through an exchange that the peer lets hang; returns the error that ended it.
DWORD GoThrough(Client &client, Doing doing) {
  DWORD dwError = doing == Filling ? client.Begin(0xFFFFFFFF) : client.Send();
  if (dwError != 0 || doing == Sending)
    return dwError;
  if (doing == Filling)
    return Fill(client);
  std::string bytes;
  for (dwError = 0; dwError == 0;)
    dwError = client.Read(bytes, 100);
  return dwError;
}

struct Phase {
  Arguments scenario;
  INTERNET_PORT nPort;
  Doing doing;
  DWORD dwStage; // the status that is told last before it hangs ...
  int nCount;    // ... that often
  std::uint64_t uLimit;
};
Arguments const kTls{"--tls", "good"};
Phase const kPhases[] = {
    {{"silent-connect"}, 80, Sending, INTERNET_STATUS_CONNECTING_TO_SERVER, 1, 60'000},
    {{"silent-tls"}, 443, Sending, INTERNET_STATUS_CONNECTED_TO_SERVER, 1, 60'000},
    {{"silent-reply"}, 80, Sending, INTERNET_STATUS_RECEIVING_RESPONSE, 1, 60'000},
    {Arguments{"silent-reply"} + kTls, 443, Sending, INTERNET_STATUS_RECEIVING_RESPONSE, 1, 60'000},
    {{"silent-body", "--body", "hello world"}, 80, Reading, INTERNET_STATUS_RESPONSE_RECEIVED, 1, 60'000},
    {{"stall", "--window", "4096"}, 80, Filling, INTERNET_STATUS_SENDING_REQUEST, 3, 30'000},
    {Arguments{"stall", "--window", "4096"} + kTls, 443, Filling, INTERNET_STATUS_SENDING_REQUEST, 3, 30'000},
};

TEST(HttpFaults, ClosingEndsABlockedCall) {
  for (int nLevel = 0; nLevel < 3; ++nLevel) {
    for (Phase const &phase : kPhases) {
      Peer peer(phase.scenario);
      Client client(phase.nPort);
      auto call = std::async(std::launch::async, [&] { return GoThrough(client, phase.doing); });
      EXPECT_TRUE(WaitFor([&] { return client.stages.Count(phase.dwStage) >= phase.nCount; })) << phase.scenario[0];
      HINTERNET const handles[] = {client.request, client.connection, client.session};
      EXPECT_TRUE(InternetCloseHandle(handles[nLevel]));
      ASSERT_EQ(std::future_status::ready, call.wait_for(std::chrono::seconds(10))) << phase.scenario[0];
      DWORD const dwError = call.get();
      bool const wasBetweenCalls = phase.doing != Sending && dwError == ERROR_INVALID_HANDLE;
      EXPECT_TRUE(dwError == 12017 || wasBetweenCalls) << phase.scenario[0] << dwError;
      EXPECT_FALSE(InternetCloseHandle(client.request));
      EXPECT_EQ(6u, GetLastError());
    }
  }
}

TEST(HttpFaults, ClosingTheSessionEndsOpenUrl) {
  Peer peer(Arguments{"silent-reply"} + kTls);
  HINTERNET const session = InternetOpenA("Agent", 0, nullptr, nullptr, 0);
  auto call = std::async(std::launch::async, [&] {
    HINTERNET const request = InternetOpenUrlA(session, "https://good.test", nullptr, 0, INTERNET_FLAG_RELOAD, 0);
    return request ? 0 : GetLastError();
  });
  EXPECT_TRUE(WaitFor([&] { return !peer.Received().empty(); }));
  EXPECT_TRUE(InternetCloseHandle(session));
  ASSERT_EQ(std::future_status::ready, call.wait_for(std::chrono::seconds(10)));
  EXPECT_EQ(12017u, call.get());
}

TEST(HttpFaults, TimeLimits) {
  for (DWORD const dwOption : {0u, 5000u}) {
    for (Phase const &phase : kPhases) {
      Peer peer(phase.scenario);
      Client client(phase.nPort, "POST", 0, nullptr, "/x", "good.test", dwOption);
      bool const isReceiving = phase.uLimit == 60'000 && phase.dwStage >= INTERNET_STATUS_RECEIVING_RESPONSE;
      std::uint64_t const uLimit = dwOption != 0 && !isReceiving ? dwOption : phase.uLimit;
      std::uint64_t uNow = 1'000'000, uBegin = uNow;
      client.stages.onStage = [&](HINTERNET, DWORD dwStatus) {
        if (dwStatus >= INTERNET_STATUS_SENDING_REQUEST && dwStatus < INTERNET_STATUS_CLOSING_CONNECTION)
          uBegin = uNow; // the limit for connecting runs from the call's begin
      };
      Hooks hooks;
      hooks.now = [&] { return uNow += 250; };
      hooks.Set();
      EXPECT_EQ(12002u, GoThrough(client, phase.doing)) << phase.scenario[0];
      EXPECT_GE(uNow - uBegin, uLimit) << phase.scenario[0];
      EXPECT_LE(uNow - uBegin, uLimit + 30'000) << phase.scenario[0]; // a peer's buffers take a while to fill
    }
  }
}

TEST(HttpFaults, OneWholeReplyHasALimitThatPausesDoNotUse) {
  Peer peer({"trickle", "--fill", "40", "--pause", "0.02"});
  Client client(80);
  ASSERT_EQ(0u, client.Send());
  std::uint64_t uBase = 1'000'000;
  int nLooks = 0;
  Hooks hooks;
  hooks.now = [&] { return nLooks++ == 0 ? uBase : uBase + 19'000; }; // each call waits 19 s, whatever it does
  hooks.Set();
  int nCalls = 0;
  std::string byte;
  for (DWORD dwError = 0; dwError == 0; ++nCalls) {
    uBase += 600'000; // the caller's pause
    nLooks = 0;
    dwError = client.Read(byte, 1);
    EXPECT_TRUE(dwError == 0 || dwError == 12002) << dwError;
  }
  EXPECT_EQ(300 / 19 + 1, nCalls);
}

TEST(HttpFaults, ReplyBodyHasALimit) {
  Peer peer({"flood-body"});
  Client client(80);
  ASSERT_EQ(0u, client.Send());
  std::string block;
  std::size_t read = 0;
  DWORD dwError = 0;
  while ((dwError = client.Read(block, 1 << 20)) == 0)
    read += block.size();
  EXPECT_EQ(12152u, dwError);
  EXPECT_LE(read, 64u << 20);
  EXPECT_GT(read, 63u << 20);
}

TEST(HttpFaults, Handles) {
  Peer peer({"keep", "--body", "hello"});
  Client client(80);
  DWORD dwValue = 0;
  EXPECT_EQ(nullptr, InternetConnectA(client.request, "good.test", 80, nullptr, nullptr, 3, 0, 1));
  EXPECT_EQ(12018u, GetLastError());
  EXPECT_EQ(nullptr, HttpOpenRequestA(client.session, "GET", "/", nullptr, nullptr, nullptr, 0, 0));
  EXPECT_EQ(12018u, GetLastError());
  EXPECT_EQ(12018u, Client::Error(HttpSendRequestW(client.connection, nullptr, 0, nullptr, 0)));
  EXPECT_EQ(6u, Client::Error(HttpSendRequestW(&client, nullptr, 0, nullptr, 0)));
  EXPECT_EQ(12019u, client.Available(dwValue)); // no reply yet
  EXPECT_EQ(12009u, Client::Error(InternetSetOptionW(client.session, 3, &dwValue, sizeof dwValue)));

  DWORD dwInside = 0;
  client.stages.onStage = [&](HINTERNET hRequest, DWORD dwStatus) {
    if (dwStatus == INTERNET_STATUS_SENDING_REQUEST)
      dwInside = Client::Error(HttpEndRequestW(hRequest, nullptr, 0, 0));
  };
  EXPECT_EQ(0u, client.Send());
  EXPECT_EQ(12019u, dwInside) << "a call from within a callback";
  EXPECT_EQ(12019u, client.Send()) << "sent twice";
  EXPECT_TRUE(InternetCloseHandle(client.connection));
  EXPECT_EQ(6u, client.Available(dwValue)) << "closed with its connection";
  EXPECT_EQ(6u, Client::Error(InternetCloseHandle(client.connection)));

  Client closer(80);
  closer.stages.onStage = [&](HINTERNET hRequest, DWORD dwStatus) {
    if (dwStatus == INTERNET_STATUS_CONNECTED_TO_SERVER)
      InternetCloseHandle(hRequest);
  };
  EXPECT_EQ(12017u, closer.Send()) << "closed by a callback";
}

TEST(HttpFaults, AForkedChildLeavesTheConnectionAlone) {
  Peer peer(Arguments{"keep", "--body", "hello"} + kTls);
  Client client(443);
  ASSERT_EQ(0u, client.Begin(5));
  pid_t const child = fork();
  if (child == 0) {
    bool const isRefused = client.Write("child") == ERROR_INVALID_HANDLE;
    InternetCloseHandle(client.session);
    InternetCloseHandle(client.request);
    _exit(isRefused ? 0 : 1);
  }
  int nStatus = -1;
  waitpid(child, &nStatus, 0);
  EXPECT_EQ(0, nStatus);
  EXPECT_EQ(0u, client.Write("paren"));
  EXPECT_EQ(0u, client.End());
  EXPECT_EQ("5 0 ", client.Sizes());
}

TEST(HttpFaults, ManyThreadsAtOnce) {
  Peer peer(Arguments{"reply", "--body", "hello"} + kTls);
  std::atomic<int> nGood = 0;
  std::vector<std::thread> threads;
  for (int n = 0; n < 4; ++n)
    threads.emplace_back([&] {
      for (int m = 0; m < 8; ++m) {
        Client client(443);
        nGood += client.Send(nullptr, "body") == 0 && client.Sizes() == "5 0 ";
      }
    });
  for (std::thread &thread : threads)
    thread.join();
  EXPECT_EQ(32, nGood);
}

TEST(HttpFaults, AnyCallCanBeMadeToFail) {
  Hooks hooks;
  std::string wanted;
  hooks.fault = [&](char const *szCall, DWORD *pdwError) {
    *pdwError = 4711;
    return szCall == wanted;
  };
  hooks.Set();
  Peer peer({"keep", "--body", "hello"});
  DWORD dw = 0;
  INTERNET_BUFFERSW buffers{};
  URL_COMPONENTSA parts{};
  auto const make = [&](HINTERNET handle) { return handle ? TRUE : FALSE; };
  Client client(80);
  HINTERNET const s = client.session, c = client.connection, r = client.request;
  struct Row {
    char const *szName;
    std::function<BOOL()> call;
  };
  Row const rows[] = {
      {"InternetOpenW", [&] { return make(InternetOpenW(nullptr, 0, nullptr, nullptr, 0)); }},
      {"InternetOpenA", [&] { return make(InternetOpenA(nullptr, 0, nullptr, nullptr, 0)); }},
      {"InternetSetStatusCallbackW", [&] { return InternetSetStatusCallbackW(s, Stages::Callback) != nullptr; }},
      {"InternetConnectA", [&] { return make(InternetConnectA(s, "h", 80, nullptr, nullptr, 3, 0, 1)); }},
      {"InternetConnectW", [&] { return make(InternetConnectW(s, L"h", 80, nullptr, nullptr, 3, 0, 1)); }},
      {"HttpOpenRequestA", [&] { return make(HttpOpenRequestA(c, "GET", "", nullptr, nullptr, nullptr, 0, 1)); }},
      {"HttpOpenRequestW", [&] { return make(HttpOpenRequestW(c, L"GET", L"", nullptr, nullptr, nullptr, 0, 1)); }},
      {"HttpAddRequestHeadersA", [&] { return HttpAddRequestHeadersA(r, "A: b", 0xFFFFFFFF, HTTP_ADDREQ_FLAG_ADD); }},
      {"InternetSetOptionW", [&] { return InternetSetOptionW(r, INTERNET_OPTION_SECURITY_FLAGS, &dw, sizeof dw); }},
      {"HttpSendRequestExW", [&] { return HttpSendRequestExW(r, &buffers, nullptr, HSR_INITIATE, 0); }},
      {"InternetWriteFile", [&] { return InternetWriteFile(r, "", 0, &dw); }},
      {"HttpEndRequestW", [&] { return HttpEndRequestW(r, nullptr, 0, 0); }},
      {"HttpQueryInfoW",
       [&] { return HttpQueryInfoW(r, 0x20000013, &dw, &(dw = 4, parts.dwStructSize = 4), nullptr); }},
      {"InternetQueryDataAvailable", [&] { return InternetQueryDataAvailable(r, &dw, 0, 0); }},
      {"InternetReadFile", [&] { return InternetReadFile(r, &dw, 4, &parts.dwStructSize); }},
      {"HttpSendRequestW", [&] { return Client(80).Send() == 0 ? TRUE : FALSE; }},
      {"InternetOpenUrlA", [&] { return make(InternetOpenUrlA(s, "http://good.test", nullptr, 0, 0, 0)); }},
      {"InternetCrackUrlA", [&] { return InternetCrackUrlA("http://good.test", 0, 0, &parts); }},
      {"InternetCloseHandle", [&] { return InternetCloseHandle(r); }},
  };
  for (Row const &row : rows) {
    wanted = row.szName;
    SetLastError(0);
    EXPECT_FALSE(row.call()) << row.szName;
    EXPECT_EQ(4711u, GetLastError()) << row.szName;
    wanted.clear();
    EXPECT_TRUE(row.call()) << row.szName;
  }
}

TEST(HttpFaults, AFailureWithoutANumberIsNoException) {
  Hooks hooks;
  DWORD dwNumber = 0;
  hooks.fault = [&](char const *szCall, DWORD *pdwError) {
    *pdwError = dwNumber;
    return szCall == std::string("HttpSendRequestW");
  };
  hooks.Set();
  CInternetSession session(L"", 1, 0, nullptr, nullptr, 0);
  std::unique_ptr<CHttpConnection> const connection(session.GetHttpConnection(L"good.test", 80, nullptr, nullptr));
  std::unique_ptr<CHttpFile> const file(connection->OpenRequest(0, L"", nullptr, 1, nullptr, nullptr, 0));
  EXPECT_FALSE(file->SendRequest());
  dwNumber = 4711;
  try {
    file->SendRequest();
    ADD_FAILURE() << "no exception";
  } catch (CInternetException *pException) {
    WCHAR wszText[80];
    EXPECT_TRUE(pException->GetErrorMessage(wszText, 80));
    EXPECT_EQ(L"The request failed with error number 4711.", std::wstring(wszText));
    pException->Delete();
  }
}

} // namespace
