// The progress proxy when posting fails.
#include "platform/base/LastError.h"
#include "publish/CUploadProgressProxyWindow.h"
#include "tests/cpp/platform/TestHooks.h"
#include "tests/cpp/upload/receiver.h"

#include <gtest/gtest.h>

TEST(ProgressProxy, RetriesOnlyTheCompletionWhenOutOfMemory) {
  int nFailures = 3, nSlept = 0, nYielded = 0;
  DWORD dwFailure = ERROR_NOT_ENOUGH_MEMORY;
  Receiver receiver;
  CUploadProgressProxyWindow proxy(&receiver);
  proxy.CreateProxyWindow();
  auto const fail = [&](FaultPoint call, DWORD *pdwError) {
    return *pdwError = dwFailure, call == FaultPoint::PostMessageW && nFailures-- > 0;
  };
  ScopedTestHooks const hooks({.sleep = [&](DWORD ms) { ++(ms > 0 ? nSlept : nYielded); }, .fault = fail});
  proxy.OnBackgroundUploadComplete(0);
  EXPECT_TRUE(nSlept == 3 && nYielded == 4) << "it yields after every post, even a failed one";
  EXPECT_FALSE(proxy.TakeLostCompletion());
  dwFailure = ERROR_INVALID_WINDOW_HANDLE; // a window that is gone stays gone
  nFailures = 1;
  proxy.OnBackgroundUploadComplete(1);
  EXPECT_TRUE(proxy.TakeLostCompletion());
  nFailures = 1;
  proxy.OnReceivingResponse(); // any other call is simply lost
  PumpMessages(64);
  EXPECT_EQ(receiver.calls, L"upload complete 0; ");
}
