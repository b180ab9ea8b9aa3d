// Conversion between wide characters and bytes by code page. Thread: any, for every function here; the ANSI code pages
// depend on the calling thread's locale.
#pragma once

#include "platform/base/Types.h"

constexpr UINT CP_ACP = 0;
constexpr UINT CP_THREAD_ACP = 3;
constexpr UINT CP_UTF8 = 65001;

/// Converts `cchWide` wide characters (-1: up to and with the terminator) to bytes of the code page. With `cbBytes` 0
/// it only measures. CP_ACP and CP_THREAD_ACP are the character set of the calling thread's locale; the plain C locale
/// counts as UTF-8. In UTF-8 a unit that is not a character becomes U+FFFD, and two units that form a surrogate pair
/// become the character they stand for; elsewhere what does not convert becomes '?'. Returns: bytes written or needed
/// (up to four a unit), 0 on failure (last error 87, 122). Differs: flags 0, no default character from the caller.
SKIFFPORT_PLATFORM_API int WideCharToMultiByte(UINT uCodePage, DWORD dwFlags, WCHAR const *wszWide, int cchWide,
                                               char *szBytes, int cbBytes, char const *szDefault, BOOL *pbUsedDefault);

/// Converts `cbBytes` bytes (-1: up to and with the terminator) of the code page to wide characters. What does not
/// decode becomes U+FFFD (Unicode 15, table 3-8: one for each maximal subpart). With `cchWide` 0 it only measures.
/// Returns: characters written or needed, 0 on failure (last error 87, 122). Differs: flags 0.
SKIFFPORT_PLATFORM_API int MultiByteToWideChar(UINT uCodePage, DWORD dwFlags, char const *szBytes, int cbBytes,
                                               WCHAR *wszWide, int cchWide);
