// See ReachabilityProbe.h. Each handle is taken out of its place by one exchange before it is closed, so that the
// helper thread and the waiter never both close it.
#include "service/ReachabilityProbe.h"

#include "platform/Threads.h"

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
  int nWaits = 0;
  while (nWaits < kWaits && WaitForSingleObject(hThread, kWait) == WAIT_TIMEOUT)
    ++nWaits;
  if (nWaits == kWaits) {
    CloseTaken(m_hConnect);
    CloseTaken(m_hInternet); // ends the thread's blocked call
    WaitForSingleObject(hThread, INFINITE);
  }
  CloseHandle(hThread);
  return m_bServerReachable;
}

unsigned ReachabilityProbe::ReachabilityThreadProc(void *pArg) {
  auto *const pProbe = static_cast<ReachabilityProbe *>(pArg);
  pProbe->m_bServerReachable = FALSE;
  pProbe->m_hConnect = nullptr;
  pProbe->m_hInternet = nullptr;
  HINTERNET const hInternet =
      InternetOpenA("Microsoft Internet Explorer", INTERNET_OPEN_TYPE_PRECONFIG, nullptr, nullptr, 0);
  if (!hInternet)
    return 0;
  pProbe->m_hInternet = hInternet;
  pProbe->m_hConnect = InternetOpenUrlA(hInternet, pProbe->m_szChkServerUrl, nullptr, 0, INTERNET_FLAG_RELOAD, 0);
  if (HINTERNET const hConnect = pProbe->m_hConnect.exchange(nullptr)) {
    pProbe->m_bServerReachable = TRUE;
    InternetCloseHandle(hConnect);
  }
  CloseTaken(pProbe->m_hInternet);
  return 0;
}
