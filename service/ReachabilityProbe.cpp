// A handle is taken out by an atomic exchange before it is closed, so that the helper thread and the waiter never both
// close it.
#include "service/ReachabilityProbe.h"

#include "framework/Handles.h"
#include "platform/system/Threads.h"

#include <cstring>

namespace {

constexpr int kWaits = 11;
constexpr DWORD kWait = 500; // ms

} // namespace

void ProbeHandle::Set(HINTERNET hOpened) {
  m_hOpened = hOpened;
  m_shown = hOpened;
}

void ProbeHandle::Close() {
  HINTERNET const hOpened = m_hOpened.exchange(nullptr);
  if (!hOpened)
    return;
  HINTERNET hShown = hOpened;
  m_shown.compare_exchange_strong(hShown, nullptr);
  InternetCloseHandle(hOpened);
}

BOOL ReachabilityProbe::CheckServerReachable(char const *szUrl) {
  if (std::strlen(szUrl) >= _MAX_PATH)
    return FALSE;
  m_szUrl = szUrl;
  unsigned uThreadId = 0;
  KernelHandle const hThread(
      reinterpret_cast<HANDLE>(_beginthreadex(nullptr, 0, ReachabilityThreadProc, this, 0, &uThreadId)));
  if (!hThread)
    return m_bServerReachable;
  int nWaits = 0;
  while (nWaits < kWaits && WaitForSingleObject(hThread.get(), kWait) == WAIT_TIMEOUT)
    ++nWaits;
  if (nWaits == kWaits) {
    m_connect.Close(); // ends the call in which the thread is blocked
    m_internet.Close();
    WaitForSingleObject(hThread.get(), INFINITE);
  }
  return m_bAnswer;
}

unsigned __stdcall ReachabilityProbe::ReachabilityThreadProc(void *pArg) {
  ReachabilityProbe &probe = *static_cast<ReachabilityProbe *>(pArg);
  probe.Answer(FALSE);
  HINTERNET const hInternet =
      InternetOpenA("Microsoft Internet Explorer", INTERNET_OPEN_TYPE_PRECONFIG, nullptr, nullptr, 0);
  probe.m_internet.Set(hInternet);
  if (!hInternet)
    return 0;
  HINTERNET const hConnect = InternetOpenUrlA(hInternet, probe.m_szUrl, nullptr, 0, INTERNET_FLAG_RELOAD, 0);
  probe.m_connect.Set(hConnect);
  if (hConnect)
    probe.Answer(TRUE);
  probe.m_connect.Close();
  probe.m_internet.Close();
  return 0;
}
