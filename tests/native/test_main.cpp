// Runs the tests that need no seam on the native platform, where a thread that reads replies initialises COM; and the
// pump of that platform alone.
#include "framework/ComTypes.h"
#include "platform/window/Messages.h"

#include <gtest/gtest.h>

namespace {

TEST(Pump, RunsAtMostSoManyMessagesAndReturnsTheirNumber) {
  HWND const window = CreateWindowExW(0, L"STATIC", L"", WS_POPUP, 0, 0, 0, 0, nullptr, nullptr, nullptr, nullptr);
  ASSERT_NE(window, nullptr);
  PumpMessages(64);
  EXPECT_EQ(WaitForMessages(0), 0);
  EXPECT_EQ(PumpMessages(64), 0);
  for (int n = 0; n < 3; ++n)
    EXPECT_TRUE(PostMessageW(window, WM_APP, 0, 0));
  EXPECT_EQ(WaitForMessages(0), 1);
  EXPECT_EQ(PumpMessages(1), 1);
  EXPECT_EQ(PumpMessages(64), 2);
  EXPECT_TRUE(PostMessageW(window, WM_KEYDOWN, 'A', 0x1E0001));
  EXPECT_EQ(PumpMessages(64), 2) << "the key and its character";
  PostQuitMessage(3);
  EXPECT_EQ(PumpMessages(64), 0);
  MSG message = {};
  EXPECT_TRUE(PeekMessageW(&message, nullptr, 0, 0, PM_REMOVE));
  EXPECT_EQ(message.message, UINT{WM_QUIT});
  EXPECT_EQ(message.wParam, WPARAM{3});
  DestroyWindow(window);
}

} // namespace

int main(int count, char **arguments) {
  ComScope const com;
  testing::InitGoogleTest(&count, arguments);
  return RUN_ALL_TESTS();
}
