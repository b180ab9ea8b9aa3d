// See KernelObject.h.
#include "platform/base/KernelObject.h"

HandleTable<KernelObject> &KernelObjects() {
  static auto &table = *new HandleTable<KernelObject>(0x104);
  return table;
}
