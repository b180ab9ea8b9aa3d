// Which addresses of the service's replies may be opened in the user's browser. A pure function; any thread. Knows
// nothing of Python.
#pragma once

#include <string_view>

/// True for an absolute http or https address with a host: on Windows anything else, such as the path of a
/// program, would be run. It may hold blanks, but no control character and none of the marks that change the
/// direction of text (RFC 3987, section 4.1), which would show the user another address than the one that is opened.
bool IsWebAddress(std::wstring_view address);
