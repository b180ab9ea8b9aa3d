// What a fork does to the platform's own state. A forked child has the memory of the parent's threads but not the
// threads: a fork waits until none of them is where it could leave a lock taken or a table half changed, and objects
// remember the process that made them. Any thread.
#pragma once

#include <sys/types.h>

/// Makes each fork wait while a thread is in the scope. Nests. In it, the thread must not wait for anything but another
/// thread in such a scope.
class NoForkScope {
public:
  NoForkScope() { Enter(); }
  NoForkScope(NoForkScope const &) = delete;
  NoForkScope &operator=(NoForkScope const &) = delete;
  ~NoForkScope() { Leave(); }

  // For a scope that begins and ends in different functions.
  static void Enter() noexcept;
  static void Leave() noexcept;
};

/// Keeps every other thread out of a NoForkScope from now on; waits at most 5 s for those inside to leave. For the end
/// of the process, at which libraries free what threads that still run would use.
void LockOthersOut();

/// The id of the calling process, cached: cheap enough to ask for in every call.
pid_t CurrentProcess();
