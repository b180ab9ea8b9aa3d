// The bounded probe: opens a URL on a helper thread and finds out within about 5.5 seconds whether anything answers.
// Runs on the calling thread and its helper. Knows nothing of Python.
#pragma once

#include "platform/http/WinInet.h"

#include <atomic>

/// An open handle that one of two threads closes; a member of the owner shows it. An owner may run several probes at a
/// time: its member then shows the handle that was opened last.
class ProbeHandle {
public:
  explicit ProbeHandle(std::atomic<HINTERNET> &shown) : m_shown(shown) {}
  ProbeHandle(ProbeHandle const &) = delete;
  ProbeHandle &operator=(ProbeHandle const &) = delete;
  void Set(HINTERNET hOpened);
  /// Closes the handle, and clears the owner's member if it still shows it. Does nothing after the first call.
  void Close();

private:
  std::atomic<HINTERNET> m_hOpened = nullptr;
  std::atomic<HINTERNET> &m_shown;
};

class ReachabilityProbe {
public:
  /// The owner's members: the probe's session, the handle of the URL (both null while no probe runs), and the answer of
  /// the last probe. They are borrowed for the probe's life.
  ReachabilityProbe(std::atomic<HINTERNET> &hInternet, std::atomic<HINTERNET> &hConnect,
                    std::atomic<BOOL> &bServerReachable)
      : m_internet(hInternet), m_connect(hConnect), m_bServerReachable(bServerReachable) {}

  /// Call it once. Blocks for at most 11 waits of 500 ms and the time that the helper thread then takes to end.
  /// Returns: TRUE as soon as the server answers, with whatever status; FALSE on failure, on time-out and for a URL of
  /// 260 bytes or more. If no thread can be started, the previous answer.
  BOOL CheckServerReachable(char const *szUrl);
  /// The body of the helper thread. `pArg` is the probe. Returns: exit code 0.
  static unsigned __stdcall ReachabilityThreadProc(void *pArg);

private:
  void Answer(BOOL bReachable) { m_bServerReachable = m_bAnswer = bReachable; }

  ProbeHandle m_internet;
  ProbeHandle m_connect;
  std::atomic<BOOL> &m_bServerReachable;
  BOOL m_bAnswer = FALSE;        // written by the helper thread, read after its end
  char const *m_szUrl = nullptr; // borrowed for the call
};
