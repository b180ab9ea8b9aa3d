// The pump for a host without a message loop of its own. Runs on the thread whose queue it is.
#include "platform/window/Messages.h"

int MessageQueueDescriptor() { return -1; }

int PumpMessages(int nLimit) {
  int ran = 0;
  for (MSG message; ran < nLimit && PeekMessageW(&message, nullptr, 0, 0, PM_REMOVE); ++ran) {
    if (message.message == WM_QUIT) { // for the loop outside this call, which must end, too
      PostQuitMessage(static_cast<int>(message.wParam));
      break;
    }
    TranslateMessage(&message);
    DispatchMessageW(&message);
  }
  return ran;
}

int WaitForMessages(int nMilliseconds) {
  DWORD const limit = nMilliseconds < 0 ? INFINITE : static_cast<DWORD>(nMilliseconds);
  return MsgWaitForMultipleObjectsEx(0, nullptr, limit, QS_ALLINPUT, MWMO_INPUTAVAILABLE) == WAIT_OBJECT_0 ? 1 : 0;
}

BOOL ReleaseMessageQueue() { return TRUE; }
