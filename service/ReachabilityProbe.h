// The bounded probe: opens a URL on a helper thread and finds out within about 5.5 seconds whether anything answers.
// Runs on the calling thread and its helper. Knows nothing of Python.
#pragma once

#include "platform/http/WinInet.h"

#include <atomic>

/// References to the members of the owner where the probe keeps its state and its result. An owner runs one probe at a
/// time.
struct ReachabilityProbe {
  std::atomic<HINTERNET> &m_hInternet;   ///< The probe's session; null while no probe runs.
  std::atomic<HINTERNET> &m_hConnect;    ///< The handle of the URL; null while no probe runs.
  std::atomic<BOOL> &m_bServerReachable; ///< The answer of the last probe.
  char (&m_szChkServerUrl)[_MAX_PATH];   ///< The URL of the last probe.

  /// Blocks for at most 11 waits of 500 ms and the time that the helper thread then takes to end. Returns: TRUE as soon
  /// as the server answers, with whatever status; FALSE on failure, on time-out and for a URL of 260 bytes or more. If
  /// no thread can be started, the previous result.
  BOOL CheckServerReachable(char const *szUrl);
  /// The body of the helper thread. `pArg` is the probe. Returns: exit code 0.
  static unsigned __stdcall ReachabilityThreadProc(void *pArg);
};
