// Windows, queues and the descriptor: order, nesting, ends of windows and threads, and what a forked child sees.
#include "framework/Wnd.h"
#include "platform/base/LastError.h"

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <thread>
#include <vector>

#include <sys/wait.h>
#include <unistd.h>

namespace {

using Handler = std::function<void(WPARAM)>;
constexpr int kAll = 1 << 30;

LRESULT TestProc(HWND hWnd, UINT, WPARAM wParam, LPARAM) {
  if (auto *const target = reinterpret_cast<Handler *>(GetWindowLongPtrW(hWnd, GWLP_USERDATA)))
    (*target)(wParam);
  return 0;
}

/// A window whose messages go to a function; its destructor destroys it.
struct TestWindow {
  explicit TestWindow(Handler itsHandler) : handler(std::move(itsHandler)) {
    WNDCLASSEXW wndClass = {};
    wndClass.cbSize = sizeof wndClass;
    wndClass.lpfnWndProc = TestProc;
    wndClass.lpszClassName = L"TestWindow";
    RegisterClassExW(&wndClass);
    hWnd = CreateWindowExW(0, L"TestWindow", nullptr, 0, 0, 0, 0, 0, nullptr, nullptr, nullptr, nullptr);
    SetWindowLongPtrW(hWnd, GWLP_USERDATA, reinterpret_cast<LONG_PTR>(&handler));
  }
  ~TestWindow() { DestroyWindow(hWnd); }
  BOOL Post(WPARAM wParam) const { return PostMessageW(hWnd, WM_APP, wParam, 0); }

  Handler handler;
  HWND hWnd;
};

TEST(Messages, KeepTheOrderOfEachThreadAcrossTwoWindows) {
  constexpr int kEach = 1000;
  std::vector<WPARAM> ran[2];
  Handler const note = [&](WPARAM w) { ran[w / kEach].push_back(w % kEach); };
  TestWindow const first(note), second(note);
  std::vector<std::thread> posters;
  for (int thread = 0; thread < 2; ++thread)
    posters.emplace_back([&, thread] {
      for (int n = 0; n < kEach; ++n)
        (n % 3 ? first : second).Post(static_cast<WPARAM>(thread) * kEach + static_cast<WPARAM>(n));
    });
  for (int done = 0; done < 2 * kEach;) {
    ASSERT_EQ(WaitForMessages(10000), 1);
    done += PumpMessages(64);
  }
  for (std::thread &poster : posters)
    poster.join();
  for (auto const &numbers : ran)
    for (int n = 0; n < kEach; ++n)
      ASSERT_EQ(numbers.at(static_cast<std::size_t>(n)), static_cast<WPARAM>(n));
  EXPECT_EQ(WaitForMessages(0), 0);
}

TEST(Messages, NestedPumpKeepsTheOrderAndWhatArrivesMeanwhileWaits) {
  std::vector<WPARAM> ran;
  int nested = 0;
  TestWindow *self = nullptr;
  TestWindow window([&](WPARAM w) {
    ran.push_back(w);
    if (w == 2) {
      self->Post(6);
      EXPECT_EQ(WaitForMessages(0), 1) << "a loop inside the handler must see the rest";
      nested = PumpMessages(2);
    }
  });
  self = &window;
  for (WPARAM w = 1; w <= 5; ++w)
    window.Post(w);
  EXPECT_EQ(PumpMessages(kAll), 3); // 1, 2 and 5
  EXPECT_EQ(nested, 2);
  EXPECT_EQ(ran, (std::vector<WPARAM>{1, 2, 3, 4, 5}));
  EXPECT_EQ(PumpMessages(kAll), 1);
  EXPECT_EQ(ran.back(), 6U);
}

TEST(Messages, DestroyedWindowTakesItsOwnMessagesAndNoOthers) {
  for (bool const isFromOtherThread : {false, true}) {
    std::vector<WPARAM> ran;
    std::unique_ptr<TestWindow> doomed;
    TestWindow const kept([&](WPARAM w) { ran.push_back(w); });
    doomed = std::make_unique<TestWindow>([&](WPARAM w) {
      ran.push_back(w);
      auto const destroy = [hWnd = doomed->hWnd] { EXPECT_TRUE(DestroyWindow(hWnd)); };
      isFromOtherThread ? std::thread(destroy).join() : destroy();
      EXPECT_FALSE(doomed->Post(9));
      EXPECT_EQ(GetLastError(), ERROR_INVALID_WINDOW_HANDLE);
    });
    for (WPARAM w = 1; w <= 4; ++w)
      (w % 2 ? *doomed : kept).Post(w);
    EXPECT_EQ(PumpMessages(kAll), 3);
    EXPECT_EQ(ran, (std::vector<WPARAM>{1, 2, 4}));
  }
}

TEST(Messages, QueueOfAnEndedThreadTakesNoPostsButCanBeEmptied) {
  std::unique_ptr<TestWindow> window;
  std::thread([&] {
    window = std::make_unique<TestWindow>([](WPARAM) {});
    window->Post(7);
  }).join();
  EXPECT_FALSE(window->Post(8));
  EXPECT_EQ(PumpMessages(kAll), 0);
  MSG message;
  ASSERT_TRUE(PeekMessageW(&message, window->hWnd, WM_APP, WM_APP, PM_REMOVE));
  EXPECT_EQ(message.wParam, 7U);
  EXPECT_TRUE(DestroyWindow(window->hWnd));
}

TEST(Messages, ForkedChildLeavesTheParentsQueueAloneAndCanHaveItsOwn) {
  int ranCount = 0;
  TestWindow const window([&](WPARAM) { ++ranCount; });
  window.Post(1);
  pid_t const child = fork();
  if (child == 0) {
    MSG message;
    bool const isLeftAlone = PumpMessages(kAll) == 0 && WaitForMessages(-1) == 0 && !window.Post(2) &&
                             !PeekMessageW(&message, window.hWnd, 0, WM_APP, PM_REMOVE) && !DestroyWindow(window.hWnd);
    if (MessageQueueDescriptor() == -1 || WaitForMessages(0) != 0) // a loop may be attached before there is a window
      _exit(3);
    TestWindow const own([](WPARAM) {});
    _exit(!isLeftAlone ? 1 : own.Post(3) && WaitForMessages(0) == 1 && PumpMessages(kAll) == 1 ? 0 : 2);
  }
  int status = -1;
  EXPECT_EQ(waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
  EXPECT_EQ(PumpMessages(kAll), 1);
  EXPECT_EQ(ranCount, 1);
}

} // namespace
