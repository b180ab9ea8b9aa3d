// Lets a Python program drive the clock of the platform library that this file is linked into: the product's objects
// with the tests' definition of the seam. A program that loads it first gets it instead of the product's library.
// Thread: any.
#include "tests/cpp/platform/TestHooks.h"

#include <atomic>

namespace {

std::atomic<std::uint64_t> g_now = 1'000'000, g_step = 0;

/// Never destroyed: a thread may still run at exit.
struct Hooks {
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

/// Moves the clock by that many ms with each look at it, from now on or, if it `waits`, from when a request is sent
/// or an upload's body is out; 0 returns to the system's clock. Sleeping takes no time either way. Returns: what the
/// driven clock shows, in ms.
extern "C" __attribute__((visibility("default"))) std::uint64_t DriveClock(unsigned step, bool waits) {
  static auto const &hooks = *new Hooks;
  g_step = step;
  SetPlatformTestHooks(step == 0 ? &hooks.real : waits ? &hooks.waiting : &hooks.driven);
  return g_now;
}
