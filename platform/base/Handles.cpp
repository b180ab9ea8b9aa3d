// See Handles.h.
#include "platform/base/Handles.h"

#include "platform/base/KernelObject.h"

#include <new>

BOOL DuplicateHandle(HANDLE hSourceProcess, HANDLE hSource, HANDLE hTargetProcess, HANDLE *phTarget, DWORD /*dwAccess*/,
                     BOOL bInherit, DWORD dwOptions) try {
  bool const bOurs = hSourceProcess == GetCurrentProcess() && hTargetProcess == GetCurrentProcess();
  if (!bOurs || !phTarget || bInherit || dwOptions != DUPLICATE_SAME_ACCESS) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return FALSE;
  }
  auto object = FindKernelObject<KernelObject>(hSource);
  if (!object)
    return FALSE;
  *phTarget = KernelObjects().Add(std::move(object));
  return TRUE;
} catch (std::bad_alloc const &) {
  SetLastError(ERROR_NOT_ENOUGH_MEMORY);
  return FALSE;
}

BOOL CloseHandle(HANDLE hObject) {
  if (KernelObjects().Remove(hObject))
    return TRUE;
  SetLastError(ERROR_INVALID_HANDLE);
  return FALSE;
}
