// Handles of threads and files alike. Thread: any, for every function here.
#pragma once

#include "platform/base/Types.h"

constexpr DWORD DUPLICATE_SAME_ACCESS = 2;

/// Closes a handle of _beginthreadex, CreateFileW or DuplicateHandle; its thread goes on running. Errors: FALSE with
/// ERROR_INVALID_HANDLE for any other handle, one that was closed before included.
SKIFFPORT_PLATFORM_API BOOL CloseHandle(HANDLE hObject);

/// The pseudo handle of the calling process. Differs: good for DuplicateHandle only.
inline HANDLE GetCurrentProcess() { return reinterpret_cast<HANDLE>(static_cast<std::intptr_t>(-1)); }

/// Makes a second handle to the same object, which is closed on its own. Errors: FALSE with 6 (invalid handle), 8, 87.
/// Differs: within the calling process, with DUPLICATE_SAME_ACCESS and no inheritance.
SKIFFPORT_PLATFORM_API BOOL DuplicateHandle(HANDLE hSourceProcess, HANDLE hSource, HANDLE hTargetProcess,
                                            HANDLE *phTarget, DWORD dwAccess, BOOL bInherit, DWORD dwOptions);
