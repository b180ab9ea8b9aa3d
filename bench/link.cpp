// A line between two network namespaces: `link MBIT DELAY_MS QUEUE_KIB` makes two of its own, with the addresses
// 10.99.0.1 (client) and 10.99.0.2 (server), and carries the packets from one to the other at the rate of the line,
// each way with half the round trip of DELAY_MS; a packet that finds more than QUEUE_KIB waiting is dropped. Prints the
// two namespaces as paths for nsenter, one per line, and exits when standard input closes. Needs root.
#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <string>
#include <thread>

#include <fcntl.h>
#include <linux/if.h>
#include <linux/if_tun.h>
#include <poll.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <unistd.h>

namespace {

using Clock = std::chrono::steady_clock;

constexpr Clock::duration kBatch = std::chrono::microseconds(50); ///< what it may be late; waking up for each is costly

struct Line {
  double bytesPerSecond;
  Clock::duration delay; ///< one way
  double queueBytes;
};

struct Packet {
  Clock::time_point due;
  std::size_t size;
  std::array<char, 1600> bytes;
};

[[noreturn]] void Die(char const *what) {
  std::perror(what);
  std::exit(1);
}

/// Moves this process into a namespace of its own, with one interface. Returns: the interface's descriptor.
int OpenEnd(char const *address) {
  if (unshare(CLONE_NEWNET) != 0)
    Die("link: no network namespace");
  int const fd = open("/dev/net/tun", O_RDWR | O_NONBLOCK | O_CLOEXEC);
  ifreq request{};
  request.ifr_flags = IFF_TUN | IFF_NO_PI;
  std::strcpy(request.ifr_name, "line");
  if (fd < 0 || ioctl(fd, TUNSETIFF, &request) != 0)
    Die("link: no TUN device");
  // The congestion control that most senders have, whatever this machine's own.
  std::string const command = std::string("ip link set lo up && ip link set line mtu 1500 txqueuelen 10000 up && ") +
                              "ip address add " + address + "/24 dev line && " +
                              "ip route replace 10.99.0.0/24 dev line src " + address + " congctl cubic";
  if (std::system(command.c_str()) != 0)
    Die("link: ip");
  return fd;
}

/// Carries packets one way. The thread sleeps until the first that waits is due, or until one arrives.
void Carry(Line line, int from, int to) {
  // A packet counts as arrived when it is read. So the line precedes the programs that it joins: if it had to wait for
  // a processor, it would find a burst where none was sent, and drop packets.
  sched_param const first = {1};
  if (sched_setscheduler(0, SCHED_FIFO, &first) != 0)
    Die("link: no real-time priority");
  std::deque<Packet> waiting;
  Clock::time_point isFree = Clock::now(); // when the line has sent all that was given to it
  for (;;) {
    while (!waiting.empty() && waiting.front().due <= Clock::now()) {
      if (write(to, waiting.front().bytes.data(), waiting.front().size) < 0 && errno == EAGAIN)
        break;
      waiting.pop_front();
    }
    auto const pause = waiting.empty()
                           ? std::chrono::nanoseconds(std::chrono::seconds(1))
                           : std::max<std::chrono::nanoseconds>(waiting.front().due + kBatch - Clock::now(), {});
    timespec const timeout = {pause.count() / 1'000'000'000, pause.count() % 1'000'000'000};
    pollfd entry = {from, POLLIN, 0};
    ppoll(&entry, 1, &timeout, nullptr);
    Packet packet;
    for (ssize_t size; (size = read(from, packet.bytes.data(), packet.bytes.size())) > 0;) {
      auto const now = Clock::now();
      isFree = std::max(isFree, now);
      if (std::chrono::duration<double>(isFree - now).count() * line.bytesPerSecond > line.queueBytes)
        continue;
      packet.size = static_cast<std::size_t>(size);
      isFree += std::chrono::duration_cast<Clock::duration>(
          std::chrono::duration<double>(static_cast<double>(size) / line.bytesPerSecond));
      packet.due = isFree + line.delay;
      waiting.push_back(packet);
      if (waiting.front().due <= now)
        break;
    }
  }
}

} // namespace

int main(int argc, char **argv) {
  if (argc != 4)
    return 2;
  auto const delay = std::chrono::duration<double, std::milli>(std::atof(argv[2]) / 2);
  Line const line = {std::atof(argv[1]) * 1e6 / 8, std::chrono::duration_cast<Clock::duration>(delay),
                     std::atof(argv[3]) * 1024};
  int ends[2];
  char const *const addresses[] = {"10.99.0.1", "10.99.0.2"};
  for (int end = 0; end < 2; ++end) {
    ends[end] = OpenEnd(addresses[end]);
    std::printf("/proc/%d/fd/%d\n", getpid(), open("/proc/self/ns/net", O_RDONLY));
  }
  std::fflush(stdout);
  std::thread(Carry, line, ends[0], ends[1]).detach();
  std::thread(Carry, line, ends[1], ends[0]).detach();
  while (std::getchar() != EOF) {
  }
  std::_Exit(0);
}
