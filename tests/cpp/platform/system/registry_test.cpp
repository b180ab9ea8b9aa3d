// The registry file: the forms that it may have, and what counts as no key or no number.
#include "platform/base/LastError.h"
#include "platform/system/Registry.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <utility>

#include <unistd.h>

namespace {

/// The number that the registry file gives "DumpMsg"; -1: it gives none, -2: it has no such key.
int ReadSwitch() {
  HKEY hKey = nullptr;
  if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, L"SoftWare\\Quillon\\Tintwright", 0, KEY_QUERY_VALUE, &hKey) != ERROR_SUCCESS)
    return -2;
  DWORD type = 0, value = 0, size = sizeof value;
  LONG const result = RegQueryValueExW(hKey, L"DumpMsg", nullptr, &type, reinterpret_cast<BYTE *>(&value), &size);
  RegCloseKey(hKey);
  return result == ERROR_SUCCESS && type == 4 ? static_cast<int>(value) : -1;
}

TEST(Registry, ReadsTheFileInItsForms) {
  std::string const key = "[HKEY_LOCAL_MACHINE\\SoftWare\\Quillon\\Tintwright]\r\n";
  std::string const on = key + "\"DumpMsg\"=dword:0000000a\r\n";
  std::string wide = "\xFE\xFF";
  for (char const c : on)
    wide += {'\0', c};
  std::string const noNumbers = "\"DumpMsg\"=\"1\"\n\"DumpMsg\"=hex(4):02,\\\n  00,00,00\n;\"DumpMsg\"=dword:3\n"
                                "\"DumpMsg\"=dword:123456789\n\"DumpMsg\"=dword:4x\n\"DumpMsg\"=dword:\n"
                                "\"DumpMsg=dword:5\n[HKEY_LOCAL_MACHINE\\SoftWare\\Other]\n\"DumpMsg\"=dword:6\n"
                                "[HKEY_LOCAL_MACHINE\\SoftWare\n\"DumpMsg\"=dword:7\n";
  std::pair<std::string, int> const rows[] = {
      {"Registry Editor\r\n\r\n; note\r\n" + on, 10},
      {"\xEF\xBB\xBF" + on, 10},
      {wide, 10},
      {"[hkey_local_machine\\SOFTWARE\\quillon\\TINTWRIGHT]\n \"DUMPMSG\" = DWORD:A ; note", 10},
      {on + "\"DumpMsg\"=dword:1\n", 1},
      {key + noNumbers, -1},
      {"[HKEY_LOCAL_MACHINE\\SoftWare\\Quillon\\Tintwright\\Below]\n\"DumpMsg\"=dword:1\n", -1},
      {on + "\xFF", -2},
      {wide + "x", -2},
      {on + std::string(1024 * 1024, ';'), -2}};
  char path[] = "/tmp/skiffport-registry-XXXXXX";
  close(mkstemp(path));
  setenv("SKIFFPORT_REGISTRY", path, 1);
  for (auto const &[file, value] : rows) {
    std::ofstream(path, std::ios::binary) << file;
    EXPECT_EQ(ReadSwitch(), value) << file.substr(0, 400);
  }
  std::filesystem::remove(path);
  unsetenv("SKIFFPORT_REGISTRY");
}

} // namespace
