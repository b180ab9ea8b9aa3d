// See Clock.h.
#include "platform/base/Clock.h"

#include "platform/base/Seam.h"

#include <thread>

namespace {

/// How long an idle processor may take to run a thread that is due.
constexpr std::chrono::microseconds kWakeUpTime(300);

} // namespace

DWORD GetTickCount() { return static_cast<DWORD>(SteadyMilliseconds()); }

void Sleep(DWORD dwMilliseconds) { SleepMilliseconds(dwMilliseconds); }

std::uint64_t SystemMilliseconds() {
  using namespace std::chrono;
  return static_cast<std::uint64_t>(duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count());
}

void SleepUntil(std::chrono::steady_clock::time_point deadline) {
  std::this_thread::sleep_until(deadline - kWakeUpTime);
  while (std::chrono::steady_clock::now() < deadline)
    std::this_thread::yield();
}
