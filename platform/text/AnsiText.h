// Conversion between wide text and the calling thread's ANSI code page, for the platform's own use. Any thread. Both
// may throw std::bad_alloc, nothing else.
#pragma once

#include "platform/base/Types.h"

#include <string>
#include <string_view>

/// What does not convert becomes U+FFFD in UTF-8 and '?' in any other character set.
std::string AnsiFromWide(std::wstring_view text);
/// What does not decode becomes U+FFFD.
std::wstring WideFromAnsi(std::string_view text);
