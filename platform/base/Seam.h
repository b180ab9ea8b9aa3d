// The platform's own side of TestSeam.h.
#pragma once

#include "platform/base/TestSeam.h"

/// True if a test wants the named call to fail; the last error is then set.
bool FaultAt(char const *szCall);
/// Milliseconds of the steady clock, or of the test's.
std::uint64_t SteadyMilliseconds();
/// True while a test drives the clock.
bool ClockIsDriven();
/// Sleeps, or tells the test.
void SleepMilliseconds(DWORD ms);
