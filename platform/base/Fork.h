// What a fork does to the platform's own state. A forked child has the memory of the parent's threads but not the
// threads: locks of the tables are held across the fork so that they come out usable, and objects remember the process
// that made them.
#pragma once

#include <atomic>
#include <mutex>

#include <sys/types.h>

/// Locks the mutex before each later fork and unlocks it after it, on both sides. The mutex must live as long as the
/// process. Mutexes are locked in the order of their registration: a mutex that is taken inside another comes later,
/// and may be registered while the other is held. May throw std::bad_alloc.
void HoldAcrossFork(std::mutex &mutex);

/// The same for a mutex without a constructor of its own, called before each use: `bHeld`, false at first, tells
/// whether it is registered. Without memory it stays unregistered until the next call.
void HoldAcrossFork(std::mutex &mutex, std::atomic<bool> &bHeld) noexcept;

/// The calling process, cheap enough for every call.
pid_t CurrentProcess();
