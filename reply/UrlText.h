// The percent decoder for addresses, shared by service and publish. A pure function; any thread.
#pragma once

#include <string>

/// Replaces each "%" and the two characters after it by the one character whose code (0 to 255) they give as
/// hexadecimal digits. Escapes are not combined as UTF-8, and "+" stays. If only the first of the two is a digit, it
/// alone is the code. The text ends at a pair that does not start with a digit, at "%00", and at a "%" with fewer than
/// two characters after it. Returns: at most 2,047 characters, the rest is cut; an empty text for null. May throw
/// std::bad_alloc.
std::wstring DecodeURLText(wchar_t const *wszText);
