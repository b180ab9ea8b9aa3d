// Threads, waiting for them, and locks.
#pragma once

#include "platform/base/Handles.h"
#include "platform/base/Types.h"
#include "platform/system/Locks.h"

constexpr unsigned CREATE_SUSPENDED = 4;
constexpr DWORD INFINITE = 0xFFFFFFFF;
constexpr DWORD WAIT_OBJECT_0 = 0;
constexpr DWORD WAIT_TIMEOUT = 258;
constexpr DWORD WAIT_FAILED = 0xFFFFFFFF;
constexpr DWORD STILL_ACTIVE = 259;

/// Starts a thread that runs `pfnStart(pArg)`; its result is the exit code. `*puThreadId` is set, and never 0, when the
/// call returns.
/// Returns: a handle for WaitForSingleObject, GetExitCodeThread, ResumeThread and CloseHandle; 0 on failure (last
/// error). Differs: no security attributes, the default stack, flags 0 or CREATE_SUSPENDED.
SKIFFPORT_PLATFORM_API std::uintptr_t _beginthreadex(void *pSecurity, unsigned uStackSize, unsigned (*pfnStart)(void *),
                                                     void *pArg, unsigned uFlags, unsigned *puThreadId);

/// Lets a thread that was created suspended run. Returns: the earlier suspend count, or 0xFFFFFFFF.
SKIFFPORT_PLATFORM_API DWORD ResumeThread(HANDLE hThread);

/// Waits until the thread has ended, at most `dwMilliseconds`.
/// Returns: WAIT_OBJECT_0, WAIT_TIMEOUT, or WAIT_FAILED for a handle that is no thread of this process.
/// Differs: threads only. In a forked child a handle of the parent's thread fails at once.
SKIFFPORT_PLATFORM_API DWORD WaitForSingleObject(HANDLE hThread, DWORD dwMilliseconds);

/// Stores the thread's exit code, or STILL_ACTIVE while it runs.
SKIFFPORT_PLATFORM_API BOOL GetExitCodeThread(HANDLE hThread, DWORD *pdwExitCode);
