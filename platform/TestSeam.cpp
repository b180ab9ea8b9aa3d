// See TestSeam.h and Seam.h.
#include "platform/LastError.h"
#include "platform/Seam.h"

#include <atomic>
#include <chrono>
#include <thread>

namespace {
std::atomic<PlatformTestHooks const *> g_pHooks = nullptr;
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
    std::this_thread::sleep_for(std::chrono::milliseconds(ms));
}
