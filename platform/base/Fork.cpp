// See Fork.h.
#include "platform/base/Fork.h"

#include "platform/base/Seam.h"

#include <new>
#include <vector>

#include <pthread.h>
#include <unistd.h>

namespace {

struct ForkGuards {
  std::mutex mutex;
  std::vector<std::mutex *> held;
};

std::atomic<pid_t> g_process = 0; // 0: not asked for yet in this process

/// Counts the threads in a NoForkScope. Fork handlers hold the door and wait until the others have left.
struct NoForkRoom {
  std::mutex door;
  std::atomic<int> inside = 0;
};

constexpr DWORD kLeaveInterval = 1; // ms between looks at who is inside

thread_local int t_depth = 0; // of the calling thread's scopes

NoForkRoom &Room() {
  static NoForkRoom &room = *new NoForkRoom; // never destroyed, like the guards
  return room;
}

ForkGuards &Guards() {
  static ForkGuards &guards = *new ForkGuards; // never destroyed: a thread may still run at exit
  return guards;
}

// The list's own mutex is locked last: whoever holds one of the others may be about to register the next.
// Before all of them come the threads in a NoForkScope, which may need the others to leave it.
void LockRoom() {
  Room().door.lock();
  while (Room().inside > (t_depth > 0 ? 1 : 0))
    SleepMilliseconds(kLeaveInterval);
}

void LockAll() {
  LockRoom();
  ForkGuards &guards = Guards();
  guards.mutex.lock();
  for (std::size_t index = 0; index < guards.held.size(); ++index) {
    std::mutex *const next = guards.held[index];
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
  Room().door.unlock();
}

void UnlockAllInChild() {
  g_process = 0;
  UnlockAll();
}

void RegisterHandlers() {
  [[maybe_unused]] static int const s_once = pthread_atfork(LockAll, UnlockAll, UnlockAllInChild);
}

} // namespace

void HoldAcrossFork(std::mutex &mutex) {
  RegisterHandlers();
  std::lock_guard<std::mutex> const lock(Guards().mutex);
  Guards().held.push_back(&mutex);
}

void HoldAcrossFork(std::mutex &mutex, std::atomic<bool> &isHeld) noexcept try {
  if (isHeld)
    return;
  RegisterHandlers();
  std::lock_guard<std::mutex> const lock(Guards().mutex);
  if (isHeld) // another thread was first
    return;
  Guards().held.push_back(&mutex);
  isHeld = true;
} catch (std::bad_alloc const &) { // the next call tries again
}

NoForkScope::NoForkScope() {
  if (t_depth == 0) {
    RegisterHandlers();
    std::lock_guard<std::mutex> const lock(Room().door);
    ++Room().inside;
  }
  ++t_depth;
}

NoForkScope::~NoForkScope() {
  if (--t_depth == 0)
    --Room().inside;
}

void LockOthersOut() {
  LockRoom();
  ++t_depth;
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
