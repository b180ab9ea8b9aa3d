// The progress proxy: every call reaches the owner thread unchanged, and none is lost or leaked.
#include "publish/CUploadProgressProxyWindow.h"
#include "tests/cpp/upload/receiver.h"

#include <gtest/gtest.h>

#include <thread>

static void MakeEveryCall(BackgroundUploadProgress &progress) {
  WCHAR text[] = L"h";
  progress.OnResolvingName(text);
  text[0] = L'?'; // the caller may reuse its text as soon as the call returns
  progress.OnNameResolved(L"1");
  progress.OnConnectingToServer(L"2");
  progress.OnConnectedToServer(L"3");
  progress.OnSendingRequest();
  progress.OnRequestSent(0xFFFFFFFF);
  progress.OnReceivingResponse();
  progress.OnResponseReceived(4);
  progress.OnClosingConnection();
  progress.OnConnectionClosed();
  progress.OnFileBegin(L"/a");
  progress.OnFileProgress(L"/a", 1, 2, 3, 4, 5, 6, 7);
  progress.OnFileComplete(L"/a", E_FAIL);
  progress.OnBackgroundUploadBegin();
  progress.OnBackgroundUploadComplete(E_FAIL);
}

TEST(ProgressProxy, CarriesEveryCallToTheOwnerThreadInOrder) {
  for (DWORD const dwMask : {0xFFFFFFFFU, 0x00000003U, 0xFFFFFFFCU, 0xFFFFFFFDU}) {
    Receiver receiver;
    CUploadProgressProxyWindow proxy(&receiver);
    proxy.SetNotifyMask(dwMask);
    proxy.CreateProxyWindow();
    std::thread([&proxy] { MakeEveryCall(proxy); }).join();
    EXPECT_TRUE(receiver.calls.empty()) << "nothing runs before the pump";
    PumpMessages(64);
    EXPECT_EQ(receiver.calls, std::wstring(L"resolving h; resolved 1; connecting 2; connected 3; ") +
                                  (dwMask & NOTIFY_SENDING_REQUEST ? L"sending; " : L"") +
                                  (dwMask & NOTIFY_REQUEST_SENT ? L"sent 4294967295; " : L"") +
                                  L"receiving; received 4; closing; closed; begin /a; progress /a 1 2 3 4 5 6 7; "
                                  L"complete /a-2147467259; upload begin; upload complete -2147467259; ")
        << dwMask;
  }
}

TEST(ProgressProxy, DropsAndFreesQueuedCommandsWhenDestroyed) { // LeakSanitizer reports those that are not freed
  Receiver receiver;
  {
    CUploadProgressProxyWindow proxy(&receiver);
    proxy.CreateProxyWindow();
    MakeEveryCall(proxy);
  }
  PumpMessages(64);
  EXPECT_TRUE(receiver.calls.empty());
}
