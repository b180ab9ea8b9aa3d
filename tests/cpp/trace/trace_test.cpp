// The trace's switches, prefix and lines, as captured from standard error.
#include "tests/cpp/platform/TestHooks.h"
#include "trace/Trace.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <thread>
#include <vector>

#include <sys/wait.h>
#include <unistd.h>

namespace {

class TraceTest : public ::testing::Test {
protected:
  void TearDown() override {
    SetPlatformTestHooks(nullptr);
    Switches("\"DumpMsg\"=dword:0\n\"DumpInETW\"=dword:0");
    TraceInit(nullptr); // off again for the next test
    std::filesystem::remove(m_registry);
  }
  void Switches(char const *szValues) const {
    setenv("SKIFFPORT_REGISTRY", m_registry.c_str(), 1);
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
      std::filesystem::temp_directory_path() / ("trace_test." + std::to_string(getpid()) + ".reg");
  PlatformTestHooks m_hooks;
};

TEST_F(TraceTest, WritesLinesOnlyWhenSwitchedOn) {
  m_hooks.fault = [](FaultPoint call, DWORD *) { return call == FaultPoint::LoadLibraryA; }; // no event-trace library
  SetPlatformTestHooks(&m_hooks);
  for (auto const &[szValues, bOn] : {std::pair("\"DumpMsg\"=dword:00000000\n\"DumpInETW\"=dword:00000001", false),
                                      std::pair("\"dumpmsg\"=dword:00000001", true),
                                      std::pair("\"DumpMsg\"=dword:ffffffff\n\"DumpInETW\"=dword:00000001", true)}) {
    Switches(szValues);
    EXPECT_EQ(Lines([] {
                TraceInit("Case");
                TraceMsgA("n %d", 5);
                TraceMsgW(L"w %s %S %s", L"\u00e4", "narrow", static_cast<wchar_t const *>(nullptr));
              }),
              bOn ? "[Case] n 5\n[Case] w \xC3\xA4 narrow (null)\n" : "")
        << szValues;
  }
}

TEST_F(TraceTest, KeepsSwitchesAndPrefixAndCutsOrEscapesTexts) {
  Switches("\"DumpMsg\"=dword:1");
  TraceInit("First");
  std::filesystem::remove(m_registry); // no key: the switches stay
  EXPECT_EQ(Lines([] {
              TraceInit(nullptr);
              TraceMsgA("a");
              TraceInit(std::string(64, 'x').c_str());
              TraceMsgW(L"b");
              TraceInit("T");
              TraceMsgA("c\t%s\n", "\r\n[T] \x1B[m\x7F\xC3\xA4");
              TraceMsgW(L"d\t%s\n", L"\r\n[T] \u0085\u009B\u00A0\u202E\u2028\U0001F600");
            }),
            "[First] a\n[First] b\n[T] c\t\\u000d\\u000a[T] \\u001b[m\\u007f\xC3\xA4\n\n"
            "[T] d\t\\u000d\\u000a[T] \\u0085\\u009b\xC2\xA0\\u202e\\u2028\xF0\x9F\x98\x80\n\n");
  std::string const y(1017, 'y');
  for (auto const &[text, shown] :
       {std::pair(y + std::string(99, 'z'), y + "zzzzzz"), std::pair(y + "\1", y + "\\u0001"),
        std::pair(y + "z\1z", y + "z")}) { // an escape is never cut
    char const *const szText = text.c_str();
    EXPECT_EQ(Lines([szText] { TraceMsgA("%s", szText); }), "[T] " + shown + "\n");
    EXPECT_EQ(Lines([szText] { TraceMsgW(L"%S", szText); }), "[T] " + shown + "\n");
  }
}

TEST_F(TraceTest, WorksInAForkedChildWhateverTheParentsThreadsWereDoing) {
  Switches("\"DumpMsg\"=dword:1\n\"DumpInETW\"=dword:1");
  std::atomic<bool> bInside = false, bDone = false;
  m_hooks.fault = [&](FaultPoint call, DWORD *) {
    bool const bFirst = call == FaultPoint::LoadLibraryA && !bInside.exchange(true); // holds the lock
    auto const end = std::chrono::steady_clock::now() + std::chrono::milliseconds(bFirst ? 200 : 0);
    while (std::chrono::steady_clock::now() < end) // leaves time for the fork, which must wait for the lock
      std::this_thread::yield();
    return call == FaultPoint::LoadLibraryA;
  };
  SetPlatformTestHooks(&m_hooks);
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
    std::vector<std::jthread> threads;
    for (wchar_t c = L'a'; c < L'e'; ++c)
      threads.emplace_back([c] {
        for (int n = 0; n < 100; ++n)
          TraceMsgW(L"%s", std::wstring(200, c).c_str());
      });
  });
  ASSERT_EQ(lines.size(), 400 * 205U);
  for (std::size_t at = 0; at < lines.size(); at += 205)
    EXPECT_EQ(lines.substr(at, 205), "[T] " + std::string(200, lines[at + 4]) + "\n");
}

} // namespace
