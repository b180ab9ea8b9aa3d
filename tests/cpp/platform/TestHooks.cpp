// See TestHooks.h and platform/base/Seam.h.
#include "tests/cpp/platform/TestHooks.h"

#include "platform/base/Clock.h"
#include "platform/base/LastError.h"
#include "platform/base/Seam.h"

#include <atomic>
#include <thread>

namespace {

std::atomic<PlatformTestHooks const *> g_hooks = nullptr;

} // namespace

void SetPlatformTestHooks(PlatformTestHooks const *hooks) { g_hooks = hooks; }

bool FaultAt(FaultPoint call) {
  PlatformTestHooks const *const hooks = g_hooks;
  DWORD error = 0;
  if (!hooks || !hooks->fault || !hooks->fault(call, &error))
    return false;
  SetLastError(error);
  return true;
}

bool ClockIsDriven() {
  PlatformTestHooks const *const hooks = g_hooks;
  return hooks && hooks->now;
}

std::uint64_t SteadyMilliseconds() {
  PlatformTestHooks const *const hooks = g_hooks;
  return hooks && hooks->now ? hooks->now() : SystemMilliseconds();
}

void SleepMilliseconds(DWORD ms) {
  PlatformTestHooks const *const hooks = g_hooks;
  if (hooks && hooks->sleep)
    hooks->sleep(ms);
  else if (ms == 0)
    std::this_thread::yield();
  else
    std::this_thread::sleep_for(std::chrono::milliseconds(ms));
}
