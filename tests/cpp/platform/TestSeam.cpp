// See TestSeam.h and platform/base/Seam.h.
#include "tests/cpp/platform/TestSeam.h"

#include "platform/base/Clock.h"
#include "platform/base/LastError.h"
#include "platform/base/Seam.h"

#include <atomic>
#include <thread>

namespace {

std::atomic<PlatformTestHooks const *> g_pHooks = nullptr;

} // namespace

void SetPlatformTestHooks(PlatformTestHooks const *pHooks) { g_pHooks = pHooks; }

bool FaultAt(FaultPoint call) {
  PlatformTestHooks const *const pHooks = g_pHooks;
  DWORD dwError = 0;
  if (!pHooks || !pHooks->fault || !pHooks->fault(call, &dwError))
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
  return SystemMilliseconds();
}

void SleepMilliseconds(DWORD ms) {
  PlatformTestHooks const *const pHooks = g_pHooks;
  if (pHooks && pHooks->sleep)
    pHooks->sleep(ms);
  else if (ms == 0)
    std::this_thread::yield();
  else
    SleepUntil(std::chrono::steady_clock::now() + std::chrono::milliseconds(ms));
}
