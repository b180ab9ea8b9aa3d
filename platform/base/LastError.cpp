#include "platform/base/LastError.h"

namespace {
thread_local DWORD t_lastError = ERROR_SUCCESS;
} // namespace

DWORD GetLastError() { return t_lastError; }
void SetLastError(DWORD dwError) { t_lastError = dwError; }
