// The tests' definitions of Seam.h: hooks for time, sleeping and the failure of a chosen call. With no hooks set,
// everything is as in the product. Thread: any.
#pragma once

#include "platform/base/Seam.h"

#include <functional>
#include <utility>

struct PlatformTestHooks {
  /// Milliseconds of the steady clock instead of the real one; drives GetTickCount and every time limit of the HTTP
  /// layer. While it is set, the layer's waits check it at least every 5 ms of real time.
  std::function<std::uint64_t()> now = nullptr;
  /// Called instead of Sleep.
  std::function<void(DWORD ms)> sleep = nullptr;
  /// Asked at the start of each call of the list in Seam.h. True makes it fail, with *error as the last error.
  std::function<bool(FaultPoint call, DWORD *error)> fault = nullptr;
};

/// Sets the hooks, which the caller keeps alive; null removes them. Threads that use the platform meanwhile see the old
/// or the new ones.
void SetPlatformTestHooks(PlatformTestHooks const *hooks);

/// Hooks that are set while the object lives.
struct ScopedTestHooks {
  explicit ScopedTestHooks(PlatformTestHooks itsHooks) : hooks(std::move(itsHooks)) { SetPlatformTestHooks(&hooks); }
  ~ScopedTestHooks() { SetPlatformTestHooks(nullptr); }
  PlatformTestHooks const hooks;
};
