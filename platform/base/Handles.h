// Handles of threads and files alike. Any thread.
#pragma once

#include "platform/base/Types.h"

constexpr DWORD DUPLICATE_SAME_ACCESS = 2;

/// Closes a handle of _beginthreadex, CreateFileW or DuplicateHandle, once; a thread goes on running. Errors: FALSE with
/// ERROR_INVALID_HANDLE the second time.
SKIFFPORT_PLATFORM_API BOOL CloseHandle(HANDLE hObject);

/// The pseudo handle of the calling process, for DuplicateHandle alone.
inline HANDLE GetCurrentProcess() { return reinterpret_cast<HANDLE>(static_cast<std::intptr_t>(-1)); }

/// A second handle to the same object, closed on its own. Errors: FALSE with ERROR_INVALID_HANDLE, or 8.
/// Differs: within the calling process, with DUPLICATE_SAME_ACCESS and no inheritance.
SKIFFPORT_PLATFORM_API BOOL DuplicateHandle(HANDLE hSourceProcess, HANDLE hSource, HANDLE hTargetProcess,
                                            HANDLE *phTarget, DWORD dwAccess, BOOL bInherit, DWORD dwOptions);
