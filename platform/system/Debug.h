// Debug output (standard error here) and the event-trace library, found at run time.
#pragma once

#include "platform/base/Types.h"

using HMODULE = void *;
using REGHANDLE = std::uint64_t;
using FARPROC = void (*)();

/// Writes the text to the debug output, here standard error, in one write, which other threads' texts don't mix with; a
/// text of more than 4,096 bytes is cut for that. Thread: any. Blocks while standard error does. Cannot fail.
SKIFFPORT_PLATFORM_API void OutputDebugStringA(char const *szText);
SKIFFPORT_PLATFORM_API void OutputDebugStringW(WCHAR const *wszText);

/// The module's own table of native libraries found at run time. Here "advapi32.dll" stands for the system journal.
/// Returns: null when the library, or a running journal, is not there. Differs: that one name only.
SKIFFPORT_PLATFORM_API HMODULE LoadLibraryA(char const *szName);
SKIFFPORT_PLATFORM_API BOOL FreeLibrary(HMODULE hLibrary);
/// EventRegister(GUID const *, void *, void *, REGHANDLE *), EventWriteString(REGHANDLE, BYTE level, uint64 keyword,
/// WCHAR const *) and EventUnregister(REGHANDLE), each returning a ULONG error number; null for any other name.
SKIFFPORT_PLATFORM_API FARPROC GetProcAddress(HMODULE hLibrary, char const *szName);
