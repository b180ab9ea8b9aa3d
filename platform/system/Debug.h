// Debug output (standard error here, or a file) and the event-trace library, found at run time. Thread: any, for every
// function here and for those that GetProcAddress returns.
#pragma once

#include "platform/base/Types.h"

using HMODULE = void *;
using REGHANDLE = std::uint64_t;
using FARPROC = void (*)();

/// Writes the text to standard error, or appends it to the file that SKIFFPORT_DEBUG_OUTPUT names at the first call if
/// that can be opened. One write, so that other threads' texts don't mix with it; a text of more than 4,096 bytes is
/// cut for that. Blocks while standard error does. Cannot fail.
SKIFFPORT_PLATFORM_API void OutputDebugStringA(char const *szText);
SKIFFPORT_PLATFORM_API void OutputDebugStringW(WCHAR const *wszText);

/// Loads a library by name. "advapi32.dll", the only one known, stands for the system journal.
/// Returns: null, with the last error 126, if its library or a running journal is missing. Differs: that one name only.
SKIFFPORT_PLATFORM_API HMODULE LoadLibraryA(char const *szName);
/// Returns the reference of one LoadLibraryA. Differs: the library stays loaded.
SKIFFPORT_PLATFORM_API BOOL FreeLibrary(HMODULE hLibrary);
/// EventRegister(GUID const *, void *, void *, REGHANDLE *), EventWriteString(REGHANDLE, BYTE level, uint64 keyword,
/// WCHAR const *) and EventUnregister(REGHANDLE), each returning a ULONG error number; null, with the last error 127,
/// for any other name.
SKIFFPORT_PLATFORM_API FARPROC GetProcAddress(HMODULE hLibrary, char const *szName);
