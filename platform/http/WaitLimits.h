// How long a call may wait for the peer: the time limits of HttpRequest.h, and what counts as progress. Runs on the
// thread that makes the call. It knows nothing of libcurl.
#pragma once

#include "platform/http/HttpRequest.h"

#include <cstdint>

/// What a connection has moved so far, in bytes.
struct Progress {
  std::uint64_t queued = 0;  ///< of the request, to the system
  std::uint64_t acked = 0;   ///< by the peer's system, encryption and handshake included
  std::uint64_t unacked = 0; ///< handed to the system, not acknowledged yet
  std::uint64_t received = 0;
};

/// Adds the socket's own counters: libcurl counts a block as sent only when all of it is out, which takes long on a
/// slow line, and what the system has buffered of the body takes longer still.
void AddSocketProgress(int fd, Progress &progress);

/// Watches one wait: how long it lasts, and how long nothing has moved.
class WaitLimits {
public:
  enum class Kind { Send, Receive };

  /// `replyWait` counts the ms that a transfer's calls have waited for the reply; a Receive wait is added when it ends.
  /// A Send wait needs no progress to begin with, since most sends end before the first look.
  WaitLimits(Kind kind, TimeLimits const &limits, Progress const &progress, std::uint64_t &replyWait, bool isStreamed);
  ~WaitLimits();
  WaitLimits(WaitLimits const &) = delete;
  WaitLimits &operator=(WaitLimits const &) = delete;

  /// Milliseconds that the wait may still last; 0 when its time is up.
  std::uint64_t Left(Progress progress, bool isConnecting);

private:
  bool const m_isReceiving;
  bool const m_isStreamed; ///< what the system has buffered of the body may take longer than a reply
  TimeLimits const m_limits;
  std::uint64_t &m_replyWait;
  std::uint64_t m_begin;
  std::uint64_t m_moved;    ///< when something moved last
  std::uint64_t m_ackLimit; ///< acknowledgements count up to here while receiving
  Progress m_progress;      ///< as of the last look
};
