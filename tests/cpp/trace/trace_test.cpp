// The trace's switches, prefix and lines, as captured from standard error.
#include "tests/cpp/platform/TestHooks.h"
#include "tests/cpp/platform/helpers.h"
#include "trace/Trace.h"

#include <atomic>

struct TraceTest : ::testing::Test {
  ~TraceTest() override {
    Switches("0", "0");
    TraceInit(nullptr); // off again for the next test
    std::filesystem::remove(m_registry);
  }
  void Switches(std::string const &dump, std::string const &etw = "") const {
    setenv("SKIFFPORT_REGISTRY", m_registry.c_str(), 1);
    std::ofstream(m_registry) << "[HKEY_LOCAL_MACHINE\\software\\QUILLON\\Tintwright]\n\"dumpMsg\"=dword:" + dump
                              << (etw.empty() ? "\n" : "\n\"DumpInETW\"=dword:" + etw + "\n");
  }
  template <class Work> static std::string Lines(Work work) {
    ::testing::internal::CaptureStderr();
    work();
    return ::testing::internal::GetCapturedStderr();
  }

  std::filesystem::path m_registry = testing::TempDir() + "trace_test." + std::to_string(getpid()) + ".reg";
};

TEST_F(TraceTest, WritesLinesOnlyWhenSwitchedOn) { // the switch for events finds no library
  ScopedTestHooks const hooks({.fault = [](FaultPoint call, DWORD *) { return call == FaultPoint::LoadLibraryA; }});
  auto const trace = [] { return TraceInit("Case"), TraceMsgA("n %d", 5); };
  Switches("ffffffff", "1");
  EXPECT_EQ(Lines(trace), "[Case] n 5\n");
  Switches("0", "1");
  EXPECT_EQ(Lines(trace), "");
}

TEST_F(TraceTest, KeepsSwitchesAndPrefixAndCutsOrEscapesTexts) {
  Switches("1");
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
  char const *const rows[][2] = {{"zzzzzzz", "zzzzzz"}, {"\1", "\\u0001"}, {"z\1z", "z"}}; // an escape is never cut
  for (auto const &[szText, szShown] : rows) {
    std::string const text = y + szText, line = "[T] " + y + szShown + "\n";
    EXPECT_EQ(Lines([&text] { TraceMsgA("%s", text.c_str()); }), line);
    EXPECT_EQ(Lines([&text] { TraceMsgW(L"%S", text.c_str()); }), line);
  }
}

// Lets a thread hold the trace's lock for some ms. It uses only what is static, since it may never end.
static std::atomic<int> s_nTime = 0;
PlatformTestHooks const s_hooks{nullptr, nullptr, [](FaultPoint call, DWORD *) {
                                  if (call == FaultPoint::LoadLibraryA)
                                    std::this_thread::sleep_for(std::chrono::milliseconds(s_nTime.exchange(0)));
                                  return call == FaultPoint::LoadLibraryA;
                                }};
static void HoldTheLock(int nTime) {
  s_nTime = nTime;
  SetPlatformTestHooks(&s_hooks);
  std::thread([] { TraceInit("T"); }).detach(); // a sanitizer would have a forked child join it
  WaitFor([] { return s_nTime == 0; });
}

TEST_F(TraceTest, NeitherAForkNorTheExitMeetsALockThatIsHeld) {
  Switches("1", "1");
  auto const run = [] {
    alarm(20);
    HoldTheLock(200); // leaves time for the fork, which must wait for the lock
    bool const bTraced = HoldsInChild([] { return TraceInit("Child"), TraceMsgA("a"), true; });
    HoldTheLock(3'600'000);
    std::exit(bTraced ? 0 : 1);
  };
  EXPECT_EXIT(run(), testing::ExitedWithCode(0), "^\\[Child\\] a\n$");
}

TEST_F(TraceTest, DoesNotMixTheLinesOfThreads) {
  Switches("1");
  TraceInit("T");
  auto const write = [](wchar_t c) {
    for (int n = 0; n < 100; ++n)
      TraceMsgW(L"%s", std::wstring(200, c).c_str());
  };
  std::string const lines = Lines([&] { std::jthread const a(write, L'a'), b(write, L'b'), c(write, L'c'); });
  ASSERT_EQ(lines.size(), 300 * 205U);
  for (std::size_t at = 0; at < lines.size(); at += 205)
    EXPECT_EQ(lines.substr(at, 205), "[T] " + std::string(200, lines[at + 4]) + "\n");
}
