// The trace's switches, prefix and lines, as captured from standard error.
#include "shell/Trace.h"
#include "tests/cpp/platform/TestHooks.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <thread>
#include <vector>

#include <sys/wait.h>
#include <unistd.h>

namespace {

class TraceTest : public ::testing::Test {
protected:
  void SetUp() override { setenv("SKIFFPORT_REGISTRY", m_registry.c_str(), 1); }
  void TearDown() override {
    Switches("\"DumpMsg\"=dword:0\n\"DumpInETW\"=dword:0");
    TraceInit(nullptr); // off again for the next test
    std::filesystem::remove(m_registry);
  }
  void Switches(char const *szValues) const {
    std::ofstream(m_registry) << "Windows Registry Editor Version 5.00\n\n"
                                 "[HKEY_LOCAL_MACHINE\\software\\QUILLON\\Tintwright]\n"
                              << szValues << "\n";
  }
  template <class Work> static std::string Lines(Work work) {
    ::testing::internal::CaptureStderr();
    work();
    return ::testing::internal::GetCapturedStderr();
  }

  std::filesystem::path m_registry =
      std::filesystem::temp_directory_path() / ("trace_test." + std::to_string(std::rand()) + ".reg");
};

TEST_F(TraceTest, WritesLinesOnlyWhenSwitchedOn) {
  std::pair<char const *, char const *> const cases[] = {
      // the values and the resulting lines
      {"\"DumpMsg\"=dword:00000000\n\"DumpInETW\"=dword:00000001", ""},
      {"\"dumpmsg\"=dword:00000001", "[Case] n 5\n[Case] w \xC3\xA4 narrow (null)\n"},
      // The event-trace library can't be loaded here, so the lines go to the debug output.
      {"\"DumpMsg\"=dword:ffffffff\n\"DumpInETW\"=dword:00000001", "[Case] n 5\n[Case] w \xC3\xA4 narrow (null)\n"},
  };
  PlatformTestHooks hooks;
  hooks.fault = [](FaultPoint call, DWORD *) { return call == FaultPoint::LoadLibraryA; };
  SetPlatformTestHooks(&hooks);
  for (auto const &[szValues, szLines] : cases) {
    Switches(szValues);
    EXPECT_EQ(Lines([] {
                TraceInit("Case");
                TraceMsgA("n %d", 5);
                TraceMsgW(L"w %s %S %s", L"\u00e4", "narrow", static_cast<wchar_t const *>(nullptr));
              }),
              szLines)
        << szValues;
  }
  SetPlatformTestHooks(nullptr);
}

TEST_F(TraceTest, KeepsSwitchesAndPrefixWithoutNewOnesAndCutsALongText) {
  Switches("\"DumpMsg\"=dword:1");
  TraceInit("First");
  std::filesystem::remove(m_registry); // no key: the switches stay
  EXPECT_EQ(Lines([] {
              TraceInit(nullptr);
              TraceMsgA("a");
              TraceInit(std::string(64, 'x').c_str());
              TraceMsgW(L"b");
              TraceInit("Second");
              TraceMsgA("c");
            }),
            "[First] a\n[First] b\n[Second] c\n");
  std::string const line = "[Second] " + std::string(1023, 'y') + "\n";
  EXPECT_EQ(Lines([] { TraceMsgA("%s", std::string(2000, 'y').c_str()); }), line) << "cut";
  EXPECT_EQ(Lines([] { TraceMsgW(L"%s", std::wstring(2000, L'y').c_str()); }), line) << "cut";
}

TEST_F(TraceTest, WorksInAForkedChildWhateverTheParentsThreadsWereDoing) {
  Switches("\"DumpMsg\"=dword:1\n\"DumpInETW\"=dword:1");
  std::atomic<bool> bInside = false, bDone = false;
  PlatformTestHooks hooks;
  hooks.fault = [&](FaultPoint call, DWORD *) {
    bool const bFirst = call == FaultPoint::LoadLibraryA && !bInside.exchange(true); // holds the lock
    auto const end = std::chrono::steady_clock::now() + std::chrono::milliseconds(bFirst ? 200 : 0);
    while (std::chrono::steady_clock::now() < end) // leaves time for the fork, which has to wait for the lock
      std::this_thread::yield();
    return call == FaultPoint::LoadLibraryA;
  };
  SetPlatformTestHooks(&hooks);
  std::thread([&bDone] { TraceInit("T"), bDone = true; }).detach(); // a sanitizer would have the child join it
  while (!bInside)
    std::this_thread::yield();
  pid_t const child = fork();
  if (child == 0) {
    alarm(20);
    TraceInit("Child");
    _exit(Lines([] { TraceMsgA("a"); }) != "[Child] a\n");
  }
  int nStatus = -1;
  EXPECT_TRUE(waitpid(child, &nStatus, 0) == child && nStatus == 0);
  while (!bDone)
    std::this_thread::yield();
  SetPlatformTestHooks(nullptr);
}

TEST_F(TraceTest, LetsTheProcessEndWhateverTheOtherThreadsHold) {
  Switches("\"DumpMsg\"=dword:1\n\"DumpInETW\"=dword:1");
  static std::atomic<bool> bInside = false;
  static PlatformTestHooks hooks; // static, like the flag: the thread never ends
  hooks.fault = [](FaultPoint call, DWORD *) {
    bInside = call == FaultPoint::LoadLibraryA;
    while (bInside) // stands for a thread that is gone while it held the lock
      pause();
    return false;
  };
  auto const end = [] {
    alarm(20);
    SetPlatformTestHooks(&hooks);
    std::thread([] { TraceInit("T"); }).detach();
    while (!bInside)
      std::this_thread::yield();
    std::exit(0);
  };
  EXPECT_EXIT(end(), testing::ExitedWithCode(0), "");
}

TEST_F(TraceTest, DoesNotMixTheLinesOfThreads) {
  Switches("\"DumpMsg\"=dword:1");
  TraceInit("T");
  std::string const lines = Lines([] {
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i)
      threads.emplace_back([i] {
        for (int n = 0; n < 100; ++n)
          TraceMsgW(L"%s", std::wstring(200, static_cast<wchar_t>(L'a' + i)).c_str());
      });
    for (std::thread &thread : threads)
      thread.join();
  });
  ASSERT_EQ(lines.size(), 400 * 205U);
  for (std::size_t at = 0; at < lines.size(); at += 205)
    EXPECT_EQ(lines.substr(at, 205), "[T] " + std::string(200, lines[at + 4]) + "\n");
}

} // namespace
