// Threads and waiting; the opener of pages; the debug output.
#include "platform/Debug.h"
#include "platform/LastError.h"
#include "platform/Shell.h"
#include "platform/Threads.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <thread>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

/// Begins a thread that runs once it is let go.
HANDLE Start(std::atomic<bool> &bGo, unsigned uFlags = 0, unsigned *puThreadId = nullptr) {
  auto const run = [](void *pGo) {
    while (!static_cast<std::atomic<bool> *>(pGo)->exchange(false))
      std::this_thread::yield();
    return 0x80040301U;
  };
  return reinterpret_cast<HANDLE>(_beginthreadex(nullptr, 0, run, &bGo, uFlags, puThreadId));
}

template <class Condition> bool Eventually(Condition const &condition) {
  auto const limit = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (!condition())
    if (std::chrono::steady_clock::now() > limit)
      return false;
    else
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
  return true;
}

TEST(Threads, SuspendedThreadHasItsIdAndItsExitCodeComesWhole) {
  std::atomic<bool> bGo = true;
  unsigned uThreadId = 0;
  DWORD dwExitCode = 0;
  HANDLE const hThread = Start(bGo, CREATE_SUSPENDED, &uThreadId);
  EXPECT_TRUE(std::filesystem::exists("/proc/self/task/" + std::to_string(uThreadId)));
  auto const start = std::chrono::steady_clock::now();
  EXPECT_EQ(WaitForSingleObject(hThread, 20), WAIT_TIMEOUT);
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(20));
  EXPECT_TRUE(GetExitCodeThread(hThread, &dwExitCode));
  EXPECT_EQ(dwExitCode, STILL_ACTIVE);
  EXPECT_TRUE(bGo) << "it must not have run";
  EXPECT_EQ(ResumeThread(hThread), 1U);
  EXPECT_EQ(WaitForSingleObject(hThread, INFINITE), WAIT_OBJECT_0);
  EXPECT_TRUE(GetExitCodeThread(hThread, &dwExitCode));
  EXPECT_EQ(dwExitCode, 0x80040301);
  EXPECT_TRUE(CloseHandle(hThread));
  EXPECT_EQ(WaitForSingleObject(hThread, 0), WAIT_FAILED);
  EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE);
}

TEST(Threads, AnotherProcessDoesNotWaitForItAndClosingTheHandleDoesNotStopIt) {
  std::atomic<bool> bGo = false;
  HANDLE const hThread = Start(bGo);
  pid_t const child = fork();
  if (child == 0)
    _exit(WaitForSingleObject(hThread, INFINITE) == WAIT_FAILED && CloseHandle(hThread) ? 0 : 1);
  int nStatus = -1;
  EXPECT_EQ(waitpid(child, &nStatus, 0), child);
  EXPECT_EQ(nStatus, 0);
  EXPECT_TRUE(CloseHandle(hThread));
  bGo = true;
  EXPECT_TRUE(Eventually([&] { return !bGo; }));
}

std::uintptr_t OpenPage(WCHAR const *wszAddress) {
  return reinterpret_cast<std::uintptr_t>(ShellExecuteW(nullptr, L"open", wszAddress, nullptr, nullptr, SW_SHOWNORMAL));
}

TEST(Shell, OpensWebAddressesOnlyAndCollectsTheOpener) {
  char szTemplate[] = "/tmp/skiffport-shell-XXXXXX";
  std::string const strPath = mkdtemp(szTemplate);
  std::string const strBefore = std::getenv("PATH");
  setenv("PATH", szTemplate, 1);
  EXPECT_EQ(OpenPage(L"https://h/"), ERROR_FILE_NOT_FOUND) << "no opener";
  std::ofstream(strPath + "/xdg-open") << "#!/bin/sh\nprintf '%s,' \"$#\" \"$1\" >> '" << strPath << "/opened'\n";
  chmod((strPath + "/xdg-open").c_str(), 0700);
  for (WCHAR const *wszRefused : {L"", L"h/p", L"file:///etc/passwd", L"javascript://x", L"https:h", L"https:///p",
                                  L"http://h/a b", L"http://h/\n", L"http://h/\x7F", L"--help"})
    EXPECT_EQ(OpenPage(wszRefused), ERROR_ACCESS_DENIED) << testing::PrintToString(wszRefused);
  EXPECT_GT(OpenPage(L"HTTPS://h/p?a='$(x)'&\u4E2D"), 32U);
  EXPECT_TRUE(Eventually([] {
    siginfo_t info;
    return waitid(P_ALL, 0, &info, WEXITED | WNOHANG | WNOWAIT) < 0; // looks without collecting
  })) << "a child is left over";
  std::ifstream file(strPath + "/opened");
  EXPECT_EQ(std::string(std::istreambuf_iterator<char>(file), {}), "1,HTTPS://h/p?a='$(x)'&\xE4\xB8\xAD,");
  setenv("PATH", strBefore.c_str(), 1);
  std::filesystem::remove_all(strPath);
}

} // namespace
