// Threads over std::thread, always detached: a handle is one reference to the thread's record, the thread itself holds
// another, so that neither has to wait for the other. Safe from any thread.
#include "platform/system/Threads.h"

#include "platform/base/KernelObject.h"
#include "platform/base/Seam.h"
#include "platform/system/Detached.h"

#include <chrono>
#include <condition_variable>
#include <new>

#include <unistd.h>

namespace {

/// What is known of one thread. The mutex guards all that changes.
struct ThreadRecord : KernelObject {
  pid_t const process = CurrentProcess();
  std::mutex mutex;
  std::condition_variable changed;
  unsigned uThreadId = 0; // 0 until the thread is there
  bool bSuspended = false;
  bool bEnded = false;
  DWORD dwExitCode = STILL_ACTIVE;
};

/// The thread's record; null, with the last error, for any other handle and for a thread of the parent process, which
/// does not exist here and may have held its record's mutex when the process was forked.
std::shared_ptr<ThreadRecord> FindThread(HANDLE hThread) {
  auto record = FindKernelObject<ThreadRecord>(hThread);
  if (record && record->process != CurrentProcess()) {
    SetLastError(ERROR_INVALID_HANDLE);
    return nullptr;
  }
  return record;
}

void RunThread(ThreadRecord &record, unsigned (*pfnStart)(void *), void *pArg) {
  {
    std::unique_lock<std::mutex> lock(record.mutex);
    record.uThreadId = static_cast<unsigned>(gettid());
    record.changed.notify_all();
    record.changed.wait(lock, [&] { return !record.bSuspended; });
  }
  unsigned const uExitCode = pfnStart(pArg);
  {
    std::lock_guard<std::mutex> const lock(record.mutex);
    record.dwExitCode = uExitCode;
    record.bEnded = true;
  }
  record.changed.notify_all();
}

} // namespace

std::uintptr_t _beginthreadex(void *pSecurity, unsigned uStackSize, unsigned (*pfnStart)(void *), void *pArg,
                              unsigned uFlags, unsigned *puThreadId) {
  if (FaultAt(FaultPoint::_beginthreadex))
    return 0;
  if (pSecurity || uStackSize != 0 || !pfnStart || (uFlags & ~CREATE_SUSPENDED) != 0) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return 0;
  }
  HANDLE hThread = nullptr;
  try {
    auto const record = std::make_shared<ThreadRecord>();
    record->bSuspended = (uFlags & CREATE_SUSPENDED) != 0;
    hThread = KernelObjects().Add(record);
    if (StartDetached([record, pfnStart, pArg] { RunThread(*record, pfnStart, pArg); })) {
      std::unique_lock<std::mutex> lock(record->mutex);
      record->changed.wait(lock, [&] { return record->uThreadId != 0; });
      if (puThreadId)
        *puThreadId = record->uThreadId;
      return reinterpret_cast<std::uintptr_t>(hThread);
    }
  } catch (std::bad_alloc const &) {
  }
  KernelObjects().Remove(hThread);
  SetLastError(ERROR_NOT_ENOUGH_MEMORY);
  return 0;
}

DWORD ResumeThread(HANDLE hThread) {
  auto const record = FindThread(hThread);
  if (!record)
    return 0xFFFFFFFF;
  std::lock_guard<std::mutex> const lock(record->mutex);
  DWORD const dwCount = record->bSuspended ? 1 : 0;
  record->bSuspended = false;
  record->changed.notify_all();
  return dwCount;
}

DWORD WaitForSingleObject(HANDLE hThread, DWORD dwMilliseconds) {
  if (FaultAt(FaultPoint::WaitForSingleObject))
    return WAIT_FAILED;
  auto const record = FindThread(hThread);
  if (!record)
    return WAIT_FAILED;
  std::unique_lock<std::mutex> lock(record->mutex);
  auto const hasEnded = [&] { return record->bEnded; };
  if (dwMilliseconds == INFINITE) {
    record->changed.wait(lock, hasEnded);
    return WAIT_OBJECT_0;
  }
  auto const limit = std::chrono::steady_clock::now() + std::chrono::milliseconds(dwMilliseconds);
  return record->changed.wait_until(lock, limit, hasEnded) ? WAIT_OBJECT_0 : WAIT_TIMEOUT;
}

BOOL GetExitCodeThread(HANDLE hThread, DWORD *pdwExitCode) {
  auto const record = FindThread(hThread);
  if (!record)
    return FALSE;
  std::lock_guard<std::mutex> const lock(record->mutex);
  *pdwExitCode = record->dwExitCode;
  return TRUE;
}
