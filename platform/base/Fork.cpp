// See Fork.h.
#include "platform/base/Fork.h"

#include <new>
#include <vector>

#include <pthread.h>
#include <unistd.h>

namespace {

struct ForkGuards {
  std::mutex mutex;
  std::vector<std::mutex *> held;
};

std::atomic<pid_t> g_process = 0; // 0: not asked yet in this process

ForkGuards &Guards() {
  static ForkGuards &guards = *new ForkGuards; // never destroyed: a thread may still run at exit
  return guards;
}

// The list's own mutex comes last: whoever holds one of the others may be about to register the next.
void LockAll() {
  ForkGuards &guards = Guards();
  guards.mutex.lock();
  for (std::size_t n = 0; n < guards.held.size(); ++n) {
    std::mutex *const next = guards.held[n];
    guards.mutex.unlock();
    next->lock();
    guards.mutex.lock();
  }
}

void UnlockAll() {
  auto const &held = Guards().held;
  for (auto it = held.rbegin(); it != held.rend(); ++it)
    (*it)->unlock();
  Guards().mutex.unlock();
}

void UnlockAllInChild() {
  g_process = 0;
  UnlockAll();
}

void RegisterHandlers() {
  static bool const registered = pthread_atfork(LockAll, UnlockAll, UnlockAllInChild) == 0;
  static_cast<void>(registered);
}

} // namespace

void HoldAcrossFork(std::mutex &mutex) {
  RegisterHandlers();
  std::lock_guard<std::mutex> const lock(Guards().mutex);
  Guards().held.push_back(&mutex);
}

void HoldAcrossFork(std::mutex &mutex, std::atomic<bool> &bHeld) noexcept try {
  if (bHeld)
    return;
  RegisterHandlers();
  std::lock_guard<std::mutex> const lock(Guards().mutex);
  if (bHeld) // by another thread meanwhile
    return;
  Guards().held.push_back(&mutex);
  bHeld = true;
} catch (std::bad_alloc const &) {
}

pid_t CurrentProcess() {
  pid_t process = g_process.load(std::memory_order_relaxed);
  if (process == 0) {
    RegisterHandlers();
    process = getpid();
    g_process.store(process, std::memory_order_relaxed);
  }
  return process;
}
