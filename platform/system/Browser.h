// Opening a page in the user's browser. Knows nothing of which pages are opened.
#pragma once

#include "platform/base/Types.h"

constexpr int SW_SHOWNORMAL = 1;

/// Opens an absolute http or https address with xdg-open, by argument vector, never a shell. Does not wait for the
/// browser. Thread: any. Returns: a value over 32 on success. Errors: 2 (no opener), 5 (an address that is refused, or
/// an opener that does not start), 8. Differs: "open" on a web address only; one without a host, or with a control
/// character or an invisible one (zero width, direction mark, line separator), is refused. Blanks go to the opener as
/// they are.
SKIFFPORT_PLATFORM_API void *ShellExecuteW(void *hWindow, WCHAR const *wszVerb, WCHAR const *wszFile,
                                           WCHAR const *wszParameters, WCHAR const *wszDirectory, int nShow);
