// See TestHooks.h and platform/base/Seam.h. Also lets a Python program drive the clock of the platform library that
// this file is linked into, which a program that loads it first gets instead of the product's.
#include "tests/cpp/platform/TestHooks.h"

#include "platform/base/LastError.h"

#include <atomic>
#include <thread>

namespace {

PlatformTestHooks const g_none{}; // all zeros, even before its initialization and after its end
constinit std::atomic<PlatformTestHooks const *> g_hooks = &g_none;
std::atomic<std::uint64_t> g_now = 1'000'000, g_step = 0;

// Those of a driven clock are never destroyed: a thread may still run at exit.
auto const &g_real = *new PlatformTestHooks{nullptr, [](DWORD) {}, nullptr};
auto const &g_driven = *new PlatformTestHooks{[] { return g_now += g_step; }, [](DWORD ms) { g_now += ms; }, nullptr};
/// The system's clock until a request is sent whole or the end of an upload's is; no probe does either.
bool DriveFrom(FaultPoint call, DWORD *) {
  if (call == FaultPoint::HttpSendRequestW || call == FaultPoint::HttpEndRequestW)
    SetPlatformTestHooks(&g_driven);
  return false;
}
auto const &g_waiting = *new PlatformTestHooks{nullptr, [](DWORD) {}, DriveFrom};

} // namespace

void SetPlatformTestHooks(PlatformTestHooks const *hooks) { g_hooks = hooks ? hooks : &g_none; }

bool FaultAt(FaultPoint call) {
  auto const &fault = g_hooks.load()->fault;
  DWORD error = 0;
  return fault && fault(call, &error) && Fail(error, true);
}

bool ClockIsDriven() { return g_hooks.load()->now != nullptr; }

std::uint64_t SteadyMilliseconds() {
  auto const &now = g_hooks.load()->now;
  return now ? now() : SystemMilliseconds();
}

void SleepMilliseconds(DWORD ms) {
  auto const &sleep = g_hooks.load()->sleep;
  sleep ? sleep(ms) : std::this_thread::sleep_for(std::chrono::milliseconds(ms));
}

/// Moves the clock by that many ms with each look at it, from now on or, if it `waits`, from when a request is sent
/// or an upload's body is out; 0 returns to the system's clock. Sleeping takes no time either way. Returns: what the
/// driven clock shows, in ms.
extern "C" __attribute__((visibility("default"))) std::uint64_t DriveClock(unsigned step, bool waits) {
  g_step = step;
  SetPlatformTestHooks(step == 0 ? &g_real : waits ? &g_waiting : &g_driven);
  return g_now;
}
