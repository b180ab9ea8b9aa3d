// Windows, queues and the descriptor: order, nesting, ends of windows and threads, and what a forked child sees.
#include "platform/base/LastError.h"
#include "platform/window/Messages.h"
#include "tests/cpp/platform/helpers.h"

constexpr int kAll = 1 << 30;

/// A window whose messages go to a function.
struct TestWindow {
  explicit TestWindow(std::function<void(WPARAM)> itsHandler) : handler(std::move(itsHandler)) {
    WNDCLASSEXW wndClass = {};
    wndClass.cbSize = sizeof wndClass;
    wndClass.lpszClassName = L"TestWindow";
    wndClass.lpfnWndProc = [](HWND hWnd, UINT, WPARAM wParam, LPARAM) {
      reinterpret_cast<TestWindow *>(GetWindowLongPtrW(hWnd, GWLP_USERDATA))->handler(wParam);
      return LRESULT{0};
    };
    RegisterClassExW(&wndClass);
    hWnd = CreateWindowExW(0, L"TestWindow", nullptr, 0, 0, 0, 0, 0, nullptr, nullptr, nullptr, nullptr);
    SetWindowLongPtrW(hWnd, GWLP_USERDATA, reinterpret_cast<LONG_PTR>(this));
  }
  ~TestWindow() { DestroyWindow(hWnd); }
  BOOL Post(WPARAM wParam) const { return PostMessageW(hWnd, WM_APP, wParam, 0); }

  std::function<void(WPARAM)> handler;
  HWND hWnd;
};

TEST(Messages, KeepTheOrderOfEachThreadAcrossTwoWindows) {
  constexpr WPARAM kEach = 1000;
  std::vector<WPARAM> ran[2];
  auto const note = [&](WPARAM w) { ran[w / kEach].push_back(w % kEach); };
  TestWindow const first(note), second(note);
  auto const post = [&](WPARAM start) {
    for (WPARAM w = start; w < start + kEach; ++w)
      (w % 3 ? first : second).Post(w);
  };
  std::jthread const one(post, 0), two(post, kEach);
  while (ran[0].size() + ran[1].size() < 2 * kEach && WaitForMessages(10000) == 1)
    PumpMessages(64);
  for (auto const &numbers : ran)
    EXPECT_TRUE(numbers.size() == kEach && std::is_sorted(numbers.begin(), numbers.end()));
  EXPECT_EQ(WaitForMessages(0), 0);
}

TEST(Messages, NestedPumpKeepsTheOrderAndWhatArrivesMeanwhileWaits) {
  std::vector<WPARAM> ran;
  int nested = 0;
  TestWindow window([&](WPARAM w) {
    ran.push_back(w);
    if (w == 2 && window.Post(6)) {
      EXPECT_EQ(WaitForMessages(0), 1) << "a loop inside the handler must see the rest";
      nested = PumpMessages(2);
    }
  });
  for (WPARAM w = 1; w <= 5; ++w)
    window.Post(w);
  EXPECT_EQ(PumpMessages(kAll), 3); // 1, 2 and 5
  EXPECT_EQ(nested, 2);
  EXPECT_EQ(PumpMessages(kAll), 1);
  EXPECT_EQ(ran, (std::vector<WPARAM>{1, 2, 3, 4, 5, 6}));
}

TEST(Messages, DestroyedWindowTakesItsOwnMessagesAndNoOthers) {
  for (bool const isFromOtherThread : {false, true}) {
    std::vector<WPARAM> ran;
    TestWindow const kept([&](WPARAM w) { ran.push_back(w); });
    TestWindow doomed([&](WPARAM w) {
      ran.push_back(w);
      auto const destroy = [&] { EXPECT_TRUE(DestroyWindow(doomed.hWnd)); };
      isFromOtherThread ? std::thread(destroy).join() : destroy();
      EXPECT_TRUE(!doomed.Post(9) && GetLastError() == ERROR_INVALID_WINDOW_HANDLE);
    });
    for (WPARAM w = 1; w <= 4; ++w)
      (w % 2 ? doomed : kept).Post(w);
    EXPECT_EQ(PumpMessages(kAll), 3);
    EXPECT_EQ(ran, (std::vector<WPARAM>{1, 2, 4}));
  }
}

TEST(Messages, QueueOfAnEndedThreadTakesNoPostsButCanBeEmptied) {
  std::unique_ptr<TestWindow> window;
  std::thread([&] { (window = std::make_unique<TestWindow>([](WPARAM) {}))->Post(7); }).join();
  EXPECT_TRUE(!window->Post(8) && PumpMessages(kAll) == 0);
  MSG message;
  EXPECT_TRUE(PeekMessageW(&message, window->hWnd, WM_APP, WM_APP, PM_REMOVE) && message.wParam == 7);
}

TEST(Messages, ForkedChildLeavesTheParentsQueueAloneAndCanHaveItsOwn) {
  int ranCount = 0;
  TestWindow const window([&](WPARAM) { ++ranCount; });
  window.Post(1);
  EXPECT_TRUE(HoldsInChild([&] {
    MSG message;
    bool const isLeftAlone = PumpMessages(kAll) == 0 && WaitForMessages(-1) == 0 && !window.Post(2) &&
                             !PeekMessageW(&message, window.hWnd, 0, WM_APP, PM_REMOVE) && !DestroyWindow(window.hWnd);
    bool const hasQueue = MessageQueueDescriptor() != -1 && WaitForMessages(0) == 0; // before there is a window
    TestWindow const own([](WPARAM) {});
    return isLeftAlone && hasQueue && own.Post(3) && WaitForMessages(0) == 1 && PumpMessages(kAll) == 1;
  }));
  EXPECT_TRUE(PumpMessages(kAll) == 1 && ranCount == 1);
}
