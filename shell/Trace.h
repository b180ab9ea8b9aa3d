// The process's trace: one line a call, to the debug output or to the event-trace library, switched by two registry
// values
// ("DumpMsg", "DumpInETW" under HKEY_LOCAL_MACHINE\SoftWare\Quillon\Tintwright). Knows nothing of Python. All three
// functions may be called from any thread, report nothing and cannot fail visibly.
#pragma once

#include <cwchar>

/// Reads the switches anew and makes "[szPrefix] " the start of every later line of the process. A null prefix, or one
/// of 64 bytes or more, leaves the prefix as it is; no registry key leaves the switches as they are.
void TraceInit(char const *szPrefix);

/// Writes the prefix, the formatted text (at most 1023 characters, the rest is cut) and a line feed.
void TraceMsgA(char const *szFormat, ...);
/// The same with a wide format, in which %s is wide and %S narrow.
void TraceMsgW(wchar_t const *wszFormat, ...);
