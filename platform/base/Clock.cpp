// See Clock.h.
#include "platform/base/Clock.h"

#include "platform/base/Seam.h"

#include <thread>

#include <sys/prctl.h>

DWORD GetTickCount() { return static_cast<DWORD>(SteadyMilliseconds()); }

void Sleep(DWORD dwMilliseconds) { SleepMilliseconds(dwMilliseconds); }

std::uint64_t SystemMilliseconds() {
  using namespace std::chrono;
  return static_cast<std::uint64_t>(duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count());
}

void SleepUntil(std::chrono::steady_clock::time_point deadline) {
  int const before = prctl(PR_GET_TIMERSLACK); // the thread may be the host's, with a value of its own
  prctl(PR_SET_TIMERSLACK, 1UL);               // ns
  std::this_thread::sleep_until(deadline);
  prctl(PR_SET_TIMERSLACK, before > 0 ? static_cast<unsigned long>(before) : 0UL); // 0: the thread's default
}
