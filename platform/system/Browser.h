// Opening a page in the user's browser. Knows nothing of which pages are opened.
#pragma once

#include "platform/base/Types.h"

constexpr int SW_SHOWNORMAL = 1;

/// Passes an address to xdg-open, by argument vector, never a shell. Does not wait for the browser. Which addresses may
/// be opened is the caller's decision. Thread: any. Returns: a value over 32 on success. Errors: 2 (no opener), 5 (no
/// address, or an opener that does not start), 8. Differs: "open" only, without parameters and directory.
SKIFFPORT_PLATFORM_API void *ShellExecuteW(void *hWindow, WCHAR const *wszVerb, WCHAR const *wszFile,
                                           WCHAR const *wszParameters, WCHAR const *wszDirectory, int nShow);
