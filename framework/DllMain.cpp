// The module's entry on the native platform, compiled for that one only: the framework's duties when the module is
// attached to a process and detached from it. The framework keeps no application, no resources and no state per thread,
// so they are few. Thread: any, under the loader's lock: nothing here may load a library or wait for another thread.
#include "framework/InternetSession.h"
#include "framework/Wnd.h"

extern "C" BOOL WINAPI DllMain(HINSTANCE /*hInstance*/, DWORD dwReason, void *pReserved) {
  if (dwReason == DLL_PROCESS_ATTACH)
    AfxGetModuleState(); // created before two threads can ask for it
  // A module that is unloaded leaves its window classes behind, with a procedure that is no longer there. At the end of
  // the process (pReserved is not null) there is nothing to do.
  if (dwReason == DLL_PROCESS_DETACH && !pReserved)
    UnregisterClassW(kWndClassName, nullptr);
  return TRUE;
}
