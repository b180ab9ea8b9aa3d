// The bounded text functions of the native run-time library, with its conventions: in a wide format %s is wide and %S
// narrow, a null string prints "(null)", and a text that does not fit is cut and terminated. Thread: any, for every
// function here; narrow text in a wide format is in the thread's ANSI code page.
#pragma once

#include "platform/base/Types.h"

#include <cstdarg>

constexpr std::size_t _TRUNCATE = static_cast<std::size_t>(-1);

/// Formats into a buffer of `cbBuffer` bytes, terminator included. Returns: characters written, or -1 if it was cut.
/// Differs: the count is always _TRUNCATE.
SKIFFPORT_PLATFORM_API int _vsnprintf_s(char *szBuffer, std::size_t cbBuffer, std::size_t uCount, char const *szFormat,
                                        va_list args);
/// The same for wide characters. Conversions: %s %S %d %u %x %%, without flags, width, precision and size; null strings
/// print "(null)".
SKIFFPORT_PLATFORM_API int _vsnwprintf_s(WCHAR *wszBuffer, std::size_t cchBuffer, std::size_t uCount,
                                         WCHAR const *wszFormat, va_list args);
SKIFFPORT_PLATFORM_API int _snprintf_s(char *szBuffer, std::size_t cbBuffer, std::size_t uCount, char const *szFormat,
                                       ...);
SKIFFPORT_PLATFORM_API int _snwprintf_s(WCHAR *wszBuffer, std::size_t cchBuffer, std::size_t uCount,
                                        WCHAR const *wszFormat, ...);

/// The decimal number at the start of the text: skips leading blanks, saturates at the limits of int, gives 0 if there
/// is none and for null. Differs: the digits 0 to 9 only.
SKIFFPORT_PLATFORM_API int _wtoi(WCHAR const *wszText);

/// nNumber * nNumerator / nDenominator in 64 bits, rounded to the nearest integer; -1 for a denominator of 0 and for a
/// result that does not fit.
SKIFFPORT_PLATFORM_API int MulDiv(int nNumber, int nNumerator, int nDenominator);
