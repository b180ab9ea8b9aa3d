#include "platform/base/Handles.h"

#include "platform/base/KernelObject.h"
#include "platform/base/LastError.h"

#include <new>

HandleTable<KernelObject> &KernelObjects() {
  static auto &table = *new HandleTable<KernelObject>(0x104);
  return table;
}

BOOL DuplicateHandle(HANDLE hSourceProcess, HANDLE hSource, HANDLE hTargetProcess, HANDLE *phTarget, DWORD /*dwAccess*/,
                     BOOL bInherit, DWORD dwOptions) try {
  bool const isOurs = hSourceProcess == GetCurrentProcess() && hTargetProcess == GetCurrentProcess();
  if (!isOurs || !phTarget || bInherit || dwOptions != DUPLICATE_SAME_ACCESS)
    return Fail(ERROR_INVALID_PARAMETER, FALSE);
  auto object = FindKernelObject<KernelObject>(hSource);
  if (!object)
    return FALSE;
  *phTarget = KernelObjects().Add(std::move(object));
  return TRUE;
} catch (std::bad_alloc const &) {
  return Fail(ERROR_NOT_ENOUGH_MEMORY, FALSE);
}

BOOL CloseHandle(HANDLE hObject) { return KernelObjects().Remove(hObject) ? TRUE : Fail(ERROR_INVALID_HANDLE, FALSE); }
