// See Fork.h.
#include "platform/Fork.h"

#include <atomic>
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

void LockAll() {
  Guards().mutex.lock();
  for (std::mutex *mutex : Guards().held)
    mutex->lock();
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

pid_t CurrentProcess() {
  pid_t process = g_process.load(std::memory_order_relaxed);
  if (process == 0) {
    RegisterHandlers();
    process = getpid();
    g_process.store(process, std::memory_order_relaxed);
  }
  return process;
}
