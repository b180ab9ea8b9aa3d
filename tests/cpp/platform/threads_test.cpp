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

struct Work {
  std::atomic<bool> bGo = false;
  std::atomic<bool> bDone = false;
  std::atomic<unsigned> uThreadId = 0;
};

unsigned RunWork(void *pArg) {
  auto &work = *static_cast<Work *>(pArg);
  work.uThreadId = static_cast<unsigned>(gettid());
  while (!work.bGo)
    std::this_thread::yield();
  work.bDone = true;
  return 0x80040301;
}

HANDLE Start(Work &work, unsigned uFlags, unsigned *puThreadId) {
  return reinterpret_cast<HANDLE>(_beginthreadex(nullptr, 0, RunWork, &work, uFlags, puThreadId));
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
  Work work;
  work.bGo = true;
  unsigned uThreadId = 0;
  DWORD dwExitCode = 0;
  HANDLE const hThread = Start(work, CREATE_SUSPENDED, &uThreadId);
  ASSERT_NE(hThread, nullptr);
  EXPECT_NE(uThreadId, 0U);
  auto const start = std::chrono::steady_clock::now();
  EXPECT_EQ(WaitForSingleObject(hThread, 20), WAIT_TIMEOUT);
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(20));
  EXPECT_TRUE(GetExitCodeThread(hThread, &dwExitCode));
  EXPECT_EQ(dwExitCode, STILL_ACTIVE);
  EXPECT_EQ(work.uThreadId, 0U) << "it must not have run";
  EXPECT_EQ(ResumeThread(hThread), 1U);
  EXPECT_EQ(WaitForSingleObject(hThread, INFINITE), WAIT_OBJECT_0);
  EXPECT_EQ(WaitForSingleObject(hThread, 0), WAIT_OBJECT_0);
  EXPECT_TRUE(GetExitCodeThread(hThread, &dwExitCode));
  EXPECT_EQ(dwExitCode, 0x80040301);
  EXPECT_EQ(work.uThreadId, uThreadId);
  EXPECT_TRUE(CloseHandle(hThread));
  SetLastError(0);
  EXPECT_FALSE(CloseHandle(hThread));
  EXPECT_EQ(WaitForSingleObject(hThread, 0), WAIT_FAILED);
  EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE);
  EXPECT_EQ(ResumeThread(nullptr), 0xFFFFFFFF);
}

TEST(Threads, ClosingTheHandleDoesNotStopTheThread) {
  Work work;
  HANDLE const hThread = Start(work, 0, nullptr);
  EXPECT_TRUE(CloseHandle(hThread));
  work.bGo = true;
  EXPECT_TRUE(Eventually([&] { return work.bDone.load(); }));
}

TEST(Threads, ForkedChildDoesNotWaitForTheParentsThread) {
  Work work;
  HANDLE const hThread = Start(work, 0, nullptr);
  pid_t const child = fork();
  if (child == 0) {
    DWORD dwExitCode = 0;
    _exit(WaitForSingleObject(hThread, INFINITE) == WAIT_FAILED && !GetExitCodeThread(hThread, &dwExitCode) &&
                  CloseHandle(hThread)
              ? 0
              : 1);
  }
  int nStatus = -1;
  EXPECT_EQ(waitpid(child, &nStatus, 0), child);
  EXPECT_EQ(nStatus, 0);
  work.bGo = true;
  EXPECT_EQ(WaitForSingleObject(hThread, INFINITE), WAIT_OBJECT_0);
  CloseHandle(hThread);
}

std::uintptr_t OpenPage(WCHAR const *wszAddress) {
  return reinterpret_cast<std::uintptr_t>(ShellExecuteW(nullptr, L"open", wszAddress, nullptr, nullptr, SW_SHOWNORMAL));
}

TEST(Shell, OpensWebAddressesOnlyAndCollectsTheOpener) {
  char szTemplate[] = "/tmp/skiffport-shell-XXXXXX";
  std::string const strPath = mkdtemp(szTemplate);
  std::string const strBefore = std::getenv("PATH");
  setenv("PATH", strPath.c_str(), 1);
  EXPECT_EQ(OpenPage(L"https://h/"), ERROR_FILE_NOT_FOUND) << "no opener";
  std::ofstream(strPath + "/xdg-open") << "#!/bin/sh\nprintf '%s,' \"$#\" \"$1\" >> '" << strPath << "/opened'\n";
  chmod((strPath + "/xdg-open").c_str(), 0700);
  for (WCHAR const *wszRefused : {L"", L"h/p", L"file:///etc/passwd", L"javascript://x", L"https:h", L"https:///p",
                                  L"http://h/a b", L"http://h/\n", L"http://h/\x7F", L"--help"})
    EXPECT_EQ(OpenPage(wszRefused), ERROR_ACCESS_DENIED) << testing::PrintToString(wszRefused);
  EXPECT_GT(OpenPage(L"HTTPS://h/p?a='$(x)'&\u4E2D"), 32U);
  EXPECT_TRUE(Eventually([&] {
    std::ifstream file(strPath + "/opened");
    return std::string(std::istreambuf_iterator<char>(file), {}) == "1,HTTPS://h/p?a='$(x)'&\xE4\xB8\xAD,";
  }));
  EXPECT_TRUE(Eventually([] {
    siginfo_t info;
    return waitid(P_ALL, 0, &info, WEXITED | WNOHANG | WNOWAIT) < 0; // looks without collecting
  })) << "a child is left over";
  setenv("PATH", strBefore.c_str(), 1);
  std::filesystem::remove_all(strPath);
}

TEST(Debug, EachTextIsOneWriteToStandardError) {
  int ends[2];
  ASSERT_EQ(pipe2(ends, O_DIRECT | O_NONBLOCK), 0); // a packet for each write
  int const nBefore = dup(STDERR_FILENO);
  dup2(ends[1], STDERR_FILENO);
  OutputDebugStringA("[A] narrow\n");
  OutputDebugStringW(L"[W] \u4E2D\n");
  OutputDebugStringW(nullptr);
  dup2(nBefore, STDERR_FILENO);
  char buffer[64];
  EXPECT_EQ(std::string(buffer, static_cast<std::size_t>(read(ends[0], buffer, sizeof buffer))), "[A] narrow\n");
  EXPECT_EQ(std::string(buffer, static_cast<std::size_t>(read(ends[0], buffer, sizeof buffer))), "[W] \xE4\xB8\xAD\n");
  EXPECT_EQ(read(ends[0], buffer, sizeof buffer), -1);
  for (int const fd : {ends[0], ends[1], nBefore})
    close(fd);
  EXPECT_EQ(LoadLibraryA("kernel32.dll"), nullptr);
  EXPECT_EQ(GetProcAddress(nullptr, "EventRegister"), nullptr);
}

} // namespace
