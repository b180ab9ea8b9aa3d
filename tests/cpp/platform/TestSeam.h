// The tests' seam: hooks for time, sleeping and the failure of a chosen call. With no hooks set, all is as in the
// product.
#pragma once

#include "platform/base/Types.h"

#include <functional>

struct PlatformTestHooks {
  /// Milliseconds of the steady clock in place of the real one; drives GetTickCount and every time limit of the HTTP
  /// layer. While it is set, the layer's waits last at most 5 ms of real time between two looks at it.
  std::function<std::uint64_t()> now;
  /// In place of Sleep.
  std::function<void(DWORD ms)> sleep;
  /// Asked at the start of a platform call by its name ("InternetWriteFile"). True makes it fail, with *pdwError as the
  /// last error. Names: every function of WinInet.h, Files.h, Messages.h, Threads.h and Registry.h that can fail,
  /// "CoCreateInstance", "selectSingleNode", "get_text", "LoadLibraryA".
  std::function<bool(char const *szCall, DWORD *pdwError)> fault;
};

/// Sets the hooks, which the caller keeps alive; null takes them away. Threads that use the platform meanwhile see
/// either.
void SetPlatformTestHooks(PlatformTestHooks const *pHooks);
