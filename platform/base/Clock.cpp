// See Clock.h.
#include "platform/base/Clock.h"

#include "platform/base/Seam.h"

#include <chrono>

DWORD GetTickCount() { return static_cast<DWORD>(SteadyMilliseconds()); }

void Sleep(DWORD dwMilliseconds) { SleepMilliseconds(dwMilliseconds); }

std::uint64_t SystemMilliseconds() {
  using namespace std::chrono;
  return static_cast<std::uint64_t>(duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count());
}
