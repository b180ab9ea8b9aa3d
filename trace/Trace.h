// The trace of the process: each call writes one line to the debug output or to the event-trace library. Two registry
// values switch it: "DumpMsg" and "DumpInETW" under HKEY_LOCAL_MACHINE\SoftWare\Quillon\Tintwright. Knows nothing of
// Python.
//
// Thread: any, for all three functions. They report no errors.
#pragma once

#include <cwchar>

/// Reads the switches again; without the registry key they stay as they are. If one of them is on, every later line of
/// the process starts with "[szPrefix] "; a null prefix, or one of 64 bytes or more, leaves the earlier one in place.
void TraceInit(char const *szPrefix);

/// Writes the prefix, the formatted text (cut after 1023 characters) and a line feed, if "DumpMsg" is on. Control
/// characters in the text, but for tabs and a line feed at its end, are written as \uXXXX.
void TraceMsgA(char const *szFormat, ...);
/// The same with a wide format, in which %s is wide and %S narrow.
void TraceMsgW(wchar_t const *wszFormat, ...);
