// The service exchange and the probe: outcomes that Python can't provoke, and who closes the probe's handles.
#include "service/ReachabilityProbe.h"
#include "service/ServiceExchange.h"
#include "tests/cpp/platform/TestHooks.h"
#include "tests/cpp/platform/http/http_peer.h"
#include "tests/cpp/platform/text/thread_locale.h"

#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <thread>

namespace {

// Makes the named call fail while it lives.
class Fault {
public:
  Fault(FaultPoint point, DWORD dwError) {
    m_hooks.fault = [point, dwError](FaultPoint call, DWORD *pdwError) {
      *pdwError = dwError;
      return call == point;
    };
    SetPlatformTestHooks(&m_hooks);
  }
  ~Fault() { SetPlatformTestHooks(nullptr); }

private:
  PlatformTestHooks m_hooks;
};

struct Outcome {
  DWORD dwError;
  BOOL bSent;
  std::string strReply;
  bool operator==(Outcome const &) const = default;
};

Outcome Exchange(RequestKind kind, std::wstring const &object = L"/x", wchar_t const *wszHost = L"good.test") {
  Outcome outcome = {};
  outcome.dwError = RunExchange(kind, [&](ServiceExchange &exchange) {
    outcome.bSent = exchange.Send(wszHost, object.c_str(), "");
    outcome.strReply = exchange.ReadReply();
  });
  return outcome;
}

TEST(ServiceExchange, DistinguishesItsOutcomes) {
  Peer const peer("reply --body '<a/>'");
  struct Case {
    FaultPoint call;
    DWORD dwError;
    Outcome outcome;
  };
  Case const cases[] = {
      {FaultPoint::InternetOpenW, 1450, {1450, 0, ""}},
      {FaultPoint::InternetConnectW, 12005, {12005, 0, ""}},
      {FaultPoint::HttpOpenRequestW, 12005, {12005, 0, ""}},
      {FaultPoint::HttpSendRequestW, 12002, {12002, 0, ""}},
      {FaultPoint::HttpSendRequestW, 0, {12019, 0, ""}},
      {FaultPoint::InternetQueryDataAvailable, 12002, {0, 1, ""}},
      {FaultPoint::InternetReadFile, 12031, {12031, 1, ""}},
  };
  for (Case const &c : cases) {
    Fault const fault(c.call, c.dwError);
    EXPECT_EQ(Exchange(RequestKind::PresetCategories), c.outcome) << static_cast<int>(c.call);
  }
  EXPECT_EQ(Exchange(RequestKind::PresetCategories, std::wstring(255, L'/')), (Outcome{12005, 0, ""}));
  EXPECT_EQ(Exchange(RequestKind::PresetCategories, std::wstring(254, L'/')), (Outcome{0, 1, "<a/>"}));
}

TEST(ServiceExchange, RefusesTextThatWouldBreakTheRequestsHead) {
  Peer const peer("reply");
  for (std::wstring const text : {L"good.test\r\nX: y", L"\n", L"good.test\t", L"good.test\x1F", L"good.test\x7F"}) {
    EXPECT_EQ(Exchange(RequestKind::PresetCategories, L"/x?" + text), (Outcome{12005, 0, ""}));
    EXPECT_EQ(Exchange(RequestKind::PresetCategories, L"/x", text.c_str()), (Outcome{12005, 0, ""}));
  }
  EXPECT_EQ(peer.Received(), "");
}

TEST(ServiceExchange, NarrowsTheObjectNameInTheThreadsCodePage) {
  ThreadLocale const locale("ISO-8859-1");
  if (!locale)
    GTEST_SKIP() << "no character maps here (Debian package locales)";
  Peer const peer("reply");
  EXPECT_EQ(Exchange(RequestKind::EffectByGuid, L"/x?\u00E4\u4E2D").dwError, 0u);
  EXPECT_TRUE(peer.Received().starts_with("POST /x?\xE4? HTTP/1.1\r\n")) << peer.Received();
}

class ProbeTest : public ::testing::Test {
protected:
  std::atomic<HINTERNET> m_hInternet = nullptr;
  std::atomic<HINTERNET> m_hConnect = nullptr;
  std::atomic<BOOL> m_bReachable = FALSE;
  ReachabilityProbe probe = {m_hInternet, m_hConnect, m_bReachable};
};

TEST_F(ProbeTest, CountsAnyAnswerAsReachable) {
  for (char const *szStatus : {"200", "302", "500"}) {
    Peer const peer("reply --tls good --status " + std::string(szStatus));
    EXPECT_TRUE(probe.CheckServerReachable("https://good.test"));
    EXPECT_FALSE(m_hInternet || m_hConnect) << "both are closed and reset";
  }
  {
    Fault const fault(FaultPoint::_beginthreadex, 8);
    EXPECT_TRUE(probe.CheckServerReachable("https://good.test")) << "the previous result stands";
  }
  {
    Fault const fault(FaultPoint::InternetOpenA, 8);
    EXPECT_FALSE(probe.CheckServerReachable("https://good.test"));
  }
  EXPECT_FALSE(probe.CheckServerReachable(("https://" + std::string(260, 'h')).c_str()));
}

} // namespace
