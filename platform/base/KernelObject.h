// What a HANDLE stands for: the one table that threads and open files share, so that CloseHandle serves both. Any
// thread. Knows nothing of the kinds of objects.
#pragma once

#include "platform/base/HandleTable.h"
#include "platform/base/LastError.h"

struct KernelObject {
  virtual ~KernelObject() = default;
};

/// Never destroyed: a thread may still run at exit.
HandleTable<KernelObject> &KernelObjects();

/// The object if the handle is one of that kind; else null, with ERROR_INVALID_HANDLE.
template <class Object> std::shared_ptr<Object> FindKernelObject(HANDLE handle) {
  auto object = std::dynamic_pointer_cast<Object>(KernelObjects().Find(handle));
  if (!object)
    SetLastError(ERROR_INVALID_HANDLE);
  return object;
}
