// See TestHooks.h and platform/base/Seam.h. Also lets a Python program drive the clock of the platform library that
// this file is linked into, which a program that loads it first gets instead of the product's.
#include "tests/cpp/platform/TestHooks.h"

#include "platform/base/LastError.h"

#include <atomic>
#include <thread>

namespace {

std::atomic<PlatformTestHooks const *> g_hooks = nullptr;
std::atomic<std::uint64_t> g_now = 1'000'000, g_step = 0;

/// Never destroyed: a thread may still run at exit.
struct DrivenHooks {
  PlatformTestHooks real{nullptr, [](DWORD) {}, nullptr};
  PlatformTestHooks driven{[] { return g_now += g_step; }, [](DWORD ms) { g_now += ms; }, nullptr};
  /// The system's clock until a request is sent whole or the end of an upload's is; no probe does either.
  PlatformTestHooks waiting{nullptr, [](DWORD) {},
                            [this](FaultPoint call, DWORD *) {
                              if (call == FaultPoint::HttpSendRequestW || call == FaultPoint::HttpEndRequestW)
                                SetPlatformTestHooks(&driven);
                              return false;
                            }};
};

} // namespace

void SetPlatformTestHooks(PlatformTestHooks const *hooks) { g_hooks = hooks; }

bool FaultAt(FaultPoint call) {
  PlatformTestHooks const *const hooks = g_hooks;
  DWORD error = 0;
  bool const isFault = hooks && hooks->fault && hooks->fault(call, &error);
  return isFault && Fail(error, true);
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
  else
    std::this_thread::sleep_for(std::chrono::milliseconds(ms));
}

/// Moves the clock by that many ms with each look at it, from now on or, if it `waits`, from when a request is sent
/// or an upload's body is out; 0 returns to the system's clock. Sleeping takes no time either way. Returns: what the
/// driven clock shows, in ms.
extern "C" __attribute__((visibility("default"))) std::uint64_t DriveClock(unsigned step, bool waits) {
  static auto const &hooks = *new DrivenHooks;
  g_step = step;
  SetPlatformTestHooks(step == 0 ? &hooks.real : waits ? &hooks.waiting : &hooks.driven);
  return g_now;
}
