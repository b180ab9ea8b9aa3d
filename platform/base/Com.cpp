#include "platform/base/Com.h"

namespace {
thread_local int t_initialisations = 0;
} // namespace

HRESULT CoInitialize(void * /*pReserved*/) { return t_initialisations++ == 0 ? S_OK : S_FALSE; }

void CoUninitialize() {
  if (t_initialisations > 0)
    --t_initialisations;
}
