// Reading the registry: a text file in the form that the native registry editor exports, at $SKIFFPORT_REGISTRY, else
// /etc/skiffport/registry.reg; UTF-8, or UTF-16 with its byte order mark. No file means no key. Each
// RegOpenKeyExW reads the file again. Thread: any, for every function here.
#pragma once

#include "platform/base/Types.h"

using HKEY = void *;
inline const HKEY HKEY_LOCAL_MACHINE = reinterpret_cast<HKEY>(static_cast<std::intptr_t>(0x80000002));
constexpr DWORD KEY_QUERY_VALUE = 1;

/// Opens a key by its path below a root. Returns: 0, or the error number: 2 for no such key, and for a file that is
/// missing, unreadable, larger than 1 MiB or not decodable; 6, 8, 87.
/// Differs: HKEY_LOCAL_MACHINE and KEY_QUERY_VALUE only; case is ignored in the letters A to Z only.
SKIFFPORT_PLATFORM_API LONG RegOpenKeyExW(HKEY hRoot, WCHAR const *wszPath, DWORD dwOptions, DWORD dwAccess,
                                          HKEY *phKey);

/// Reads a value of the key. Returns: 0, or the error number: 2 (no such value), 234 (larger than `*pcbData`, which is
/// then set), 6, 8, 87.
/// Differs: dword values only; a value of any other type counts as absent.
SKIFFPORT_PLATFORM_API LONG RegQueryValueExW(HKEY hKey, WCHAR const *wszName, DWORD *pReserved, DWORD *pdwType,
                                             BYTE *pbData, DWORD *pcbData);
/// Closes a key. Returns: 0, or 6 for a handle that is not open.
SKIFFPORT_PLATFORM_API LONG RegCloseKey(HKEY hKey);
