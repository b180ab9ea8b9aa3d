// The progress proxy: every call reaches the owner thread unchanged, and none is lost or leaked. The preset's form.
#include "platform/base/LastError.h"
#include "publish/CUploadProgressProxyWindow.h"
#include "publish/PresetForm.h"
#include "tests/cpp/platform/TestHooks.h"
#include "tests/cpp/upload/receiver.h"

#include <gtest/gtest.h>

#include <string>
#include <thread>

namespace {

void MakeEveryCall(BackgroundUploadProgress &progress) {
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

constexpr wchar_t kBefore[] = L"resolving h; resolved 1; connecting 2; connected 3; ";
constexpr wchar_t kAfter[] = L"receiving; received 4; closing; closed; begin /a; progress /a 1 2 3 4 5 6 7; "
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
    EXPECT_EQ(receiver.calls, kBefore + sending + sent + kAfter) << dwMask;
  }
}

TEST(ProgressProxy, DropsAndFreesQueuedCommandsWhenDestroyed) { // LeakSanitizer reports those that are not freed
  Receiver receiver;
  Receiver other;
  CUploadProgressProxyWindow survivor(&other);
  survivor.CreateProxyWindow();
  {
    CUploadProgressProxyWindow proxy(&receiver);
    proxy.CreateProxyWindow();
    MakeEveryCall(proxy);
    survivor.OnReceivingResponse();
  }
  PumpMessages(64);
  EXPECT_TRUE(receiver.calls.empty());
  EXPECT_EQ(other.calls, L"receiving; ");
}

TEST(ProgressProxy, RetriesOnlyTheCompletionWhenOutOfMemory) {
  int nFailures = 0;
  int nSlept = 0, nYielded = 0;
  DWORD dwFailure = ERROR_NOT_ENOUGH_MEMORY;
  PlatformTestHooks hooks;
  hooks.sleep = [&](DWORD ms) { ++(ms > 0 ? nSlept : nYielded); };
  hooks.fault = [&](FaultPoint call, DWORD *pdwError) {
    *pdwError = dwFailure;
    return call == FaultPoint::PostMessageW && nFailures-- > 0;
  };
  Receiver receiver;
  CUploadProgressProxyWindow proxy(&receiver);
  proxy.CreateProxyWindow();
  SetPlatformTestHooks(&hooks);
  nFailures = 3;
  proxy.OnBackgroundUploadComplete(0);
  EXPECT_EQ(nSlept, 3);
  EXPECT_EQ(nYielded, 4) << "after every post, even a failed one";
  EXPECT_FALSE(proxy.TakeLostCompletion());
  dwFailure = ERROR_INVALID_WINDOW_HANDLE; // a window that is gone stays gone
  nFailures = 1;
  proxy.OnBackgroundUploadComplete(1);
  EXPECT_TRUE(proxy.TakeLostCompletion());
  nFailures = 1;
  proxy.OnReceivingResponse(); // any other call is simply lost
  SetPlatformTestHooks(nullptr);
  PumpMessages(64);
  EXPECT_EQ(receiver.calls, L"upload complete 0; ");
}

TEST(PresetForm, ChecksEachPathOnceAndAddsFieldsAndFilesByTheirRules) {
  PresetFile const files[] = {{L"/", L"one"}, {L"/.", L"two", L"three"}};
  PresetField const fields[] = {{"bytes", "b"},
                                {"text", L"\u00E4", TextRule::Utf8},
                                {"null", nullptr, TextRule::Utf8},
                                {"left out", nullptr, TextRule::Utf8UnlessEmpty}};
  int nChecked = 0;
  PlatformTestHooks hooks;
  hooks.fault = [&nChecked](FaultPoint, DWORD *) { return ++nChecked > 2; };
  SetPlatformTestHooks(&hooks);
  EXPECT_TRUE(PresetFilesExist(files) && nChecked == 2);
  EXPECT_FALSE(PresetFilesExist(files));
  SetPlatformTestHooks(nullptr);
  UploadJob job;
  FillPresetForm(job, fields, files);
  EXPECT_EQ(job.m_mapFields, (UploadFields{{"bytes", "b"}, {"text", "\xC3\xA4"}, {"null", ""}}));
  std::wstring parts;
  for (UploadFile const &file : job.m_vecFiles)
    parts += file.m_strName + L"=" + file.m_strPath + L" ";
  EXPECT_EQ(parts, L"one=/ two=/. three=/. ");
}

} // namespace
