// The send buffer's size, which grows with the connection's rate and which the kernel may go on widening, and pacing.
#include "platform/http/SendBuffer.h"

#include <future>
#include <string>

#include <gtest/gtest.h>

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

int Option(int fd, int name) {
  int value = -1;
  socklen_t size = sizeof value;
  return getsockopt(fd, SOL_SOCKET, name, &value, &size) == 0 ? value : -1;
}

TEST(SendBuffer, GrowsWithTheRateAndStaysTheKernels) {
  constexpr int kBufferLock = 72; // SO_BUF_LOCK
  int const listener = socket(AF_INET, SOCK_STREAM, 0), client = socket(AF_INET, SOCK_STREAM, 0), small = 65'536;
  sockaddr_in name{};
  name.sin_family = AF_INET;
  name.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof name;
  ASSERT_EQ(0, bind(listener, reinterpret_cast<sockaddr *>(&name), size));
  ASSERT_EQ(0, listen(listener, 1));
  ASSERT_EQ(0, getsockname(listener, reinterpret_cast<sockaddr *>(&name), &size));
  ASSERT_EQ(0, connect(client, reinterpret_cast<sockaddr *>(&name), size));
  if (Option(client, kBufferLock) < 0)
    GTEST_SKIP() << "this kernel does not take sizing back";
  ASSERT_EQ(0, setsockopt(client, SOL_SOCKET, SO_SNDBUF, &small, sizeof small));
  ASSERT_EQ(1, Option(client, kBufferLock));
  auto reader = std::async(std::launch::async, [=] {
    int const server = accept(listener, nullptr, nullptr);
    std::string bytes(1 << 20, 0);
    while (read(server, bytes.data(), bytes.size()) > 0)
      continue;
    close(server);
  });
  std::string const bytes(8 << 20, 'b');
  ASSERT_EQ(static_cast<ssize_t>(bytes.size()), send(client, bytes.data(), bytes.size(), 0));
  int const narrow = Option(client, SO_SNDBUF);
  WidenSendBuffer(client);
  int const wide = Option(client, SO_SNDBUF);
  EXPECT_GT(wide, narrow); // loopback carries more in 100 ms than that
  EXPECT_EQ(0, Option(client, kBufferLock));
  WidenSendBuffer(client);
  EXPECT_GE(Option(client, SO_SNDBUF), wide);
  PaceSending(client);
  EXPECT_EQ(-2, Option(client, SO_MAX_PACING_RATE)); // any but -1: pacing is on
  WidenSendBuffer(-1);                               // no connection: nothing happens
  PaceSending(-1);
  close(client);
  reader.get();
  close(listener);
}

} // namespace
