// The product's definitions: nothing fails on purpose, and time is the system's.
#include "platform/base/Seam.h"

#include <thread>

bool FaultAt(FaultPoint /*call*/) { return false; }

std::uint64_t SteadyMilliseconds() { return SystemMilliseconds(); }

bool ClockIsDriven() { return false; }

void SleepMilliseconds(DWORD ms) {
  if (ms == 0)
    std::this_thread::yield();
  else
    std::this_thread::sleep_for(std::chrono::milliseconds(ms));
}
