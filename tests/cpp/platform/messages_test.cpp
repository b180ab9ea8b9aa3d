// Windows, queues and the descriptor: order, nesting, ends of windows and threads, and what a forked child sees.
#include "platform/LastError.h"
#include "platform/Wnd.h"

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <stdexcept>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using Handler = std::function<void(WPARAM)>;
constexpr int kAll = 1 << 30;

LRESULT TestProc(HWND hWnd, UINT, WPARAM wParam, LPARAM) {
  if (auto *const pHandler = reinterpret_cast<Handler *>(GetWindowLongPtrW(hWnd, GWLP_USERDATA)))
    (*pHandler)(wParam);
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

bool IsReadable() {
  pollfd entry = {MessageQueueDescriptor(), POLLIN, 0};
  return poll(&entry, 1, 0) == 1;
}

TEST(Messages, KeepTheOrderOfEachThreadAcrossTwoWindows) {
  constexpr int kEach = 1000;
  std::vector<WPARAM> ran[2];
  Handler const note = [&](WPARAM w) { ran[w / kEach].push_back(w % kEach); };
  TestWindow const first(note), second(note);
  std::vector<std::thread> posters;
  for (int nThread = 0; nThread < 2; ++nThread)
    posters.emplace_back([&, nThread] {
      for (int n = 0; n < kEach; ++n)
        (n % 3 ? first : second).Post(static_cast<WPARAM>(nThread) * kEach + static_cast<WPARAM>(n));
    });
  for (int nDone = 0; nDone < 2 * kEach;) {
    ASSERT_EQ(WaitForMessages(10000), 1);
    nDone += PumpMessages(64);
  }
  for (std::thread &poster : posters)
    poster.join();
  for (auto const &numbers : ran)
    for (int n = 0; n < kEach; ++n)
      ASSERT_EQ(numbers.at(static_cast<std::size_t>(n)), static_cast<WPARAM>(n));
  EXPECT_FALSE(IsReadable());
}

TEST(Messages, NestedPumpKeepsTheOrderAndWhatCameInMeanwhileWaits) {
  std::vector<WPARAM> ran;
  int nNested = 0;
  TestWindow *pWindow = nullptr;
  TestWindow window([&](WPARAM w) {
    ran.push_back(w);
    if (w == 2) {
      pWindow->Post(6);
      EXPECT_TRUE(IsReadable()); // a loop inside the handler must see the rest
      nNested = PumpMessages(2);
    }
  });
  pWindow = &window;
  for (WPARAM w = 1; w <= 5; ++w)
    window.Post(w);
  EXPECT_EQ(PumpMessages(kAll), 3); // 1, 2 and 5
  EXPECT_EQ(nNested, 2);
  EXPECT_EQ(ran, (std::vector<WPARAM>{1, 2, 3, 4, 5}));
  EXPECT_TRUE(IsReadable());
  EXPECT_EQ(PumpMessages(kAll), 1);
  EXPECT_EQ(ran.back(), 6U);
}

TEST(Messages, DescriptorIsReadableWhileMessagesWait) {
  TestWindow const window([](WPARAM) {}), other([](WPARAM) {});
  int const fd = MessageQueueDescriptor();
  EXPECT_NE(fcntl(fd, F_GETFD) & FD_CLOEXEC, 0);
  for (WPARAM w = 0; w < 3; ++w)
    window.Post(w);
  EXPECT_EQ(PumpMessages(0), 0);
  EXPECT_EQ(PumpMessages(2), 2);
  EXPECT_TRUE(IsReadable());
  MSG message;
  other.Post(1);
  EXPECT_FALSE(PeekMessageW(&message, window.hWnd, WM_APP + 1, WM_APP + 2, PM_REMOVE));
  EXPECT_TRUE(PeekMessageW(&message, window.hWnd, WM_APP, WM_APP, PM_REMOVE));
  EXPECT_EQ(message.wParam, 2U);
  EXPECT_FALSE(PeekMessageW(&message, window.hWnd, WM_APP, WM_APP, PM_REMOVE));
  EXPECT_TRUE(IsReadable());
  EXPECT_EQ(PumpMessages(2), 1);
  EXPECT_FALSE(IsReadable());
  EXPECT_FALSE(ReleaseMessageQueue()) << "windows are left";
  DestroyWindow(window.hWnd);
  DestroyWindow(other.hWnd);
  EXPECT_TRUE(ReleaseMessageQueue());
  EXPECT_EQ(fcntl(fd, F_GETFD), -1);
}

TEST(Messages, DestroyedWindowTakesItsOwnMessagesAndNoOthers) {
  for (bool const bFromOtherThread : {false, true}) {
    std::vector<WPARAM> ran;
    std::unique_ptr<TestWindow> doomed;
    TestWindow const kept([&](WPARAM w) { ran.push_back(w); });
    doomed = std::make_unique<TestWindow>([&](WPARAM w) {
      ran.push_back(w);
      auto const destroy = [hWnd = doomed->hWnd] { EXPECT_TRUE(DestroyWindow(hWnd)); };
      bFromOtherThread ? std::thread(destroy).join() : destroy();
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
  int fd = -1;
  std::thread([&] {
    window = std::make_unique<TestWindow>([](WPARAM) {});
    fd = MessageQueueDescriptor();
    window->Post(7);
  }).join();
  EXPECT_EQ(fcntl(fd, F_GETFD), -1);
  EXPECT_FALSE(window->Post(8));
  EXPECT_EQ(PumpMessages(kAll), 0);
  MSG message;
  ASSERT_TRUE(PeekMessageW(&message, window->hWnd, WM_APP, WM_APP, PM_REMOVE));
  EXPECT_EQ(message.wParam, 7U);
  EXPECT_TRUE(DestroyWindow(window->hWnd));
}

TEST(Messages, ForkedChildLeavesTheParentsQueueAloneAndCanHaveItsOwn) {
  int nRan = 0;
  TestWindow const window([&](WPARAM) { ++nRan; });
  window.Post(1);
  pid_t const child = fork();
  if (child == 0) {
    MSG message;
    bool const bLeftAlone = PumpMessages(kAll) == 0 && MessageQueueDescriptor() == -1 && WaitForMessages(-1) == 0 &&
                            !window.Post(2) && !PeekMessageW(&message, window.hWnd, 0, WM_APP, PM_REMOVE) &&
                            !DestroyWindow(window.hWnd);
    TestWindow const own([](WPARAM) {});
    _exit(!bLeftAlone ? 1 : own.Post(3) && WaitForMessages(0) == 1 && PumpMessages(kAll) == 1 ? 0 : 2);
  }
  int nStatus = -1;
  EXPECT_EQ(waitpid(child, &nStatus, 0), child);
  EXPECT_EQ(nStatus, 0);
  EXPECT_EQ(PumpMessages(kAll), 1);
  EXPECT_EQ(nRan, 1);
}

class SelfDeletingWnd : public CWnd {
public:
  LRESULT OnMessage(WPARAM wParam, LPARAM) {
    if (wParam == 0)
      throw std::runtime_error("handler");
    delete this;
    return 1;
  }

protected:
  AFX_MSGMAP const *GetMessageMap() const override {
    static AFX_MSGMAP_ENTRY const s_entries[] = {{WM_APP, static_cast<AFX_PMSG>(&SelfDeletingWnd::OnMessage)},
                                                 {0, nullptr}};
    static AFX_MSGMAP const s_map = {GetThisMessageMap(), s_entries};
    return &s_map;
  }
};

TEST(Wnd, HandlerMayThrowAndMayDeleteItsObject) {
  auto *const pWnd = new SelfDeletingWnd;
  WCHAR const *const wszClass = AfxRegisterWndClass(0, nullptr, nullptr, nullptr);
  ASSERT_TRUE(pWnd->CreateEx(0, wszClass, nullptr, WS_POPUP, {0, 0, 0, 0}, nullptr, 0));
  HWND const hWnd = pWnd->m_hWnd;
  PostMessageW(hWnd, WM_APP + 1, 0, 0); // nobody handles it
  for (WPARAM const wParam : {0, 1, 1})
    PostMessageW(hWnd, WM_APP, wParam, 0);
  EXPECT_EQ(PumpMessages(kAll), 3); // the last one went with the window
  EXPECT_FALSE(PostMessageW(hWnd, WM_APP, 0, 0));
}

} // namespace
