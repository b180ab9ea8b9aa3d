// COM's initialisation of a thread. Thread: any, for every function here; each thread counts on its own.
#pragma once

#include "platform/base/Types.h"

/// Returns: S_OK, or S_FALSE if the calling thread had called it before. Differs: only counts.
SKIFFPORT_PLATFORM_API HRESULT CoInitialize(void *pReserved);
SKIFFPORT_PLATFORM_API void CoUninitialize();
