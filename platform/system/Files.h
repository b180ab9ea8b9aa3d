// Reading files by wide path. A path's units are characters; units U+DC80 to U+DCFF stand for the raw bytes 0x80 to
// 0xFF of a name that is not UTF-8 (Python's surrogateescape, PEP 383). Thread: any, for every function here; a file
// handle belongs to one thread at a time.
#pragma once

#include "platform/base/Handles.h" // CloseHandle
#include "platform/base/Types.h"

constexpr DWORD GENERIC_READ = 0x80000000;
constexpr DWORD FILE_SHARE_READ = 1;
constexpr DWORD OPEN_EXISTING = 3;
constexpr DWORD INVALID_FILE_SIZE = 0xFFFFFFFF;

inline const HANDLE INVALID_HANDLE_VALUE = reinterpret_cast<HANDLE>(static_cast<std::intptr_t>(-1));

/// Opens an existing regular file for reading; never waits for a FIFO's writer.
/// Returns: a handle for ReadFile, GetFileSize and CloseHandle, or INVALID_HANDLE_VALUE.
/// Errors (last error): 2 file missing, 3 directory missing, 5 unreadable or not a regular file, 123 no possible name
/// (a control character, or too long), 4 too many open files, 8 out of memory, 87. Success sets it to 0. Differs:
/// GENERIC_READ and OPEN_EXISTING only; the share mode keeps no writer out.
SKIFFPORT_PLATFORM_API HANDLE CreateFileW(WCHAR const *wszPath, DWORD dwAccess, DWORD dwShare, void *pSecurity,
                                          DWORD dwDisposition, DWORD dwFlags, HANDLE hTemplate);

/// Reads up to `dwBytes` bytes, fewer only at the end of the file; TRUE with 0 bytes there. Errors: FALSE with 6,
/// 30, 87. Differs: no overlapped reading.
SKIFFPORT_PLATFORM_API BOOL ReadFile(HANDLE hFile, void *pBuffer, DWORD dwBytes, DWORD *pdwRead, void *pOverlapped);

/// The low 32 bits of the file's size in bytes; the high ones go to `*pdwHigh` unless that is null.
/// Errors: INVALID_FILE_SIZE with 6 or 30. A size that ends in those very bits leaves a last error of 0.
SKIFFPORT_PLATFORM_API DWORD GetFileSize(HANDLE hFile, DWORD *pdwHigh);

/// TRUE if the path names a file, a directory or any other object. FALSE for null, and for a path that holds a control
/// character: no such name exists on Windows, and a line end would break a part's head.
/// Errors (last error): as CreateFileW.
SKIFFPORT_PLATFORM_API BOOL PathFileExistsW(WCHAR const *wszPath);
