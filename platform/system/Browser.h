// Opening a page in the user's browser.
#pragma once

#include "platform/base/Types.h"

constexpr int SW_SHOWNORMAL = 1;

/// Opens an absolute http or https address with xdg-open, by argument vector, never a shell. Does not wait for the
/// browser. Returns: a value over 32 on success. Errors: 2 (no opener), 5 (an address that is not opened).
/// Differs: "open" on a web address only; one without a host, or with a control character or an invisible one (of no
/// width, a mark of direction, a separator of lines), is refused. Blanks go to the opener as they stand.
SKIFFPORT_PLATFORM_API void *ShellExecuteW(void *hWindow, WCHAR const *wszVerb, WCHAR const *wszFile,
                                           WCHAR const *wszParameters, WCHAR const *wszDirectory, int nShow);
