// The torture's definition of platform/base/Seam.h: the nth of a chosen call fails, pauses take no time, and a case
// that waits for long is fast-forwarded. tests/torture/worker.py reads and writes the state. Thread: any.
#include "platform/base/Seam.h"
#include "platform/base/Clock.h"
#include "platform/base/LastError.h"

#include <atomic>
#include <thread>

namespace {

constexpr int kCalls = static_cast<int>(FaultPoint::WaitForSingleObject) + 1;
constexpr std::uint64_t kPatience = 4000; // ms from the beginning after which time runs faster
constexpr std::uint64_t kFaster = 60;

} // namespace

struct TortureSeam {
  std::atomic<int> isArmed; // to count calls, and to fail the nth of one
  std::atomic<int> call;
  std::atomic<int> nth;
  std::atomic<DWORD> error;
  std::atomic<int> hasFired;
  std::atomic<int> sleeps;
  std::atomic<int> counts[kCalls];
  std::atomic<std::uint64_t> begin;   // of the scenario's run, by the system's clock
  std::atomic<std::uint64_t> skipped; // ms, by earlier runs
};
extern "C" {
extern SKIFFPORT_PLATFORM_API TortureSeam torture_seam;
TortureSeam torture_seam = {};
}

bool FaultAt(FaultPoint call) {
  auto const index = static_cast<int>(call);
  if (!torture_seam.isArmed || ++torture_seam.counts[index] != torture_seam.nth || index != torture_seam.call)
    return false;
  torture_seam.hasFired = 1;
  SetLastError(torture_seam.error);
  return true;
}

bool ClockIsDriven() { return true; }

std::uint64_t SteadyMilliseconds() {
  std::uint64_t const now = SystemMilliseconds();
  std::uint64_t const patience = torture_seam.begin + kPatience;
  return now + torture_seam.skipped + (now > patience ? (now - patience) * (kFaster - 1) : 0);
}

void SleepMilliseconds(DWORD ms) {
  if (torture_seam.sleeps && ms != 0)
    SleepUntil(std::chrono::steady_clock::now() + std::chrono::milliseconds(ms));
  else
    std::this_thread::yield();
}
