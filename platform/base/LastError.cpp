// See LastError.h.
#include "platform/base/LastError.h"

namespace {
thread_local DWORD t_dwLastError = ERROR_SUCCESS;
} // namespace

DWORD GetLastError() { return t_dwLastError; }
void SetLastError(DWORD dwError) { t_dwLastError = dwError; }
