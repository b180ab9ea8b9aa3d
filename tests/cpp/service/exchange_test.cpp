// The service exchange and the probe: outcomes that Python can't provoke, and who closes the probe's handles.
#include "service/ReachabilityProbe.h"
#include "service/ServiceExchange.h"
#include "tests/cpp/platform/TestHooks.h"
#include "tests/cpp/platform/http/http_peer.h"

static PlatformTestHooks Fault(FaultPoint point, DWORD dwError) {
  return {.fault = [=](FaultPoint call, DWORD *pdwError) { return *pdwError = dwError, call == point; }};
}

// The outcome as text: error number, whether the request was sent, and the reply.
static std::string Exchange(RequestKind kind, std::wstring const &object = L"/x",
                            std::wstring const &host = L"good.test") {
  std::string strReply = " 0 ";
  DWORD const dwError = RunExchange(kind, [&](ServiceExchange &exchange) {
    strReply = exchange.Send(host.c_str(), object.c_str(), "") ? " 1 " : " 0 ";
    strReply += exchange.ReadReply();
  });
  return std::to_string(dwError) + strReply;
}

TEST(ServiceExchange, DistinguishesItsOutcomes) {
  using enum FaultPoint;
  Peer const peer("reply --body '<a/>'");
  for (std::wstring const text : {L"good.test\r\nX: y", L"\n", L"good.test\t", L"good.test\x1F", L"good.test\x7F"})
    EXPECT_EQ(Exchange(RequestKind::PresetCategories, L"/x?" + text) + Exchange(RequestKind::Login, L"/x", text),
              "12005 0 12005 0 ");
  EXPECT_EQ(peer.Received(), "") << "what would break the request's head is refused";
  std::tuple<FaultPoint, DWORD, char const *> const rows[] = {
      {InternetOpenW, 1450, "1450 0 "},      {InternetConnectW, 12005, "12005 0 "},
      {HttpOpenRequestW, 12005, "12005 0 "}, {HttpSendRequestW, 12002, "12002 0 "},
      {HttpSendRequestW, 0, "12019 0 "},     {InternetQueryDataAvailable, 12002, "0 1 "},
      {InternetReadFile, 12031, "12031 1 "}};
  for (auto const &[call, dwError, szOutcome] : rows) {
    ScopedTestHooks const hooks(Fault(call, dwError));
    EXPECT_EQ(Exchange(RequestKind::PresetCategories), szOutcome) << static_cast<int>(call);
  }
}

TEST(ServiceExchange, NarrowsTheObjectNameInTheThreadsCodePage) {
  auto const locale = UseLocale("ISO-8859-1");
  if (!locale)
    GTEST_SKIP() << "no character maps here (Debian package locales)";
  Peer const peer("reply");
  EXPECT_EQ(Exchange(RequestKind::EffectByGuid, L"/x?\u00E4\u4E2D"), "0 1 ");
  EXPECT_TRUE(peer.Received().starts_with("POST /x?\xE4? HTTP/1.1\r\n")) << peer.Received();
}

TEST(ReachabilityProbe, CountsAnyAnswerAsReachable) {
  std::atomic<HINTERNET> hInternet = nullptr, hConnect = nullptr;
  std::atomic<BOOL> bReachable = FALSE;
  auto const probe = [&] {
    BOOL const bAnswer = ReachabilityProbe(hInternet, hConnect, bReachable).CheckServerReachable("https://good.test");
    EXPECT_FALSE(hInternet || hConnect) << "both are closed and reset";
    return bAnswer;
  };
  Peer const peer("reply --tls good --status 500");
  EXPECT_TRUE(probe() && bReachable);
  for (FaultPoint const point : {FaultPoint::_beginthreadex, FaultPoint::InternetOpenA}) { // the first changes nothing
    ScopedTestHooks const hooks(Fault(point, 8));
    EXPECT_EQ(probe(), point == FaultPoint::_beginthreadex);
  }
  EXPECT_FALSE(bReachable);
}
