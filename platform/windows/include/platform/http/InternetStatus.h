// See Types.h: handles, the status callback, and a function of ours for setting it.
#pragma once

#include "platform/base/Types.h"

#include <wininet.h>

/// As InternetSetStatusCallbackW, but the callback's text is wide in every state: some implementations give narrow text
/// for the states 11, 20 and 21. One callback for the process.
INTERNET_STATUS_CALLBACK SetWideStatusCallback(HINTERNET hSession, INTERNET_STATUS_CALLBACK pfnCallback);
