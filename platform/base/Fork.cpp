#include "platform/base/Fork.h"

#include "platform/base/Seam.h"

#include <atomic>
#include <mutex>

#include <pthread.h>
#include <unistd.h>

namespace {

constexpr int kExitLimit = 5000; // ms that the end of the process waits for the threads inside

constinit std::mutex g_door; // held by a fork; who enters a scope passes it
constinit std::atomic<int> g_inside = 0;
constinit std::atomic<pid_t> g_process = 0; // 0: not asked for yet in this process
thread_local int t_depth = 0;               // of the calling thread's scopes

bool AreOthersInside() { return g_inside > (t_depth > 0 ? 1 : 0); }

void CloseDoor() {
  g_door.lock();
  while (AreOthersInside())
    SleepMilliseconds(1);
}

void OpenDoor() { g_door.unlock(); }

void OpenDoorInChild() {
  g_process = 0;
  OpenDoor();
}

void RegisterHandlers() {
  [[maybe_unused]] static int const s_once = pthread_atfork(CloseDoor, OpenDoor, OpenDoorInChild);
}

} // namespace

void NoForkScope::Enter() noexcept {
  if (t_depth++ > 0)
    return;
  RegisterHandlers();
  std::lock_guard<std::mutex> const lock(g_door);
  ++g_inside;
}

void NoForkScope::Leave() noexcept {
  if (--t_depth == 0)
    --g_inside;
}

void LockOthersOut() {
  g_door.lock();
  for (int ms = 0; ms < kExitLimit && AreOthersInside(); ++ms)
    SleepMilliseconds(1);
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
