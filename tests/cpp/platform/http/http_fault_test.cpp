// The HTTP interface under faults: calls that block, limits, handles closed while a call runs.
#include "tests/cpp/platform/http/http_peer.h"

#include "tests/cpp/platform/TestHooks.h"

#include <future>

#include <gtest/gtest.h>

#include <sys/socket.h>

namespace {

struct DrivenClock : PlatformTestHooks {
  explicit DrivenClock(std::function<std::uint64_t()> look) {
    now = std::move(look);
    SetPlatformTestHooks(this);
  }
  ~DrivenClock() { SetPlatformTestHooks(nullptr); }
};

enum Doing { Sending, Filling, Reading };

/// A point at which an exchange hangs.
struct Phase {
  char const *szScenario;
  INTERNET_PORT nPort;
  Doing doing;
  DWORD dwStage; // the status that is reported last before it hangs ...
  int nCount;    // ... and how often
};
Phase const kPhases[] = {
    {"silent-connect", 80, Sending, INTERNET_STATUS_CONNECTING_TO_SERVER, 1},
    {"silent-tls", 443, Sending, INTERNET_STATUS_CONNECTED_TO_SERVER, 1},
    {"silent-reply", 80, Sending, INTERNET_STATUS_RECEIVING_RESPONSE, 1},
    {"silent-reply --tls good", 443, Sending, INTERNET_STATUS_RECEIVING_RESPONSE, 1},
    {"silent-body --body 'hello world'", 80, Reading, INTERNET_STATUS_RESPONSE_RECEIVED, 1},
    {"stall --window 4096", 80, Filling, INTERNET_STATUS_SENDING_REQUEST, 3},
    {"stall --window 4096 --tls good", 443, Filling, INTERNET_STATUS_SENDING_REQUEST, 3},
};

/// Runs an exchange that the peer lets hang; returns the error that ended it.
DWORD GoThrough(Client &client, Doing doing) {
  DWORD dwError = doing == Filling ? client.Begin(0xFFFFFFFF) : client.Send();
  std::string bytes(1 << 20, 'b');
  while (dwError == 0 && doing != Sending)
    dwError = doing == Filling ? client.Write(bytes) : client.Read(bytes, 100);
  return dwError;
}

TEST(HttpFaults, ClosingEndsABlockedCall) {
  int nTurn = 0;
  for (Phase const &phase : kPhases) {
    Peer peer(phase.szScenario);
    for (int n = 0; n < 2; ++n) {
      Client client(phase.nPort);
      auto call = std::async(std::launch::async, [&] { return GoThrough(client, phase.doing); });
      EXPECT_TRUE(WaitFor([&] { return client.stages.Count(phase.dwStage) >= phase.nCount; })) << phase.szScenario;
      HINTERNET const handles[] = {client.request, client.connection, client.session};
      EXPECT_TRUE(InternetCloseHandle(handles[nTurn++ % 3]));
      ASSERT_EQ(std::future_status::ready, call.wait_for(std::chrono::seconds(10))) << phase.szScenario;
      DWORD const dwError = call.get();
      bool const wasBetweenCalls = phase.doing != Sending && dwError == ERROR_INVALID_HANDLE;
      EXPECT_TRUE(dwError == 12017 || wasBetweenCalls) << phase.szScenario << dwError;
      EXPECT_EQ(6u, Error(InternetCloseHandle(client.request)));
    }
  }
}

/// Gives every connected socket of this process a small send buffer.
void NarrowSendBuffers() {
  int const nBytes = 40'000;
  sockaddr_storage peer;
  for (int fd = 3; fd < 256; ++fd)
    if (socklen_t size = sizeof peer; getpeername(fd, reinterpret_cast<sockaddr *>(&peer), &size) == 0)
      setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &nBytes, sizeof nBytes);
}

TEST(HttpFaults, SlowReaderOfALargeBlockIsProgress) {
  for (std::string const tls : {"", " --tls good"}) {
    Peer peer("sip --window 8192 --pause 0.02" + tls);
    Client client(tls.empty() ? 80 : 443);
    client.stages.onStage = [](DWORD dwStatus) {
      if (dwStatus == INTERNET_STATUS_CONNECTED_TO_SERVER)
        NarrowSendBuffers();
    };
    ASSERT_EQ(0u, client.Begin(1 << 20));
    std::uint64_t uNow = 1'000'000;
    DrivenClock const clock([&] { return uNow += 500; });
    EXPECT_EQ(0u, client.Write(std::string(400'000, 'b'))) << "after " << uNow - 1'000'000 << " ms";
    EXPECT_GT(uNow, 1'000'000u + 60'000u) << "longer than any limit without progress";
  }
}

TEST(HttpFaults, ReplyTimeLimitLeavesOutTheCallersPauses) {
  Peer peer("trickle --fill 40 --pause 0.02");
  Client client(80);
  ASSERT_EQ(0u, client.Send());
  std::uint64_t uBase = 1'000'000;
  int nLooks = 0, nCalls = 0;
  DrivenClock const clock([&] { return nLooks++ == 0 ? uBase : uBase + 19'000; }); // each call waits 19 s
  std::string byte;
  for (DWORD dwError = 0; dwError == 0; ++nCalls) {
    uBase += 600'000; // the caller's pause
    nLooks = 0;
    dwError = client.Read(byte, 1);
    EXPECT_TRUE(dwError == 0 || dwError == 12002) << dwError;
  }
  EXPECT_EQ(300 / 19 + 1, nCalls);
}

} // namespace
