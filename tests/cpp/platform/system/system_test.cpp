// Files, threads, sleeping, a lock across a fork, and the debug output.
#include "framework/SlimLock.h"
#include "platform/base/Clock.h"
#include "platform/base/LastError.h"
#include "platform/system/Debug.h"
#include "platform/system/Files.h"
#include "platform/system/Threads.h"

#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <utility>

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

TEST(Files, OnlyRegularFilesOpenAndEachRefusalHasItsError) {
  char pattern[] = "/tmp/skiffport-files-XXXXXX";
  std::string const folder = mkdtemp(pattern);
  std::ofstream(folder + "/file").close();
  std::ofstream(folder + "/a\xFF\xE4").close(); // the name is not UTF-8
  ASSERT_EQ(mkfifo((folder + "/fifo").c_str(), 0600), 0);
  std::pair<std::wstring, DWORD> const rows[] = {
      {L"/file", 0},       {L"/a\xDCFF\xDCE4", 0}, {L"", 5},
      {L"/fifo", 5},       {L"/missing", 2},       {L"/missing/file", 3},
      {L"/file/below", 3}, {L"/file\n", 123},      {L"/" + std::wstring(300, L'x'), 123}};
  for (auto const &[name, error] : rows) {
    std::wstring const path = std::wstring(folder.begin(), folder.end()) + name;
    bool const isThere = error == 0 || error == 5;
    EXPECT_TRUE(PathFileExistsW(path.c_str()) == isThere && (isThere || GetLastError() == error)) << error;
    HANDLE const file = CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr);
    EXPECT_EQ(GetLastError(), error) << testing::PrintToString(name);
    EXPECT_EQ(CloseHandle(file), error == 0) << testing::PrintToString(name);
  }
  std::filesystem::remove_all(folder);
}

TEST(Threads, SuspendedThreadRunsOnceResumedAndEachHandleClosesOnce) {
  unsigned id = 0;
  DWORD code = 0;
  auto const start = [](void *) { return 0x80040301U; };
  auto const thread = reinterpret_cast<HANDLE>(_beginthreadex(nullptr, 0, start, nullptr, CREATE_SUSPENDED, &id));
  HANDLE second = nullptr, self = GetCurrentProcess();
  ASSERT_TRUE(DuplicateHandle(self, thread, self, &second, 0, FALSE, DUPLICATE_SAME_ACCESS));
  EXPECT_TRUE(id != 0 && WaitForSingleObject(thread, 20) == WAIT_TIMEOUT);
  EXPECT_TRUE(GetExitCodeThread(thread, &code) && code == STILL_ACTIVE);
  EXPECT_TRUE(ResumeThread(thread) == 1 && WaitForSingleObject(thread, INFINITE) == WAIT_OBJECT_0);
  EXPECT_TRUE(CloseHandle(thread));
  EXPECT_FALSE(CloseHandle(thread)) << "the second time";
  EXPECT_EQ(WaitForSingleObject(thread, 0), WAIT_FAILED);
  EXPECT_TRUE(GetExitCodeThread(second, &code) && code == 0x80040301U) << "the other handle is open";
  EXPECT_TRUE(CloseHandle(second));
}

TEST(Sleep, LeavesTheThreadsTimerSlackAsItWas) {
  std::thread([] {
    EXPECT_EQ(prctl(PR_SET_TIMERSLACK, 70'000UL), 0);
    Sleep(1);
    EXPECT_EQ(prctl(PR_GET_TIMERSLACK), 70'000);
  }).join();
}

TEST(Locks, NoForkedChildFindsALockHeld) {
  static SlimLock s_lock;
  std::atomic<bool> isDone = false;
  std::thread user([&] {
    for (; !isDone; s_lock.unlock())
      s_lock.lock();
  });
  for (int n = 0; n < 20; ++n) {
    pid_t const child = fork();
    if (child == 0)
      _exit(s_lock.try_lock() ? 0 : 1);
    int status = -1;
    EXPECT_TRUE(waitpid(child, &status, 0) == child && status == 0) << status;
  }
  isDone = true;
  user.join();
}

TEST(DebugOutput, IsOneWriteALineAndCutBetweenCharacters) {
  std::string const longest(4094, 'x'); // with a line end there is room for one byte more
  int const kept = dup(STDERR_FILENO);
  int ends[2];
  ASSERT_EQ(pipe2(ends, O_DIRECT | O_NONBLOCK), 0); // each read then returns one write
  for (std::string const last : {"y", "\xC3\xA4"}) {
    dup2(ends[1], STDERR_FILENO);
    OutputDebugStringA((longest + last + "\n").c_str());
    dup2(kept, STDERR_FILENO);
    char buffer[8192] = "";
    EXPECT_GT(read(ends[0], buffer, sizeof buffer), 0);
    EXPECT_EQ(buffer, longest + (last == "y" ? "y\n" : "\n"));
  }
  for (int const fd : {ends[0], ends[1], kept})
    close(fd);
}

} // namespace
