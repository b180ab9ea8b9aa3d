// The percent decoder of addresses. Shared by service and publish; needs nothing.
#pragma once

#include <string>

/// Turns each "%" and two hexadecimal digits into one character of that code (0 to 255; escapes are not combined as
/// UTF-8, and "+" stays). A single digit counts alone; a pair that does not start with one, "%00", or fewer than two
/// characters behind the "%" end the text. Returns: at most 2,047 characters; the rest is cut. A null text gives an
/// empty one.
std::wstring DecodeURLText(wchar_t const *wszText);
