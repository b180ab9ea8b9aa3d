// Files, threads, the debug output and the registry file.
#include "platform/system/Debug.h"
#include "platform/system/Files.h"
#include "platform/system/Registry.h"
#include "platform/system/Threads.h"
#include "tests/cpp/platform/http/http_peer.h"

#include <fcntl.h>

TEST(Files, OnlyRegularFilesOpenAndEachRefusalHasItsError) {
  std::string const folder = Folder() + "/files";
  std::filesystem::create_directory(folder);
  for (char const *file : {"/file", "/a\xFF\xE4"}) // the second is not UTF-8
    std::ofstream(folder + file).close();
  std::pair<std::wstring, DWORD> const rows[] = {
      {L"/file", 0},         {L"/a\xDCFF\xDCE4", 0}, {L"", 5},          {L"/missing", 2},
      {L"/missing/file", 3}, {L"/file/below", 3},    {L"/file\n", 123}, {L"/" + std::wstring(300, L'x'), 123}};
  for (auto const &[name, error] : rows) {
    std::wstring const path = std::wstring(folder.begin(), folder.end()) + name;
    EXPECT_TRUE(PathFileExistsW(path.c_str()) ? error == 0 || error == 5 : GetLastError() == error) << error;
    HANDLE const file = CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr);
    EXPECT_TRUE(GetLastError() == error && CloseHandle(file) == (error == 0)) << testing::PrintToString(name);
  }
}

TEST(Threads, SuspendedThreadRunsOnceResumed) {
  unsigned id = 0;
  DWORD code = 0;
  auto const start = [](void *) { return 0x80040301U; };
  auto const thread = reinterpret_cast<HANDLE>(_beginthreadex(nullptr, 0, start, nullptr, CREATE_SUSPENDED, &id));
  EXPECT_TRUE(id != 0 && WaitForSingleObject(thread, 20) == WAIT_TIMEOUT);
  EXPECT_TRUE(GetExitCodeThread(thread, &code) && code == STILL_ACTIVE);
  EXPECT_TRUE(ResumeThread(thread) == 1 && WaitForSingleObject(thread, INFINITE) == WAIT_OBJECT_0);
  EXPECT_TRUE(GetExitCodeThread(thread, &code) && code == 0x80040301U);
  EXPECT_TRUE(CloseHandle(thread));
  EXPECT_FALSE(CloseHandle(thread));
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

/// The number that a registry file gives "DumpMsg"; -1: it gives none, -2: it has no such key.
static int ReadSwitch(std::string const &content) {
  std::ofstream(Folder() + "/registry", std::ios::binary) << content;
  setenv("SKIFFPORT_REGISTRY", (Folder() + "/registry").c_str(), 1);
  HKEY hKey = nullptr;
  DWORD type = 0, value = 0, size = sizeof value;
  if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, L"SoftWare\\Quillon\\Tintwright", 0, KEY_QUERY_VALUE, &hKey) != ERROR_SUCCESS)
    return -2;
  LONG const result = RegQueryValueExW(hKey, L"DumpMsg", nullptr, &type, reinterpret_cast<BYTE *>(&value), &size);
  RegCloseKey(hKey);
  return result == ERROR_SUCCESS && type == 4 ? static_cast<int>(value) : -1;
}

TEST(Registry, ReadsTheFileInItsForms) {
  std::string const root = "[HKEY_LOCAL_MACHINE\\SoftWare", name = "\"DumpMsg\"=", tail = name + "dword:6\n";
  std::string const key = root + "\\Quillon\\Tintwright]\r\n", on = key + name + "dword:0000000a\r\n";
  std::string wide = "\xFE\xFF";
  for (char const c : on)
    wide += {'\0', c};
  std::pair<std::string, int> const rows[] = {
      {"Registry Editor\r\n\r\n; note\r\n" + on, 10},
      {"\xEF\xBB\xBF" + on, 10},
      {wide, 10},
      {"[hkey_local_machine\\SOFTWARE\\quillon\\TINTWRIGHT]\n \"DUMPMSG\" = DWORD:A ; note", 10},
      {on + name + "dword:1\n", 1},
      {key + ";" + tail + "\"DumpMsg=dword:5\n" + root + "\\Other]\n" + tail + root + "\n" + tail, -1},
      {root + "\\Quillon\\Tintwright\\Below]\n" + tail, -1},
      {on + "\xFF", -2},
      {wide + "x", -2},
      {wide + "\xD8\x01", -2},
      {on + std::string(1024 * 1024, ';'), -2}};
  for (auto const &[file, value] : rows)
    EXPECT_EQ(ReadSwitch(file), value) << file.substr(0, 400);
  for (char const *data : {"\"1\"", "hex(4):02,\\\n  00,00,00", "dword:123456789", "dword:4x", "dword:"})
    EXPECT_EQ(ReadSwitch(key + name + data), -1) << data;
}
