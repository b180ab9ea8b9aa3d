#include "platform/http/SocketTuning.h"

#include <algorithm>
#include <atomic>
#include <climits>
#include <cstdint>

#include <linux/tcp.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#ifndef SO_BUF_LOCK
#define SO_BUF_LOCK 72
#endif

namespace {

constexpr std::uint64_t kReserve = 100'000; // µs that the buffer is to last: a pause, and reading the next block
constexpr std::uint64_t kSecond = 1'000'000;

/// The size as the kernel counts it: data and its own overhead, by its convention twice what can be set.
int SendBufferSize(int fd) {
  int size = 0;
  socklen_t length = sizeof size;
  return getsockopt(fd, SOL_SOCKET, SO_SNDBUF, &size, &length) == 0 ? size : 0;
}

/// Sets the size, and lets the kernel go on widening it. Returns: false if the kernel can't.
bool SetSendBufferSize(int fd, int size) {
  int const unlocked = 0;
  return setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &size, sizeof size) == 0 &&
         setsockopt(fd, SOL_SOCKET, SO_BUF_LOCK, &unlocked, sizeof unlocked) == 0;
}

/// The largest size that can be set; 0 if setting one would stop the kernel from widening it. Found out with a socket
/// of its own, and remembered.
int LargestSize() {
  static std::atomic<int> s_largest = -1;
  if (s_largest < 0) {
    int const fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0)
      return 0; // no descriptor is left; the next call tries again
    s_largest = SetSendBufferSize(fd, INT_MAX / 2) ? SendBufferSize(fd) / 2 : 0;
    close(fd);
  }
  return s_largest;
}

} // namespace

void WidenSendBuffer(int fd) {
  tcp_info info{};
  socklen_t length = sizeof info;
  if (getsockopt(fd, IPPROTO_TCP, TCP_INFO, &info, &length) != 0)
    return;
  std::uint64_t const lasting = info.tcpi_delivery_rate * (kReserve + info.tcpi_min_rtt) / kSecond;
  auto const wanted = static_cast<int>(std::min<std::uint64_t>(lasting, static_cast<std::uint64_t>(LargestSize())));
  if (wanted > SendBufferSize(fd) / 2)
    SetSendBufferSize(fd, wanted);
}

void PaceSending(int fd) {
  unsigned const noLimit = UINT_MAX - 1; // bytes per second; setting any but UINT_MAX turns pacing on
  setsockopt(fd, SOL_SOCKET, SO_MAX_PACING_RATE, &noLimit, sizeof noLimit);
}
