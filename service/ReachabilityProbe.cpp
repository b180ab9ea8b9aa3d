// See ReachabilityProbe.h. A handle is taken out of its member by an atomic exchange before it is closed, so that the
// helper thread and the waiter never both close it. The thread accesses the probe only through a ProbeRun that it
// shares with the waiter: a waiter whose wait fails detaches the probe, and the thread then uses only what it owns.
#include "service/ReachabilityProbe.h"

#include "platform/system/Threads.h"

#include <cstring>
#include <memory>
#include <mutex>
#include <new>

namespace {

constexpr int kWaits = 11;
constexpr DWORD kWait = 500; // ms

class ProbeRun {
public:
  explicit ProbeRun(ReachabilityProbe &probe) : m_pProbe(&probe) {
    std::memcpy(szUrl, probe.m_szChkServerUrl, sizeof szUrl);
  }
  /// Calls `work` with the probe, under the lock. Returns: false, without a call, once the waiter has left.
  template <class Work> bool WithProbe(Work work) {
    std::lock_guard<std::mutex> const lock(m_mutex);
    if (m_pProbe)
      work(*m_pProbe);
    return m_pProbe != nullptr;
  }
  void LeaveProbe() {
    std::lock_guard<std::mutex> const lock(m_mutex);
    m_pProbe = nullptr;
  }

  char szUrl[_MAX_PATH];

private:
  std::mutex m_mutex;
  ReachabilityProbe *m_pProbe; // null once the waiter has left
};

void CloseTaken(std::atomic<HINTERNET> &handle) {
  if (HINTERNET const h = handle.exchange(nullptr))
    InternetCloseHandle(h);
}

void CloseBoth(ReachabilityProbe &probe) {
  CloseTaken(probe.m_hConnect);
  CloseTaken(probe.m_hInternet);
}

// Returns: null if no thread can be started.
HANDLE StartThread(std::shared_ptr<ProbeRun> const &run) {
  auto pThreadsRun = std::make_unique<std::shared_ptr<ProbeRun>>(run);
  unsigned uThreadId = 0;
  auto const hThread = reinterpret_cast<HANDLE>(
      _beginthreadex(nullptr, 0, ReachabilityProbe::ReachabilityThreadProc, pThreadsRun.get(), 0, &uThreadId));
  if (hThread)
    static_cast<void>(pThreadsRun.release()); // owned by the thread now
  return hThread;
}

} // namespace

BOOL ReachabilityProbe::CheckServerReachable(char const *szUrl) try {
  std::size_t const cb = std::strlen(szUrl) + 1;
  if (cb > sizeof m_szChkServerUrl)
    return FALSE;
  std::memcpy(m_szChkServerUrl, szUrl, cb);

  auto const run = std::make_shared<ProbeRun>(*this);
  HANDLE const hThread = StartThread(run);
  if (!hThread)
    return m_bServerReachable;
  int nWaits = 0;
  while (nWaits < kWaits && WaitForSingleObject(hThread, kWait) == WAIT_TIMEOUT)
    ++nWaits;
  if (nWaits == kWaits) {
    CloseBoth(*this); // ends the call in which the thread is blocked
    WaitForSingleObject(hThread, INFINITE);
  }
  CloseHandle(hThread);
  run->LeaveProbe(); // the thread has ended by now, unless a wait failed
  CloseBoth(*this);
  return m_bServerReachable;
} catch (std::bad_alloc const &) {
  return m_bServerReachable; // as without a thread
}

unsigned __stdcall ReachabilityProbe::ReachabilityThreadProc(void *pArg) {
  std::unique_ptr<std::shared_ptr<ProbeRun>> const owner(static_cast<std::shared_ptr<ProbeRun> *>(pArg));
  ProbeRun &run = **owner;
  run.WithProbe([](ReachabilityProbe &probe) {
    probe.m_bServerReachable = FALSE;
    probe.m_hConnect = nullptr;
    probe.m_hInternet = nullptr;
  });
  HINTERNET const hInternet =
      InternetOpenA("Microsoft Internet Explorer", INTERNET_OPEN_TYPE_PRECONFIG, nullptr, nullptr, 0);
  if (!hInternet)
    return 0;
  if (!run.WithProbe([hInternet](ReachabilityProbe &probe) { probe.m_hInternet = hInternet; })) {
    InternetCloseHandle(hInternet);
    return 0;
  }
  HINTERNET const hConnect = InternetOpenUrlA(hInternet, run.szUrl, nullptr, 0, INTERNET_FLAG_RELOAD, 0);
  bool const bTaken = run.WithProbe([hConnect](ReachabilityProbe &probe) {
    probe.m_hConnect = hConnect;
    if (hConnect) // an answer, even if the waiter closes it before this thread does
      probe.m_bServerReachable = TRUE;
    CloseBoth(probe);
  });
  if (!bTaken && hConnect)
    InternetCloseHandle(hConnect); // the waiter has closed the session
  return 0;
}
