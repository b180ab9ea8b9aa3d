// The bounded probe: opens a URL on a helper thread and tells within some 5.5 seconds whether anything answered.
// Knows nothing of Python.
#pragma once

#include "platform/http/WinInet.h"

#include <atomic>

/// The probe's place in its owner: what it leaves there and what its two threads share. The owner has one probe at a
/// time.
struct ReachabilityProbe {
  std::atomic<HINTERNET> &m_hInternet;   ///< The probe's session; null at all other times.
  std::atomic<HINTERNET> &m_hConnect;    ///< The URL that it opened; null at all other times.
  std::atomic<BOOL> &m_bServerReachable; ///< The answer of the last probe.
  char (&m_szChkServerUrl)[_MAX_PATH];   ///< The URL of the last probe.

  /// Returns: TRUE as soon as the server answered with any status; FALSE on failure, or after 11 waits of 500 ms and
  /// the time that the helper thread takes to end; FALSE for a URL of 260 bytes or more. If the thread can't be had:
  /// the last answer. A wait that fails ends the probe with the answer as it is; the thread then ends on its own.
  BOOL CheckServerReachable(char const *szUrl);
  /// The helper thread's body; `pArg` is what CheckServerReachable shares with it. Exit code 0.
  static unsigned ReachabilityThreadProc(void *pArg);
};
