// See TestSeam.h and Seam.h.
#include "platform/base/LastError.h"
#include "platform/base/Seam.h"

#include <atomic>
#include <chrono>
#include <thread>

namespace {

/// What an idle processor may take to run a thread whose time has come.
constexpr std::chrono::microseconds kWakeUpTime(300);

std::atomic<PlatformTestHooks const *> g_pHooks = nullptr;

/// Sleeps somewhat short of the time and waits for the rest awake: the pauses of an upload add up, and with them would
/// all that each comes late.
void SleepPunctually(std::chrono::milliseconds time) {
  using Clock = std::chrono::steady_clock;
  Clock::time_point const end = Clock::now() + time;
  std::this_thread::sleep_until(end - kWakeUpTime);
  while (Clock::now() < end)
    std::this_thread::yield();
}

} // namespace

void SetPlatformTestHooks(PlatformTestHooks const *pHooks) { g_pHooks = pHooks; }

bool FaultAt(char const *szCall) {
  PlatformTestHooks const *const pHooks = g_pHooks;
  DWORD dwError = 0;
  if (!pHooks || !pHooks->fault || !pHooks->fault(szCall, &dwError))
    return false;
  SetLastError(dwError);
  return true;
}

bool ClockIsDriven() {
  PlatformTestHooks const *const pHooks = g_pHooks;
  return pHooks && pHooks->now;
}

std::uint64_t SteadyMilliseconds() {
  PlatformTestHooks const *const pHooks = g_pHooks;
  if (pHooks && pHooks->now)
    return pHooks->now();
  using namespace std::chrono;
  return static_cast<std::uint64_t>(duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count());
}

void SleepMilliseconds(DWORD ms) {
  PlatformTestHooks const *const pHooks = g_pHooks;
  if (pHooks && pHooks->sleep)
    pHooks->sleep(ms);
  else if (ms == 0)
    std::this_thread::yield();
  else
    SleepPunctually(std::chrono::milliseconds(ms));
}
