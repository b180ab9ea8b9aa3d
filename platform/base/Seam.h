// The one place where tests take hold of the platform: time, sleeping, and the failure of a chosen call. Declared here
// and defined twice, chosen at link time over the same objects: in Seam.cpp for the product, and with the tests.
// Any thread.
#pragma once

#include "platform/base/Types.h"

/// True if the named call is to fail without being made; the last error is then set.
bool FaultAt(char const *szCall);
/// Milliseconds of the steady clock that every time limit is measured with.
std::uint64_t SteadyMilliseconds();
/// True if a test drives the clock: waits must then look at it every few milliseconds.
bool ClockIsDriven();
/// Blocks for that many ms; 0 yields the processor.
void SleepMilliseconds(DWORD ms);
