#include "platform/base/Clock.h"

#include "platform/base/Seam.h"

DWORD GetTickCount() { return static_cast<DWORD>(SteadyMilliseconds()); }

void Sleep(DWORD dwMilliseconds) { SleepMilliseconds(dwMilliseconds); }
