// See ReachabilityProbe.h. A handle is taken out of its member by an atomic exchange before it is closed, so that the
// helper thread and the waiter never both close it.
#include "service/ReachabilityProbe.h"

#include "platform/system/Threads.h"

#include <cstring>

namespace {

constexpr int kWaits = 11;
constexpr DWORD kWait = 500; // ms

void CloseTaken(std::atomic<HINTERNET> &handle) {
  if (HINTERNET const h = handle.exchange(nullptr))
    InternetCloseHandle(h);
}

} // namespace

BOOL ReachabilityProbe::CheckServerReachable(char const *szUrl) {
  std::size_t const cb = std::strlen(szUrl) + 1;
  if (cb > sizeof m_szChkServerUrl)
    return FALSE;
  std::memcpy(m_szChkServerUrl, szUrl, cb);

  unsigned uThreadId = 0;
  auto const hThread =
      reinterpret_cast<HANDLE>(_beginthreadex(nullptr, 0, ReachabilityThreadProc, this, 0, &uThreadId));
  if (!hThread)
    return m_bServerReachable;
  int nWaits = 0;
  while (nWaits < kWaits && WaitForSingleObject(hThread, kWait) == WAIT_TIMEOUT)
    ++nWaits;
  if (nWaits == kWaits) {
    CloseTaken(m_hConnect); // ends the call in which the thread is blocked
    CloseTaken(m_hInternet);
    WaitForSingleObject(hThread, INFINITE);
  }
  CloseHandle(hThread);
  return m_bServerReachable;
}

unsigned __stdcall ReachabilityProbe::ReachabilityThreadProc(void *pArg) {
  ReachabilityProbe &probe = *static_cast<ReachabilityProbe *>(pArg);
  probe.m_bServerReachable = FALSE;
  probe.m_hConnect = nullptr;
  HINTERNET const hInternet =
      InternetOpenA("Microsoft Internet Explorer", INTERNET_OPEN_TYPE_PRECONFIG, nullptr, nullptr, 0);
  probe.m_hInternet = hInternet;
  if (!hInternet)
    return 0;
  HINTERNET const hConnect = InternetOpenUrlA(hInternet, probe.m_szChkServerUrl, nullptr, 0, INTERNET_FLAG_RELOAD, 0);
  probe.m_hConnect = hConnect;
  if (hConnect)
    probe.m_bServerReachable = TRUE;
  CloseTaken(probe.m_hConnect);
  CloseTaken(probe.m_hInternet);
  return 0;
}
