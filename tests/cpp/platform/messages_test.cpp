// Windows, queues and the descriptor: order, nesting, ends of windows and threads, and what a forked child sees.
#include "platform/LastError.h"
#include "platform/Wnd.h"

#include <gtest/gtest.h>

#include <atomic>
#include <csignal>
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

/// Runs the function in a forked child. Returns: the number of the first check that failed, 0 for none.
int InChild(std::function<int()> const &run) {
  pid_t const child = fork();
  if (child == 0)
    _exit(run());
  int nStatus = 0;
  EXPECT_EQ(waitpid(child, &nStatus, 0), child);
  return WIFEXITED(nStatus) ? WEXITSTATUS(nStatus) : -1;
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
  EXPECT_FALSE(IsReadable());
  for (WPARAM w = 0; w < 3; ++w)
    window.Post(w);
  EXPECT_EQ(PumpMessages(0), 0);
  EXPECT_EQ(PumpMessages(2), 2);
  EXPECT_TRUE(IsReadable());
  EXPECT_EQ(PumpMessages(2), 1);
  EXPECT_FALSE(IsReadable());
  other.Post(1);
  window.Post(2);
  MSG message;
  EXPECT_FALSE(PeekMessageW(&message, window.hWnd, WM_APP + 1, WM_APP + 2, PM_REMOVE));
  EXPECT_TRUE(PeekMessageW(&message, window.hWnd, WM_APP, WM_APP, PM_REMOVE));
  EXPECT_EQ(message.wParam, 2U);
  EXPECT_FALSE(PeekMessageW(&message, window.hWnd, WM_APP, WM_APP, PM_REMOVE));
  EXPECT_EQ(PumpMessages(2), 1);
  EXPECT_FALSE(IsReadable());
  EXPECT_EQ(ReleaseMessageQueue(), FALSE);
  DestroyWindow(window.hWnd);
  DestroyWindow(other.hWnd);
  EXPECT_EQ(ReleaseMessageQueue(), TRUE);
  EXPECT_EQ(fcntl(fd, F_GETFD), -1);
}

