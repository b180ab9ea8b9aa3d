// The progress proxy: every call crosses to the owner thread as it was made, and none is lost or leaked.
#include "platform/LastError.h"
#include "platform/TestSeam.h"
#include "publish/CUploadProgressProxyWindow.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <thread>

namespace {

// Writes down each call, with its arguments and whether it came on the thread that made the receiver.
class Receiver : public BackgroundUploadProgress {
public:
  std::wstring calls;

  void OnResolvingName(WCHAR const *text) override { Note(L"resolving ", text); }
  void OnNameResolved(WCHAR const *text) override { Note(L"resolved ", text); }
  void OnConnectingToServer(WCHAR const *text) override { Note(L"connecting ", text); }
  void OnConnectedToServer(WCHAR const *text) override { Note(L"connected ", text); }
  void OnSendingRequest() override { Note(L"sending"); }
  void OnRequestSent(DWORD bytes) override { Note(L"sent ", std::to_wstring(bytes)); }
  void OnReceivingResponse() override { Note(L"receiving"); }
  void OnResponseReceived(DWORD bytes) override { Note(L"received ", std::to_wstring(bytes)); }
  void OnClosingConnection() override { Note(L"closing"); }
  void OnConnectionClosed() override { Note(L"closed"); }
  void OnFileBegin(WCHAR const *path) override { Note(L"begin ", path); }
  void OnFileProgress(WCHAR const *path, DWORD a, DWORD b, DWORD c, DWORD d, DWORD e, DWORD f, DWORD g) override {
    std::wstring numbers = path;
    for (DWORD const number : {a, b, c, d, e, f, g})
      numbers += L" " + std::to_wstring(number);
    Note(L"progress ", numbers);
  }
  void OnFileComplete(WCHAR const *path, HRESULT hr) override { Note(L"complete ", path + std::to_wstring(hr)); }
  bool IsCancelled() override { return false; }
  void OnBackgroundUploadBegin() override { Note(L"upload begin"); }
  void OnBackgroundUploadComplete(long hr) override { Note(L"upload complete ", std::to_wstring(hr)); }

private:
  void Note(std::wstring const &call, std::wstring const &argument = L"") {
    calls += (std::this_thread::get_id() == m_owner ? call + argument : L"on a foreign thread") + L"; ";
  }
  std::thread::id m_owner = std::this_thread::get_id();
};

void MakeEveryCall(BackgroundUploadProgress &progress) {
  WCHAR text[] = L"h";
  progress.OnResolvingName(text);
  text[0] = L'?'; // the caller's text is free again as soon as the call returns
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

constexpr wchar_t kBefore[] = L"resolving h; resolved 1; connecting 2; connected 3; ";
constexpr wchar_t kBehind[] = L"receiving; received 4; closing; closed; begin /a; progress /a 1 2 3 4 5 6 7; "
                              L"complete /a-2147467259; upload begin; upload complete -2147467259; ";

TEST(ProgressProxy, CarriesEveryCallToTheOwnerThreadInOrder) {
  for (DWORD const dwMask : {0xFFFFFFFFU, 0x00000003U, 0xFFFFFFFCU, 0xFFFFFFFDU}) {
    Receiver receiver;
    CUploadProgressProxyWindow proxy(&receiver);
    proxy.SetNotifyMask(dwMask);
    proxy.CreateProxyWindow();
    std::thread([&proxy] { MakeEveryCall(proxy); }).join();
    EXPECT_TRUE(receiver.calls.empty()) << "nothing runs before the pump";
    PumpMessages(64);
    std::wstring const sending = dwMask & NOTIFY_SENDING_REQUEST ? L"sending; " : L"";
    std::wstring const sent = dwMask & NOTIFY_REQUEST_SENT ? L"sent 4294967295; " : L"";
    EXPECT_EQ(receiver.calls, kBefore + sending + sent + kBehind) << dwMask;
  }
}

TEST(ProgressProxy, DropsAndFreesWhatWaitsWhenItGoes) { // the leak check sees commands that stay behind
  Receiver receiver;
  Receiver other;
  CUploadProgressProxyWindow stays(&other);
  stays.CreateProxyWindow();
  {
    CUploadProgressProxyWindow proxy(&receiver);
    proxy.CreateProxyWindow();
    MakeEveryCall(proxy);
    stays.OnReceivingResponse();
  }
  PumpMessages(64);
  EXPECT_TRUE(receiver.calls.empty());
  EXPECT_EQ(other.calls, L"receiving; ");
}

TEST(ProgressProxy, TriesTheCompletionAgainWhileMemoryIsShort) {
  int nFailures = 0;
  int nSlept = 0;
  DWORD dwFailure = ERROR_NOT_ENOUGH_MEMORY;
  PlatformTestHooks hooks;
  hooks.sleep = [&nSlept](DWORD ms) { nSlept += ms > 0; };
  hooks.fault = [&](char const *szCall, DWORD *pdwError) {
    *pdwError = dwFailure;
    return std::strcmp(szCall, "PostMessageW") == 0 && nFailures-- > 0;
  };
  Receiver receiver;
  CUploadProgressProxyWindow proxy(&receiver);
  proxy.CreateProxyWindow();
  SetPlatformTestHooks(&hooks);
  nFailures = 3;
  proxy.OnBackgroundUploadComplete(0);
  EXPECT_EQ(nSlept, 3);
  dwFailure = ERROR_INVALID_WINDOW_HANDLE; // a window that is gone does not come back
  nFailures = 1;
  proxy.OnBackgroundUploadComplete(1);
  nFailures = 1;
  proxy.OnReceivingResponse(); // any other call is simply lost
  SetPlatformTestHooks(nullptr);
  PumpMessages(64);
  EXPECT_EQ(receiver.calls, L"upload complete 0; ");
}

} // namespace
