#include "platform/http/WaitLimits.h"

#include "platform/base/Seam.h"

#include <algorithm>

#include <linux/sockios.h>
#include <linux/tcp.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

void AddSocketProgress(int fd, Progress &progress) {
  int unacked = 0;
  if (ioctl(fd, SIOCOUTQ, &unacked) == 0) // first: what is acknowledged in between then counts twice, not never
    progress.unacked = static_cast<std::uint64_t>(unacked);
  tcp_info info{};
  socklen_t size = sizeof info;
  if (getsockopt(fd, IPPROTO_TCP, TCP_INFO, &info, &size) == 0) {
    progress.acked = info.tcpi_bytes_acked;
    progress.received += info.tcpi_bytes_received;
  }
}

WaitLimits::WaitLimits(Kind kind, TimeLimits const &limits, Progress const &progress, std::uint64_t &replyWait,
                       bool isStreamed)
    : m_isReceiving(kind == Kind::Receive), m_isStreamed(isStreamed), m_limits(limits), m_replyWait(replyWait),
      m_begin(SteadyMilliseconds()), m_moved(m_begin), m_ackLimit(progress.acked + progress.unacked),
      m_progress(progress) {}

WaitLimits::~WaitLimits() {
  if (m_isReceiving)
    m_replyWait += SteadyMilliseconds() - m_begin;
}

std::uint64_t WaitLimits::Left(Progress progress, bool isConnecting) {
  std::uint64_t const now = SteadyMilliseconds();
  if (m_isReceiving) {
    // What a peer makes TLS answer is no progress. While sending, the answers queue up after the body, and libcurl
    // reports a block only when all of it is out: there every acknowledgement counts.
    if (progress.queued != m_progress.queued)
      m_ackLimit = progress.acked + progress.unacked;
    progress.acked = std::min(progress.acked, m_ackLimit);
  }
  bool const isSending = progress.queued != m_progress.queued || progress.acked != m_progress.acked;
  if (isSending || (m_isReceiving && progress.received != m_progress.received))
    m_moved = now;
  if (m_isReceiving && m_isStreamed && isSending)
    m_begin = now; // what the system had buffered of the request still goes out
  m_progress = progress;
  auto const left = [now](std::uint64_t since, std::uint64_t limit) { return limit - std::min(now - since, limit); };
  if (isConnecting)
    return left(m_begin, m_limits.connect);
  if (!m_isReceiving)
    return left(m_moved, m_limits.send);
  std::uint64_t const spent = std::min(m_replyWait, kReplyLimit);
  return std::min(left(m_moved, kReceiveLimit), left(m_begin, kReplyLimit - spent));
}