TEST(Messages, DestroyedWindowTakesItsOwnMessagesAndNoOthers) {
  for (bool const bFromOtherThread : {false, true}) {
    std::vector<WPARAM> ran;
    std::unique_ptr<TestWindow> doomed;
    TestWindow const kept([&](WPARAM w) { ran.push_back(w); });
    doomed = std::make_unique<TestWindow>([&](WPARAM w) {
      ran.push_back(w);
      HWND const hWnd = doomed->hWnd;
      if (bFromOtherThread)
        std::thread([hWnd] { EXPECT_TRUE(DestroyWindow(hWnd)); }).join();
      else
        EXPECT_TRUE(DestroyWindow(hWnd));
      EXPECT_FALSE(doomed->Post(9));
      EXPECT_EQ(GetLastError(), ERROR_INVALID_WINDOW_HANDLE);
      EXPECT_FALSE(DestroyWindow(hWnd));
    });
    doomed->Post(1);
    kept.Post(2);
    doomed->Post(3);
    kept.Post(4);
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
  EXPECT_EQ(GetLastError(), ERROR_INVALID_WINDOW_HANDLE);
  EXPECT_EQ(PumpMessages(kAll), 0);
  MSG message;
  ASSERT_TRUE(PeekMessageW(&message, window->hWnd, WM_APP, WM_APP, PM_REMOVE));
  EXPECT_EQ(message.wParam, 7U);
  EXPECT_FALSE(PeekMessageW(&message, window->hWnd, WM_APP, WM_APP, PM_REMOVE));
  EXPECT_TRUE(DestroyWindow(window->hWnd));
}

TEST(Messages, ForkedChildLeavesTheParentsQueueAloneAndCanHaveItsOwn) {
  int nRan = 0;
  TestWindow const window([&](WPARAM) { ++nRan; });
  window.Post(1);
  int const nFailed = InChild([&] {
    MSG message;
    bool const checks[] = {PumpMessages(kAll) == 0,
                           MessageQueueDescriptor() == -1,
                           WaitForMessages(-1) == 0,
                           !window.Post(2) && GetLastError() == ERROR_INVALID_WINDOW_HANDLE,
                           !PeekMessageW(&message, window.hWnd, 0, WM_APP, PM_REMOVE),
                           !DestroyWindow(window.hWnd)};
    for (std::size_t u = 0; u < std::size(checks); ++u)
      if (!checks[u])
        return static_cast<int>(u) + 1;
    TestWindow const own([](WPARAM) {});
    return own.Post(3) && WaitForMessages(0) == 1 && PumpMessages(kAll) == 1 ? 0 : 20;
  });
  EXPECT_EQ(nFailed, 0);
  EXPECT_EQ(PumpMessages(kAll), 1);
  EXPECT_EQ(nRan, 1);
}

TEST(Messages, WaitEndsWithAMessageTheTimeOrASignal) {
  TestWindow const window([](WPARAM) {});
  EXPECT_EQ(WaitForMessages(0), 0);
  EXPECT_EQ(WaitForMessages(10), 0);
  std::thread poster([&] { window.Post(1); });
  EXPECT_EQ(WaitForMessages(-1), 1);
  poster.join();
  EXPECT_EQ(PumpMessages(kAll), 1);

  struct sigaction action = {}, before;
  action.sa_handler = [](int) {};
  sigaction(SIGUSR1, &action, &before);
  std::atomic<bool> bDone = false;
  std::thread sender([&, waiter = pthread_self()] {
    while (!bDone) {
      pthread_kill(waiter, SIGUSR1);
      std::this_thread::yield();
    }
  });
  EXPECT_EQ(WaitForMessages(10000), -1);
  bDone = true;
  sender.join();
  sigaction(SIGUSR1, &before, nullptr);
}

class SelfDeletingWnd : public CWnd {
public:
  explicit SelfDeletingWnd(int *pnAlive) : m_pnAlive(pnAlive) { ++*m_pnAlive; }
  ~SelfDeletingWnd() override { --*m_pnAlive; }

  LRESULT OnDelete(WPARAM, LPARAM) {
    delete this;
    return 1;
  }
  LRESULT OnThrow(WPARAM, LPARAM) { throw std::runtime_error("handler"); }

protected:
  AFX_MSGMAP const *GetMessageMap() const override {
    static AFX_MSGMAP_ENTRY const s_entries[] = {{WM_APP + 1, static_cast<AFX_PMSG>(&SelfDeletingWnd::OnDelete)},
                                                 {WM_APP + 2, static_cast<AFX_PMSG>(&SelfDeletingWnd::OnThrow)},
                                                 {0, nullptr}};
    static AFX_MSGMAP const s_map = {GetThisMessageMap(), s_entries};
    return &s_map;
  }

private:
  int *m_pnAlive;
};

TEST(Wnd, HandlerMayThrowAndMayDeleteItsObject) {
  int nAlive = 0;
  auto *const pWnd = new SelfDeletingWnd(&nAlive);
  ASSERT_TRUE(pWnd->CreateEx(0, AfxRegisterWndClass(0, nullptr, nullptr, nullptr), nullptr, WS_POPUP, {0, 0, 0, 0},
                             nullptr, 0));
  HWND const hWnd = pWnd->m_hWnd;
  for (UINT const uMessage : {WM_APP + 2, WM_APP + 3, WM_APP + 1, WM_APP + 1})
    EXPECT_TRUE(PostMessageW(hWnd, uMessage, 0, 0));
  EXPECT_EQ(PumpMessages(kAll), 3); // the last one went with the window
  EXPECT_EQ(nAlive, 0);
  EXPECT_FALSE(PostMessageW(hWnd, WM_APP, 0, 0));
}

} // namespace
