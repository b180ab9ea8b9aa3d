// The progress proxy when posting fails, and the preset's form.
#include "platform/base/LastError.h"
#include "publish/CUploadProgressProxyWindow.h"
#include "publish/PresetForm.h"
#include "tests/cpp/platform/TestHooks.h"
#include "tests/cpp/upload/receiver.h"

#include <gtest/gtest.h>

namespace {

TEST(ProgressProxy, RetriesOnlyTheCompletionWhenOutOfMemory) {
  int nFailures = 0, nSlept = 0, nYielded = 0;
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
  int nChecked = 0;
  PlatformTestHooks hooks;
  hooks.fault = [&nChecked](FaultPoint, DWORD *) { return ++nChecked > 2; };
  SetPlatformTestHooks(&hooks);
  EXPECT_TRUE(PresetFilesExist(files) && nChecked == 2);
  EXPECT_FALSE(PresetFilesExist(files));
  SetPlatformTestHooks(nullptr);
  PresetField const fields[] = {{"bytes", "b"},
                                {"text", L"\u00E4", TextRule::Utf8},
                                {"null", nullptr, TextRule::Utf8},
                                {"left out", nullptr, TextRule::Utf8UnlessEmpty}};
  UploadJob job;
  FillPresetForm(job, fields, files);
  EXPECT_EQ(job.m_mapFields, (UploadFields{{"bytes", "b"}, {"text", "\xC3\xA4"}, {"null", ""}}));
  std::wstring parts;
  for (UploadFile const &file : job.m_vecFiles)
    parts += file.m_strName + L"=" + file.m_strPath + L" ";
  EXPECT_EQ(parts, L"one=/ two=/. three=/. ");
}

} // namespace
