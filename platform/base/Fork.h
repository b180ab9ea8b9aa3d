// What a fork does to the platform's own state. A forked child has the memory of the parent's threads but not the
// threads: the tables' locks are held across the fork so that the child can use them, and objects remember the process
// that made them. Any thread. Knows nothing of what the mutexes guard.
#pragma once

#include <atomic>
#include <mutex>

#include <sys/types.h>

/// Locks the mutex before each later fork and unlocks it after it, on both sides. The mutex must live as long as the
/// process. Mutexes are locked in the order of their registration: a mutex that is taken while another is held must be
/// registered after it, and may be registered while the other is held. May throw std::bad_alloc.
void HoldAcrossFork(std::mutex &mutex);

/// The same for a mutex without a constructor of its own, called before each use: `isHeld`, false at first, says
/// whether it is registered. When out of memory, the mutex stays unregistered until the next call.
void HoldAcrossFork(std::mutex &mutex, std::atomic<bool> &isHeld) noexcept;

/// Makes each fork wait while a thread is in the scope: for a library whose locks a fork would leave locked in the
/// child. Nests. The thread must not block in it, and must not hold a mutex that is held across forks when it enters
/// the outermost scope. May throw std::bad_alloc.
class NoForkScope {
public:
  NoForkScope();
  NoForkScope(NoForkScope const &) = delete;
  NoForkScope &operator=(NoForkScope const &) = delete;
  ~NoForkScope();
};

/// Keeps every other thread out of a NoForkScope from now on. For the end of the process, at which libraries free what
/// threads that still run would use.
void LockOthersOut();

/// The id of the calling process, cached: cheap enough to ask for in every call.
pid_t CurrentProcess();
