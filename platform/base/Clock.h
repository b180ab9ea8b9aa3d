// The millisecond clock and sleeping. Thread: any, for every function here.
#pragma once

#include "platform/base/Types.h"

/// Milliseconds of a steady clock, modulo 2^32. Cannot fail.
SKIFFPORT_PLATFORM_API DWORD GetTickCount();

/// Blocks the calling thread for that many ms, punctually. 0 yields the processor.
SKIFFPORT_PLATFORM_API void Sleep(DWORD dwMilliseconds);
