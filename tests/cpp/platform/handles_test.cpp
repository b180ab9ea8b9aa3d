// Handles and arguments across the rooms: each wrong one fails with its error number, what is closed leaves nothing
// behind, and a forked child leaves the parent's alone.
#include "framework/ComTypes.h"
#include "framework/Wnd.h"
#include "platform/system/Files.h"
#include "platform/system/Registry.h"
#include "platform/system/Threads.h"
#include "tests/cpp/platform/http/http_peer.h"

#include <fcntl.h>
#include <malloc.h>
#include <sys/socket.h>

namespace {

HINTERNET Connect(HINTERNET parent) { return InternetConnectW(parent, L"h.test", 80, nullptr, nullptr, 3, 0, 0); }
HINTERNET Open(HINTERNET parent) { return HttpOpenRequestA(parent, "GET", "/", nullptr, nullptr, nullptr, 0, 0); }
HINTERNET const g_session = InternetOpenW(L"agent", INTERNET_OPEN_TYPE_PRECONFIG, nullptr, nullptr, 0);
HINTERNET const g_request = Open(Connect(g_session));
HANDLE OpenFile() { return CreateFileW(L"/proc/self/maps", GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr); }
HANDLE Begin() {
  auto const start = [](void *) { return 0U; };
  return reinterpret_cast<HANDLE>(_beginthreadex(nullptr, 0, start, nullptr, 0, nullptr));
}
HANDLE Duplicate(HANDLE source) {
  HANDLE copy = nullptr, self = GetCurrentProcess();
  return DuplicateHandle(self, source, self, &copy, 0, FALSE, DUPLICATE_SAME_ACCESS) ? copy : nullptr;
}
HWND Create(WCHAR const *name) {
  return CreateWindowExW(0, name, L"", 0, 0, 0, 0, 0, nullptr, nullptr, nullptr, nullptr);
}
HKEY OpenKey(HKEY hRoot) {
  HKEY hKey = nullptr;
  SetLastError(static_cast<DWORD>(RegOpenKeyExW(hRoot, L"Key", 0, KEY_QUERY_VALUE, &hKey)));
  return hKey;
}

DWORD g_value = 1;
auto *const kNoWindow = reinterpret_cast<HWND>(0x4444);
HANDLE const kNone = reinterpret_cast<HANDLE>(0x4444);

/// A call that fails, and the error number that it sets.
using Misuse = std::pair<DWORD, bool (*)()>;
#define MISUSE(error, call) Misuse(error, [] { return static_cast<bool>(call); })
Misuse const kMisuses[] = {
    MISUSE(87, InternetOpenW(L"agent\r\nX: 1", INTERNET_OPEN_TYPE_PRECONFIG, nullptr, nullptr, 0)),
    MISUSE(6, Connect(kNone)),
    MISUSE(12018, Open(g_session)),
    MISUSE(87, HttpAddRequestHeadersA(g_request, "no colon", 0xFFFFFFFF, HTTP_ADDREQ_FLAG_ADD)),
    MISUSE(87, HttpSendRequestW(g_request, nullptr, 0, "body", 4)),
    MISUSE(12019, HttpQueryInfoW(g_request, HTTP_QUERY_STATUS_CODE, nullptr, &g_value, nullptr)),
    MISUSE(12019, HttpEndRequestW(g_request, nullptr, 0, 0)),
    MISUSE(87, InternetSetOptionW(g_session, INTERNET_OPTION_SEND_TIMEOUT, &g_value, 3)),
    MISUSE(12018, InternetSetOptionW(g_session, INTERNET_OPTION_SECURITY_FLAGS, &g_value, sizeof g_value)),
    MISUSE(1407, Create(L"unheard of")),
    MISUSE(1400, DestroyWindow(kNoWindow) || SetWindowLongPtrW(kNoWindow, GWL_STYLE, 1)),
    MISUSE(6, Duplicate(kNone) || GetExitCodeThread(kNone, nullptr) || ResumeThread(kNone) != 0xFFFFFFFF),
    MISUSE(6, GetFileSize(kNone, nullptr) != INVALID_FILE_SIZE || WaitForSingleObject(kNone, 0) != WAIT_FAILED),
    MISUSE(6, OpenKey(nullptr))};

TEST(Handles, MisuseFailsWithItsErrorNumber) {
  for (Misuse const &misuse : kMisuses) {
    SetLastError(0);
    EXPECT_TRUE(!misuse.second() && misuse.first == GetLastError()) << "row " << &misuse - kMisuses;
  }
}

/// How many descriptors are open; of files, queues and connections, none may be inherited.
std::size_t Descriptors() {
  std::size_t count = 0;
  for (int fd = 3; fd < 256; ++fd) {
    int const flags = fcntl(fd, F_GETFD);
    sockaddr name{};
    socklen_t size = sizeof name;
    getsockname(fd, &name, &size);
    count += flags >= 0;
    EXPECT_TRUE(flags < 0 || (flags & FD_CLOEXEC) || name.sa_family == AF_UNIX) << fd; // libcurl's own wake-ups
  }
  return count;
}

void CloseTwice(HANDLE handle) {
  HANDLE const copy = Duplicate(handle);
  EXPECT_TRUE(Descriptors() && CloseHandle(handle) && CloseHandle(copy));
}
void CloseWithin(HINTERNET hParent) { EXPECT_TRUE(InternetCloseHandle(Open(hParent)) && InternetCloseHandle(hParent)); }
void UseWindow(HWND hWnd) { EXPECT_TRUE(PostMessageW(hWnd, WM_APP, 0, 0) && DestroyWindow(hWnd)); }
/// Runs an exchange up to a point, and looks at the descriptors in its stages.
void Exchange(bool isStreamed) {
  Client client(443);
  client.onStage = [](DWORD) { Descriptors(); };
  std::string reply;
  EXPECT_EQ(0u, isStreamed ? client.Begin(99) : client.Send());
  EXPECT_EQ(0u, isStreamed ? client.Write("some") : client.Read(reply, 2));
}

/// What is made and closed, so often that what stays each time is seen.
std::tuple<char const *, int, void (*)()> const kCycles[] = {
    {"file", 100, [] { CloseTwice(OpenFile()); }},
    {"thread", 100, [] { CloseTwice(Begin()); }},
    {"window", 100, [] { UseWindow(Create(AfxRegisterWndClass(0, nullptr, nullptr, nullptr))); }},
    {"queue", 100, [] { std::thread([] { EXPECT_TRUE(MessageQueueDescriptor() >= 0 && Descriptors()); }).join(); }},
    {"registry key", 100, [] { EXPECT_EQ(0, RegCloseKey(OpenKey(HKEY_LOCAL_MACHINE))); }},
    {"text", 100, [] { EXPECT_STREQ(CComBSTR("a\xD6\xD0\xFFz\xD6"), L"a\u4E2D\uFFFDz\uFFFD"); }},
    {"connection", 1000, [] { CloseWithin(Connect(g_session)); }},
    {"refused connection", 50,
     [] { EXPECT_FALSE(InternetOpenUrlA(g_session, "http://127.0.0.1:1/", nullptr, 0, 0, 0)); }},
    {"exchange", 20, [] { Exchange(false); }},
    {"upload left off", 20, [] { Exchange(true); }},
};

TEST(Handles, WhatIsClosedLeavesNothing) {
  for (int fd = 3; fd < 256; ++fd)
    fcntl(fd, F_SETFD, FD_CLOEXEC);     // what the program began with
  auto const locale = UseLocale("GBK"); // conversions then need a descriptor of the C library's
  if (!locale)
    GTEST_SKIP() << "no character maps here (Debian package locales)";
  Peer const peer("keep --tls good --body ok");
  std::ofstream(Folder() + "/registry") << "[HKEY_LOCAL_MACHINE\\Key]\n";
  setenv("SKIFFPORT_REGISTRY", (Folder() + "/registry").c_str(), 1);
  for (auto const &[what, often, cycle] : kCycles) {
    auto const repeat = [run = cycle, ansi = uselocale(nullptr)](int count) { // on a thread, whose caches end with it
      std::thread([=]() mutable {
        for (uselocale(ansi); count > 0; --count)
          run();
      }).join();
    };
    repeat(5);
    std::size_t const fds = Descriptors(), bytes = mallinfo2().uordblks;
    repeat(often);
    EXPECT_TRUE(WaitFor([=] { return Descriptors() == fds && mallinfo2().uordblks < bytes + 2'000; })) << what;
  }
}

TEST(Handles, OfTheParentAreNotUsedInAForkedChild) {
  auto const use = [] { return Error(InternetSetOptionW(g_session, INTERNET_OPTION_SEND_TIMEOUT, &g_value, 4)); };
  EXPECT_TRUE(HoldsInChild([&] { return use() == 6 && InternetCloseHandle(g_session); }));
  EXPECT_EQ(0u, use());
}

} // namespace
