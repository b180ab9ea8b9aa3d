// The tests' seam: hooks for time, sleeping and the failure of a chosen call. With no hooks set, all is as in the
// product.
#pragma once

#include "platform/base/Seam.h"

#include <functional>

struct PlatformTestHooks {
  /// Milliseconds of the steady clock in place of the real one; drives GetTickCount and every time limit of the HTTP
  /// layer. While it is set, the layer's waits last at most 5 ms of real time between two looks at it.
  std::function<std::uint64_t()> now;
  /// In place of Sleep.
  std::function<void(DWORD ms)> sleep;
  /// Asked at the start of each call of the list in Seam.h. True makes it fail, with *pdwError as the last error.
  std::function<bool(FaultPoint call, DWORD *pdwError)> fault;
};

/// Sets the hooks, which the caller keeps alive; null takes them away. Threads that use the platform meanwhile see
/// either.
void SetPlatformTestHooks(PlatformTestHooks const *pHooks);
