// Threads, and waiting for them. Thread: any, for every function here.
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

/// Starts a thread that runs `pfnStart(pArg)`; its result is the exit code. When the call returns, `*puThreadId` is set
/// to the thread's id, which is never 0. Returns: a handle for WaitForSingleObject, GetExitCodeThread, ResumeThread and
/// CloseHandle; 0 on failure (last error). Differs: no security attributes, the default stack, flags 0 or
/// CREATE_SUSPENDED.
SKIFFPORT_PLATFORM_API std::uintptr_t _beginthreadex(void *pSecurity, unsigned uStackSize,
                                                     unsigned(__stdcall *pfnStart)(void *), void *pArg, unsigned uFlags,
                                                     unsigned *puThreadId);

/// Starts a thread that was created suspended. Returns: the previous suspend count, or 0xFFFFFFFF (last error 6).
SKIFFPORT_PLATFORM_API DWORD ResumeThread(HANDLE hThread);

/// Waits until the thread has ended, at most `dwMilliseconds`.
/// Returns: WAIT_OBJECT_0, WAIT_TIMEOUT, or WAIT_FAILED (last error 6) for a handle that is no thread of this
/// process.
/// Differs: threads only. In a forked child a handle of the parent's thread fails at once.
SKIFFPORT_PLATFORM_API DWORD WaitForSingleObject(HANDLE hThread, DWORD dwMilliseconds);

/// Stores the thread's exit code, or STILL_ACTIVE while it runs. Errors: FALSE with 6.
SKIFFPORT_PLATFORM_API BOOL GetExitCodeThread(HANDLE hThread, DWORD *pdwExitCode);
