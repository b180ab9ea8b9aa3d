// See Fork.h.
#include "platform/Fork.h"

#include <vector>

#include <pthread.h>
#include <unistd.h>

namespace {

struct ForkGuards {
  std::mutex mutex;
  std::vector<std::mutex *> held;
};

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

} // namespace

void HoldAcrossFork(std::mutex &mutex) {
  static bool const registered = pthread_atfork(LockAll, UnlockAll, UnlockAll) == 0;
  static_cast<void>(registered);
  std::lock_guard<std::mutex> const lock(Guards().mutex);
  Guards().held.push_back(&mutex);
}

pid_t CurrentProcess() { return getpid(); }
