// The service exchange and the probe: outcomes that Python can't provoke, and the hand-over of the probe's handles.
#include "platform/TestSeam.h"
#include "service/ReachabilityProbe.h"
#include "service/ServiceExchange.h"
#include "tests/cpp/platform/http_peer.h"

#include <gtest/gtest.h>

#include <cstring>

namespace {

// Makes the named call fail while it lives.
class Fault {
public:
  Fault(char const *szCall, DWORD dwError) {
    m_hooks.fault = [szCall, dwError](char const *szThis, DWORD *pdwError) {
      *pdwError = dwError;
      return std::strcmp(szThis, szCall) == 0;
    };
    SetPlatformTestHooks(&m_hooks);
  }
  ~Fault() { SetPlatformTestHooks(nullptr); }

private:
  PlatformTestHooks m_hooks;
};

TEST(ServiceExchange, TellsItsOutcomesApart) {
  Peer const peer("reply --body '<a/>'");
  struct Case {
    char const *szCall;
    DWORD dwError;
    ExchangeResult::Outcome outcome;
  };
  Case const cases[] = {
      {"InternetOpenW", 1450, ExchangeResult::Exception},     {"InternetConnectW", 12005, ExchangeResult::Exception},
      {"HttpOpenRequestW", 12005, ExchangeResult::Exception}, {"HttpSendRequestW", 12002, ExchangeResult::Exception},
      {"HttpSendRequestW", 0, ExchangeResult::SendRefused},   {"InternetReadFile", 12031, ExchangeResult::Exception},
  };
  for (Case const &c : cases) {
    Fault const fault(c.szCall, c.dwError);
    ExchangeResult const result = RunExchange(RequestKind::PresetCategories, L"good.test", L"/x");
    EXPECT_EQ(result.outcome, c.outcome) << c.szCall;
    EXPECT_EQ(result.dwError, c.dwError) << c.szCall;
    EXPECT_EQ(result.strReply, "");
  }
  EXPECT_EQ(RunExchange(RequestKind::PresetCategories, L"good.test", std::wstring(255, L'/').c_str()).outcome,
            ExchangeResult::Exception);
  EXPECT_EQ(RunExchange(RequestKind::PresetCategories, L"good.test", std::wstring(254, L'/').c_str()).strReply, "<a/>");
}

TEST(ServiceExchange, KeepsAMissingElementApartFromAFailedQuery) {
  CComPtr<IXMLDOMDocument> const pDocument = LoadReply("<info><a/></info>");
  CString strText(L"old");
  EXPECT_EQ(ReadElement(pDocument, L"info/d", strText), ElementState::Missing);
  EXPECT_EQ(ReadElement(nullptr, L"info/a", strText), ElementState::Missing);
  {
    Fault const fault("selectSingleNode", 0);
    EXPECT_EQ(ReadElement(pDocument, L"info/a", strText), ElementState::QueryFailed);
  }
  {
    Fault const fault("CoCreateInstance", 0);
    EXPECT_EQ(LoadReply("<info/>"), nullptr);
  }
  EXPECT_STREQ(strText, L"old");
}

class ProbeTest : public ::testing::Test {
protected:
  std::atomic<HINTERNET> m_hInternet = nullptr;
  std::atomic<HINTERNET> m_hConnect = nullptr;
  std::atomic<BOOL> m_bReachable = FALSE;
  char m_szUrl[_MAX_PATH] = {};
  ReachabilityProbe probe = {m_hInternet, m_hConnect, m_bReachable, m_szUrl};
};

TEST_F(ProbeTest, TakesAnyAnswerAsReachable) {
  for (char const *szStatus : {"200", "302", "500"}) {
    Peer const peer("reply --tls good --status " + std::string(szStatus));
    EXPECT_TRUE(probe.CheckServerReachable("https://good.test"));
    EXPECT_FALSE(m_hInternet || m_hConnect) << "both are closed and forgotten";
    EXPECT_STREQ(m_szUrl, "https://good.test");
  }
  {
    Fault const fault("_beginthreadex", 8);
    EXPECT_TRUE(probe.CheckServerReachable("https://good.test")) << "the last answer stands";
  }
  {
    Fault const fault("InternetOpenA", 8);
    EXPECT_FALSE(probe.CheckServerReachable("https://good.test"));
  }
  EXPECT_FALSE(probe.CheckServerReachable(("https://" + std::string(260, 'h')).c_str()));
}

} // namespace
