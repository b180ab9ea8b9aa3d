// Threads over std::thread, always detached: a handle is one reference to the thread's record and the thread itself
// holds another, so that neither waits for the other. Any thread.
#include "platform/system/Threads.h"

#include "platform/base/KernelObject.h"
#include "platform/base/LastError.h"
#include "platform/base/Seam.h"
#include "platform/system/Detached.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <new>

#include <unistd.h>

namespace {

/// What is known of one thread. The mutex guards everything but the process.
struct ThreadRecord : KernelObject {
  pid_t const process = CurrentProcess();
  std::mutex mutex;
  std::condition_variable changed;
  unsigned threadId = 0; // 0 until the thread runs
  bool isSuspended = false;
  bool hasEnded = false;
  DWORD exitCode = STILL_ACTIVE;
};

/// The thread's record; null, with the last error, for any other handle and for a thread of the parent process, which
/// does not exist here and may have held its record's mutex when the process was forked.
std::shared_ptr<ThreadRecord> FindThread(HANDLE handle) {
  auto record = FindKernelObject<ThreadRecord>(handle);
  if (record && record->process != CurrentProcess())
    return Fail(ERROR_INVALID_HANDLE, nullptr);
  return record;
}

void RunThread(ThreadRecord &record, unsigned (*start)(void *), void *argument) {
  {
    std::unique_lock<std::mutex> lock(record.mutex);
    record.threadId = static_cast<unsigned>(gettid());
    record.changed.notify_all();
    record.changed.wait(lock, [&] { return !record.isSuspended; });
  }
  unsigned const result = start(argument);
  {
    std::lock_guard<std::mutex> const lock(record.mutex);
    record.exitCode = result;
    record.hasEnded = true;
  }
  record.changed.notify_all();
}

} // namespace

std::uintptr_t _beginthreadex(void *pSecurity, unsigned uStackSize, unsigned (*pfnStart)(void *), void *pArg,
                              unsigned uFlags, unsigned *puThreadId) {
  if (FaultAt(FaultPoint::_beginthreadex))
    return 0;
  if (pSecurity || uStackSize != 0 || !pfnStart || (uFlags & ~CREATE_SUSPENDED) != 0)
    return Fail(ERROR_INVALID_PARAMETER, std::uintptr_t{0});
  HANDLE hThread = nullptr;
  try {
    auto const record = std::make_shared<ThreadRecord>();
    record->isSuspended = (uFlags & CREATE_SUSPENDED) != 0;
    hThread = KernelObjects().Add(record);
    if (StartDetached([record, pfnStart, pArg] { RunThread(*record, pfnStart, pArg); })) {
      std::unique_lock<std::mutex> lock(record->mutex);
      record->changed.wait(lock, [&] { return record->threadId != 0; });
      if (puThreadId)
        *puThreadId = record->threadId;
      return reinterpret_cast<std::uintptr_t>(hThread);
    }
  } catch (std::bad_alloc const &) { // fails as a thread that cannot be started does
  }
  KernelObjects().Remove(hThread);
  return Fail(ERROR_NOT_ENOUGH_MEMORY, std::uintptr_t{0});
}

DWORD ResumeThread(HANDLE hThread) {
  auto const record = FindThread(hThread);
  if (!record)
    return 0xFFFFFFFF;
  std::lock_guard<std::mutex> const lock(record->mutex);
  DWORD const count = record->isSuspended ? 1 : 0;
  record->isSuspended = false;
  record->changed.notify_all();
  return count;
}

DWORD WaitForSingleObject(HANDLE hThread, DWORD dwMilliseconds) {
  if (FaultAt(FaultPoint::WaitForSingleObject))
    return WAIT_FAILED;
  auto const record = FindThread(hThread);
  if (!record)
    return WAIT_FAILED;
  std::unique_lock<std::mutex> lock(record->mutex);
  auto const ended = [&] { return record->hasEnded; };
  if (dwMilliseconds == INFINITE) {
    record->changed.wait(lock, ended);
    return WAIT_OBJECT_0;
  }
  std::uint64_t const limit = SteadyMilliseconds() + dwMilliseconds;
  std::uint64_t const slice = ClockIsDriven() ? 5 : dwMilliseconds;
  for (std::uint64_t now = 0; !ended() && (now = SteadyMilliseconds()) < limit;)
    record->changed.wait_for(lock, std::chrono::milliseconds(std::min(limit - now, slice)), ended);
  return ended() ? WAIT_OBJECT_0 : WAIT_TIMEOUT;
}

BOOL GetExitCodeThread(HANDLE hThread, DWORD *pdwExitCode) {
  auto const record = FindThread(hThread);
  if (!record)
    return FALSE;
  std::lock_guard<std::mutex> const lock(record->mutex);
  *pdwExitCode = record->exitCode;
  return TRUE;
}
